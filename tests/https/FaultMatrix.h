// The fault matrix: what becomes of each of the four kinds of request under each fault, on real sockets.
//
// Kinds and faults are data. A cell is one kind under one fault; its expectation follows from the fault's row and the
// kind's family.

#ifndef VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_H
#define VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "FaultMatrixStage.h"
#include "support/RoomMember.h"

struct Kind {
    const char* name;
    const char* title;
    const char* interfaceName;
    bool isMix;
    bool isStart;
    const char* startCall;  // of the listener, for a start of the family
    const char* call;       // of the listener
    void (*start)(LiveTranscodingAdapter& adapter);
    void (*act)(LiveTranscodingAdapter& adapter);
};

const std::vector<Kind>& kinds();

// What the listener is told in the end, and how often.
enum class Told { kSuccess, kTransport, kEmpty, kUnreadable, kServerCode, kNothing };

constexpr int kServerCode = -77;
constexpr const char* kServerMessage = "no such app";

// What the HTTPS client tells the adapter.
struct Answered {
    int retCode;
    std::string response;
};

struct Fault {
    enum Where { kLoopback, kNoName, kNetworkOfItsOwn };

    const char* name;
    const char* words;
    std::function<void(Stage& stage)> strike;
    std::vector<Answered> answers;  // one for each send
    Told told;
    int requests;  // that reach a server whole; those of other clients are not counted
    Where where = kLoopback;
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(30);
    std::chrono::milliseconds totalTimeout = std::chrono::seconds(60);

    bool waits() const { return connectTimeout < std::chrono::seconds(30) || totalTimeout < std::chrono::seconds(60); }
    bool isThereFromTheStart() const { return where == kNoName; }
};

// In the order of an exchange.
const std::vector<Fault>& faults();

struct Cell {
    const Kind* kind;
    const Fault* fault;

    std::string name() const { return std::string(kind->name) + "_" + fault->name; }
};

inline void PrintTo(const Cell& cell, std::ostream* out) {
    *out << cell.name();
}

std::vector<Cell> cells();

std::vector<Call> expectedCalls(const Cell& cell);

// All cells as a table in Markdown.
std::string faultTable();

#endif
