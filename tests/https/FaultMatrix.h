// The fault matrix: each of the four kinds of request under each fault, on real sockets.
//
// Kinds and faults are data. A case is one kind under one fault. The fault lists the responses that the HTTPS client
// delivers; from these, the oracle derives the expected listener calls.

#ifndef VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_H
#define VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "FaultMatrixEnvironment.h"
#include "support/Oracle.h"
#include "support/RoomMember.h"

struct Kind {
    const char* name;
    const char* title;
    oracle::Kind request;

    const oracle::KindRules& rules() const { return oracle::rulesOf(request); }
    bool isMix() const { return rules().family == oracle::kMix; }
    bool isStart() const { return request == oracle::startOf(request); }
};

const std::vector<Kind>& kinds();

// The arguments of the HTTPS client's callback to the adapter.
struct Response {
    int retCode;
    std::string body;
};

struct Fault {
    enum Where { kLoopback, kUnknownHost, kOwnNetwork };

    const char* name;
    const char* description;
    std::function<void(CaseEnvironment& environment)> inject;
    std::vector<Response> responses;  // one for each send
    int requests;                     // complete requests of the kind under test that a server reads
    Where where = kLoopback;
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(30);
    std::chrono::milliseconds totalTimeout = std::chrono::seconds(60);

    bool waitsForATimeout() const {
        return connectTimeout < std::chrono::seconds(30) || totalTimeout < std::chrono::seconds(60);
    }
    bool affectsTheEarlierStart() const { return where == kUnknownHost; }
};

// Ordered by the stage of an exchange: network, TLS, connection, response; HTTP/2 comes last.
const std::vector<Fault>& faults();

struct Case {
    const Kind* kind;
    const Fault* fault;

    std::string name() const { return std::string(kind->name) + "_" + fault->name; }
};

inline void PrintTo(const Case& testCase, std::ostream* out) {
    *out << testCase.name();
}

std::vector<Case> matrixCases();

std::vector<oracle::Notification> expectedCalls(const Case& testCase);

// All cases as a table in Markdown.
std::string faultTable();

#endif
