// Upper bounds on the resources that the library uses, in counts that do not depend on the machine's speed:
// allocations, connections, threads, system calls, wake-ups and instructions. If a change exceeds a bound for a good
// reason, derive the new bound from the line "measured" that the test prints.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "service/LiveService.h"
#include "support/ChildProcess.h"

namespace {

// Exact values.
constexpr double kAllocationsOfAnAdapter = 10;
constexpr double kThreadsBeyondWorkers = 2;
constexpr double kSignalsOfAPostToABusyWorker = 0;
constexpr double kSignalsOfAPostToAnIdleWorker = 1;

// 20 % above the measured values. Each task that has run makes its future ready. This costs one FUTEX_WAKE, even if no
// thread waits.
constexpr double kAllocationsOfARelayStart = 167;
constexpr double kSystemCallsOfARelayStart = 26;
constexpr double kFutexWakesOfAPostToABusyWorker = 1.2;
constexpr double kFutexWakesOfAPostToAnIdleWorker = 4;

// 15 % above the measured values.
constexpr double kInstructionsOfAPost = 1590;
constexpr double kInstructionsOfAMixOf4 = 126000;
constexpr double kInstructionsOfAMixOf16 = 342600;
constexpr double kInstructionsOfAStreamId = 6430;

// ---- Running programs -----------------------------------------------------------------------------------------------

using Words = std::vector<std::string>;
using Environment = std::map<std::string, std::string>;
using Figures = std::map<std::string, double>;

struct Ended {
    int status;
    std::string output;
    std::string errors;
};

Words operator+(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

Ended run(const Words& command, const Environment& environment) {
    ChildProcess child(Words{"/usr/bin/env"} + command, environment);
    const int status = child.awaitExit();
    return {status, child.output(), child.errors()};
}

// The error of a command that does not work on this machine; empty if it works.
std::string errorOf(const Words& command) {
    const Ended ended = run(command, {});
    return ended.status == 0 ? std::string() : command.front() + " does not work here: " + ended.errors;
}

// Parses the output of a program that prints a name and a number on each line.
Figures figuresOf(const Words& command, const Environment& environment = {}) {
    const Ended ended = run(command, environment);
    EXPECT_EQ(ended.status, 0) << ended.errors;
    Figures figures;
    std::istringstream lines(ended.output);
    std::string name;
    for (double number = 0; lines >> name >> number;) {
        figures[name] = number;
    }
    return figures;
}

// Runs `command` twice, with `fewer` and with `more` repetitions as its last argument. Returns the count for one
// repetition; the difference excludes the start and the end of the program.
template <class F>
double countOfEach(const Words& command, int fewer, int more, F countOf) {
    const double least = countOf(command + Words{std::to_string(fewer)});
    return (countOf(command + Words{std::to_string(more)}) - least) / (more - fewer);
}

double measured(double count, const char* what) {
    std::printf("measured: %g %s\n", count, what);
    return count;
}

// ---- Counted by the programs themselves -----------------------------------------------------------------------------

class Relays : public testing::Test {
protected:
    Relays() {
        std::string pattern = testing::TempDir() + "vexalive-counts-XXXXXX";
        mFolder = mkdtemp(pattern.data());
        vexalive::LiveServiceOptions options;
        options.stateFolder = mFolder;
        mService = std::make_unique<vexalive::LiveService>(options);
    }
    ~Relays() override {
        mService.reset();
        std::filesystem::remove_all(mFolder);
    }

    void SetUp() override { ASSERT_TRUE(mService->start()); }

    Environment environment() const {
        return {{"VEXALIVE_SERVICE_HOST", mService->address()},
                {"VEXALIVE_CA_FILE", mService->caFile()},
                {"VEXALIVE_PUSH_DOMAIN", ""},
                {"no_proxy", "*"}};
    }

private:
    std::string mFolder;
    std::unique_ptr<vexalive::LiveService> mService;
};

TEST_F(Relays, AllocationsOfAnAdaptersConstruction) {
    const Figures figures = figuresOf({RELAY_PROBE, "construction"}, environment());
    EXPECT_LE(measured(figures.at("allocations"), "allocations"), kAllocationsOfAnAdapter);
}

TEST_F(Relays, AllocationsOfAStartOverAWarmConnectionOnAllThreads) {
    const Figures figures = figuresOf({RELAY_PROBE, "starts", "100"}, environment());
    EXPECT_LE(measured(figures.at("allocations"), "allocations a start"), kAllocationsOfARelayStart);
}

TEST_F(Relays, AHundredAdaptersOneAfterAnotherNeedOneConnectionAndAWorkerEach) {
    const Figures figures = figuresOf({RELAY_PROBE, "sequence", "100"}, environment());
    EXPECT_EQ(measured(figures.at("threads_while_idle"), "threads of adapters that idle"), 0);
    EXPECT_EQ(measured(figures.at("connections"), "connections"), 1);
    EXPECT_LE(measured(figures.at("threads_beyond_workers"), "threads beyond the workers"), kThreadsBeyondWorkers);
}

TEST(Posts, ToABusyWorkerWakeNobody) {
    const Figures figures = figuresOf({LOOP_PROBE, "busy", "1000"});
    EXPECT_EQ(measured(figures.at("signals"), "signals for 1000 posts"), 1000 * kSignalsOfAPostToABusyWorker);
}

TEST(Posts, ToAnIdleWorkerWakeItOnceEach) {
    const Figures figures = figuresOf({LOOP_PROBE, "idle", "100"});
    EXPECT_GT(measured(figures.at("signals"), "signals for 100 posts"), 0);
    EXPECT_LE(figures.at("signals"), 100 * kSignalsOfAPostToAnIdleWorker);
}

// ---- Counted by strace ----------------------------------------------------------------------------------------------

const Words kCalls = {"strace", "-f", "-c", "-U", "calls,name"};
const Words kFutexCalls = {"strace", "-f", "-e", "trace=futex"};

class SystemCalls : public Relays {
protected:
    void SetUp() override {
        Relays::SetUp();
        if (const std::string error = errorOf(kCalls + Words{"true"}); !error.empty()) {
            GTEST_SKIP() << error;
        }
    }

    double callsOf(const Words& command) const {
        const Ended strace = run(kCalls + command, environment());
        EXPECT_EQ(strace.status, 0) << strace.errors;
        double calls = 0;
        std::istringstream lines(strace.errors);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(" total") != std::string::npos) {
                calls = std::strtod(line.c_str(), nullptr);
            }
        }
        return calls;
    }

