// The fault matrix: each of the four kinds of request under each fault, on real sockets.
//
// Kinds and faults are data. A case is one kind under one fault; the oracle derives what it must lead to from the
// responses in the fault's row.

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

// What the HTTPS client hands to the adapter.
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
    int requests;                     // that a server reads whole, of the client under test
    Where where = kLoopback;
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(30);
    std::chrono::milliseconds totalTimeout = std::chrono::seconds(60);

    bool waits() const { return connectTimeout < std::chrono::seconds(30) || totalTimeout < std::chrono::seconds(60); }
    bool isActiveFromTheStart() const { return where == kUnknownHost; }
};

// In the order of an exchange.
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