    static double futexWakesOf(const Words& command) {
        const Ended strace = run(kFutexCalls + command, {});
        EXPECT_EQ(strace.status, 0) << strace.errors;
        double calls = 0;
        for (size_t at = 0; (at = strace.errors.find("FUTEX_WAKE", at)) != std::string::npos; ++at) {
            ++calls;
        }
        return calls;
    }
};

TEST_F(SystemCalls, OfARelayStartOverAWarmConnectionOnAllThreads) {
    const double calls = countOfEach({RELAY_PROBE, "starts"}, 50, 150, [this](const Words& w) { return callsOf(w); });
    EXPECT_GT(measured(calls, "system calls a start"), 2) << "the request and the response are two";
    EXPECT_LE(calls, kSystemCallsOfARelayStart);
}

TEST_F(SystemCalls, ThatWakeForAPostToABusyWorker) {
    const double calls = countOfEach({LOOP_PROBE, "busy"}, 1000, 3000, futexWakesOf);
    EXPECT_LE(measured(1000 * calls, "FUTEX_WAKE for 1000 posts and their runs"),
              1000 * kFutexWakesOfAPostToABusyWorker);
}

TEST_F(SystemCalls, ThatWakeForAPostToAnIdleWorker) {
    const double calls = countOfEach({LOOP_PROBE, "idle"}, 100, 300, futexWakesOf);
    EXPECT_GT(measured(calls, "FUTEX_WAKE for a post and its run"), 0);
    EXPECT_LE(calls, kFutexWakesOfAPostToAnIdleWorker);
}

// ---- Counted by valgrind --------------------------------------------------------------------------------------------

const Words kInstructions = {"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"};

class Instructions : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string error = errorOf({"valgrind", "--tool=none", "true"}); !error.empty()) {
            GTEST_SKIP() << error;
        }
    }

    static double instructionsOf(const Words& command) {
        const Ended valgrind = run(kInstructions + command, {});
        EXPECT_EQ(valgrind.status, 0) << valgrind.errors;
        const std::string label = "Collected : ";
        const size_t at = valgrind.errors.find(label);
        return at == std::string::npos ? 0 : std::strtod(valgrind.errors.c_str() + at + label.size(), nullptr);
    }

    static void expectOfEach(const Words& command, int fewer, double bound) {
        const double each = countOfEach(command, fewer, 2 * fewer, instructionsOf);
        EXPECT_GT(measured(each, "instructions"), 0);
        EXPECT_LE(each, bound);
    }
};

TEST_F(Instructions, OfAPostAndItsRun) {
    expectOfEach({LOOP_PROBE, "busy"}, 2000, kInstructionsOfAPost);
}

TEST_F(Instructions, OfTheBodyOfAMixOf4) {
    expectOfEach({BODY_PROBE, "mix", "4"}, 50, kInstructionsOfAMixOf4);
}

TEST_F(Instructions, OfTheBodyOfAMixOf16) {
    expectOfEach({BODY_PROBE, "mix", "16"}, 50, kInstructionsOfAMixOf16);
}

TEST_F(Instructions, OfAStreamId) {
    expectOfEach({BODY_PROBE, "stream_id"}, 500, kInstructionsOfAStreamId);
}

}  // namespace
