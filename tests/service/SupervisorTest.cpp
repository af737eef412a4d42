// The supervision of child processes, with and without faults, and the reading of their output.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "service/Child.h"
#include "service/LineReader.h"
#include "service/Supervisor.h"
#include "support/Journal.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using namespace std::chrono_literals;
using vexalive::ProcessStatus;
using vexalive::StreamStatus;
using vexalive::Supervisor;
using vexalive::WorkerKey;
using vexalive::WorkerState;
using vexalive::WorkerStatus;
using Clock = std::chrono::steady_clock;

namespace {

WorkerKey key(const std::string& name) {
    return {WorkerKey::Kind::kRelay, name};
}

WorkerStatus running() {
    WorkerStatus status;
    status.output.state = WorkerState::kRunning;
    return status;
}

// A relay's configuration. The end of its addresses selects the behaviour of the fake worker.
std::string configurationFor(const std::string& ending, const std::string& destination = "rtmp://cdn.test/live/one") {
    return json{{"relay", {{"source", "rtmp://origin.test/live/8888_" + ending}, {"destination", destination}}}}.dump();
}

size_t openDescriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

std::vector<pid_t> children() {
    std::vector<pid_t> pids;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::istringstream list(readAll(thread.path() / "children"));
        for (pid_t pid = 0; list >> pid;) {
            pids.push_back(pid);
        }
    }
    return pids;
}

class SupervisorTest : public ::testing::Test {
protected:
    struct Entry {
        std::string name;
        std::string text;
    };

    void SetUp() override { ASSERT_TRUE(mSupervisor.start()); }

    static Supervisor::Program worker(std::chrono::milliseconds timeout = 20s) {
        return {{FAKE_WORKER, "relay"}, timeout};
    }
    static Supervisor::Program workerWithHandover() {
        Supervisor::Program program = worker();
        program.handover = 300ms;
        return program;
    }

    ProcessStatus statusOf(const std::string& name) const {
        return mSupervisor.status(key(name)).value_or(ProcessStatus{});
    }
    StreamStatus streamOf(const std::string& name) const { return statusOf(name).worker.output; }
    std::string errorOf(const std::string& name) const { return streamOf(name).error; }
    pid_t pidOf(const std::string& name) const { return parseWorkerReport(errorOf(name)).pid; }

    // Waits until the worker's error contains `text`. A fake worker reports its configuration in its error.
    bool reports(const std::string& name, const std::string& text) const {
        return pollUntil([&] { return errorOf(name).find(text) != std::string::npos; });
    }

    // Returns the error; empty if there is none.
    std::string configure(const std::string& name, const Supervisor::Program& program, const std::string& line) {
        const auto configured = mSupervisor.configure(key(name), program, line);
        return configured ? "" : configured.error().message;
    }
    std::string configure(const std::string& name, const std::string& line) { return configure(name, worker(), line); }

    // Starts a worker that does not exit when its input ends.
    pid_t startStuckWorker(const Supervisor::Program& program) {
        configure("one", program, configurationFor("babe"));
        EXPECT_TRUE(reports("one", "configuration 1"));
        return pidOf("one");
    }
    bool awaitAnotherProcess(pid_t previous) const {
        return pollUntil([&] { return pidOf("one") != previous && pidOf("one") != 0; });
    }
    bool awaitCount(size_t count) const {
        return pollUntil([&] { return mSupervisor.count() == count; });
    }

    static std::vector<std::string> entriesOf(const std::string& name, const Journal<Entry>& journal) {
        std::vector<std::string> texts;
        for (const Entry& entry : journal.all()) {
            if (entry.name == name) {
                texts.push_back(entry.text);
            }
        }
        return texts;
    }

    // Waits until the numbers that follow `text` in the lines of the child add up to at least `sum`. Returns the total.
    int awaitSum(const std::string& name, const std::string& text, int sum) const {
        int found = 0;
        pollUntil([&] {
            found = 0;
            for (const std::string& line : entriesOf(name, mLines)) {
                const size_t at = line.find(text);
                found += at == std::string::npos ? 0 : std::atoi(line.c_str() + at + text.size());
            }
            return found >= sum;
        });
        return found;
    }

    Journal<Entry> mLines;
    Journal<Entry> mStates;
    Journal<Entry> mMessages;
    Supervisor mSupervisor{{[this](const WorkerKey& from, const ProcessStatus& status) {
                                mStates.add({from.streamId, nameOf(status.worker.output.state)});
                            },
                            [this](const WorkerKey& from, const std::string& line) {
                                mLines.add({from.streamId, line});
                            },
                            [this](const WorkerKey& from, const json& message) {
                                mMessages.add({from.streamId, message.dump()});
                            }}};
};

}  // namespace

TEST(RestartDelay, GrowsToEightSecondsAndStays) {
    std::vector<int> delays;
    for (int failures = 0; failures < 8; ++failures) {
        delays.push_back(static_cast<int>(vexalive::restartDelay(failures).count()));
    }
    EXPECT_EQ((std::vector<int>{250, 500, 1000, 2000, 4000, 8000, 8000, 8000}), delays);
    EXPECT_EQ(8s, vexalive::restartDelay(1'000'000));
}

// Exception to the rule that no test asserts elapsed time: the service must not wait 3 s for a child that exits.
TEST_F(SupervisorTest, AChildIsStartedReconfiguredAndStopped) {
    ASSERT_EQ("", configure("one", configurationFor("0001", "rtmp://first")));
    ASSERT_TRUE(reports("one", "rtmp://first"));
    EXPECT_EQ(WorkerState::kRunning, streamOf("one").state);
    EXPECT_EQ(1000u, streamOf("one").bytes);
    const pid_t pid = pidOf("one");

    ASSERT_EQ("", configure("one", configurationFor("0001", "rtmp://second")));
    ASSERT_TRUE(reports("one", "rtmp://second"));
    EXPECT_EQ(2, parseWorkerReport(errorOf("one")).configurations);
    EXPECT_EQ(pid, pidOf("one"));
    EXPECT_EQ(1u, mSupervisor.count());

    const auto begun = Clock::now();
    mSupervisor.remove(key("one"));
    ASSERT_TRUE(awaitCount(0));
    EXPECT_LT(Clock::now() - begun, 2s);
    EXPECT_FALSE(mSupervisor.status(key("one")));
    EXPECT_TRUE(children().empty());
    const auto states = entriesOf("one", mStates);
    ASSERT_GE(states.size(), 3u);
    EXPECT_EQ("starting", states.front());
    EXPECT_EQ("stopping", states[states.size() - 2]);
    EXPECT_EQ("stopped", states.back());
}

TEST_F(SupervisorTest, AMissingProgramIsReported) {
    EXPECT_EQ("cannot run /no/such/program: No such file or directory", configure("one", {{"/no/such/program"}}, ""));
    EXPECT_EQ(0u, mSupervisor.count());
    EXPECT_FALSE(mSupervisor.status(key("one")));
}

TEST_F(SupervisorTest, ALackOfDescriptorsIsNotBlamedOnTheProgram) {
    std::string error;
    withoutDescriptors([&] { error = configure("one", {{"/bin/sleep", "100"}}, ""); });
    EXPECT_EQ("this service cannot create a process for /bin/sleep: Too many open files", error);
}

TEST_F(SupervisorTest, AKilledChildIsStartedAgainWithItsLastConfiguration) {
    configure("one", configurationFor("0001", "rtmp://first"));
    configure("one", configurationFor("0001", "rtmp://second"));
    ASSERT_TRUE(reports("one", "configuration 2"));
    const pid_t pid = pidOf("one");

    ASSERT_EQ(0, ::kill(pid, SIGKILL));
    ASSERT_TRUE(reports("one", "killed by signal 9"));
    EXPECT_EQ(WorkerState::kReconnecting, streamOf("one").state);
    ASSERT_TRUE(reports("one", "configuration 1"));

    EXPECT_EQ("rtmp://second", parseWorkerReport(errorOf("one")).configuration["destination"]);
    EXPECT_NE(pid, pidOf("one"));
    EXPECT_EQ(1u, statusOf("one").restarts);
}

TEST_F(SupervisorTest, TheExitStatusOfAChildIsReported) {
    configure("one", configurationFor("ed07"));
    EXPECT_TRUE(reports("one", "the process exited with status 7"));
}

// Exception to the rule that no test asserts elapsed time: the delays of restarts are under test.
TEST_F(SupervisorTest, AChildThatKeepsCrashingIsRestartedAfterGrowingDelaysThatANewConfigurationEnds) {
    const auto begun = Clock::now();
    configure("one", configurationFor("dead"));
    ASSERT_TRUE(pollUntil([&] {
        const ProcessStatus status = statusOf("one");
        return status.restarts == 3 && status.worker.output.state == WorkerState::kReconnecting;
    }));
    EXPECT_GE(Clock::now() - begun, 250ms + 500ms + 1000ms);
    EXPECT_EQ("the process was killed by signal 9, Killed: about to crash", errorOf("one"));

    const auto configured = Clock::now();
    configure("one", configurationFor("0001"));
    ASSERT_TRUE(reports("one", "configuration 1"));
    EXPECT_LT(Clock::now() - configured, 1500ms);  // without the new configuration, the delay is 2 s
}

// Exception to the rule that no test asserts elapsed time: a child that does not exit is killed after 3 s.
TEST_F(SupervisorTest, AChildThatIgnoresTheEndOfItsInputIsKilledAndItsKeyIsFreeAtOnce) {
    const pid_t stuck = startStuckWorker(worker());
    const auto begun = Clock::now();
    mSupervisor.remove(key("one"));
    ASSERT_EQ("", configure("one", configurationFor("0001")));
    EXPECT_EQ(2u, mSupervisor.count());
    ASSERT_TRUE(awaitAnotherProcess(stuck));
    ASSERT_EQ(0, ::kill(stuck, 0));

    ASSERT_TRUE(awaitCount(1));
    EXPECT_GE(Clock::now() - begun, 2900ms);
    EXPECT_LT(Clock::now() - begun, 6s);
    EXPECT_EQ(-1, ::kill(stuck, 0));
    EXPECT_EQ(WorkerState::kRunning, streamOf("one").state);  // state of the new child
}

// Exception to the rule that no test asserts elapsed time: a handover kills the stopping child sooner than after 3 s.
TEST_F(SupervisorTest, WithAHandoverAChildStartsWhenTheStoppingOneHasExitedOrWasKilled) {
    const Supervisor::Program program = workerWithHandover();
    const pid_t stuck = startStuckWorker(program);
    const auto begun = Clock::now();
    mSupervisor.remove(key("one"));
    ASSERT_EQ("", configure("one", program, configurationFor("dead")));
    ASSERT_EQ("", configure("one", program, configurationFor("0001")));  // a new configuration does not end the wait
    ASSERT_TRUE(awaitAnotherProcess(stuck));
    EXPECT_EQ(-1, ::kill(stuck, 0));
    EXPECT_GE(Clock::now() - begun, 300ms);
    EXPECT_LT(Clock::now() - begun, 2s);
    EXPECT_EQ(1u, mSupervisor.count());
    EXPECT_EQ(0u, statusOf("one").restarts);
    const std::vector<std::string> states = entriesOf("one", mStates);
    const auto stopping = std::find(states.begin(), states.end(), "stopping");
    ASSERT_NE(states.end(), stopping);
    EXPECT_EQ("starting", *std::next(stopping));
    EXPECT_EQ(0, std::count(states.begin(), states.end(), "stopped"));
}

TEST_F(SupervisorTest, AChildThatIsRemovedDuringTheHandoverIsNotStarted) {
    const Supervisor::Program program = workerWithHandover();
    startStuckWorker(program);
    mSupervisor.remove(key("one"));
    configure("one", program, configurationFor("0001"));
    mSupervisor.remove(key("one"));
    ASSERT_TRUE(awaitCount(0));
    EXPECT_TRUE(children().empty());
    EXPECT_FALSE(mSupervisor.status(key("one")));
}

TEST_F(SupervisorTest, AChildWithoutAStatusCountsAsHungAndIsRestarted) {
    configure("silent", worker(300ms), configurationFor("cafe"));
    configure("good", worker(300ms), configurationFor("0001"));  // writes a status every 100 ms
    ASSERT_TRUE(reports("silent", "sent no status for 300 ms"));
    ASSERT_TRUE(pollUntil([&] { return statusOf("silent").restarts >= 1; }));
    EXPECT_EQ(0u, statusOf("good").restarts);
}

TEST_F(SupervisorTest, MalformedLinesAreCountedAndReportedAndDoNoHarm) {
    configure("one", configurationFor("bead"));
    ASSERT_TRUE(reports("one", "configuration 1"));
    EXPECT_EQ(6, awaitSum("one", "malformed lines of its output: ", 6));
    EXPECT_EQ(1, awaitSum("one", "output that were too long or too many: ", 1));
    EXPECT_EQ(0u, statusOf("one").restarts);
}

// Measures the processor time during 2 s. To read all lines, the supervisor would need a whole processor.
TEST_F(SupervisorTest, FloodsCostLittleAndDisturbNoOther) {
    configure("statuses", configurationFor("f00d"));
    configure("lines", configurationFor("feed"));
    const std::clock_t before = std::clock();
    configure("good", configurationFor("0001"));
    ASSERT_TRUE(reports("good", "configuration 1"));
    ASSERT_LT(0, awaitSum("lines", "omitted lines: ", 1));
    ASSERT_LT(0, awaitSum("statuses", "too many: ", 1));
    std::this_thread::sleep_for(2s);
    EXPECT_LT(std::clock() - before, 2 * CLOCKS_PER_SEC);
    EXPECT_LT(entriesOf("lines", mLines).size(), 120u);
    EXPECT_LT(entriesOf("statuses", mStates).size(), 10u);
}

TEST_F(SupervisorTest, MessagesAreDelivered) {
    configure("one", configurationFor("0001"));
    mSupervisor.send(key("one"), R"({"snapshot":{"width":640}})");
    ASSERT_TRUE(mMessages.await(1));
    EXPECT_EQ((std::vector<std::string>{R"({"snapshot":"/9j/1001"})"}), entriesOf("one", mMessages));
}

// The timeout of a status is 400 ms; of the first status, 2.4 s. The loop of 3 s exceeds both.
TEST_F(SupervisorTest, AStatusFromOutsideCountsAsOneOfTheChild) {
    configure("server", {{"/bin/sleep", "100"}, 400ms, SIGTERM}, "");
    for (const auto begun = Clock::now(); Clock::now() - begun < 3s; std::this_thread::sleep_for(100ms)) {
        mSupervisor.setStatus(key("server"), running());
    }
    EXPECT_EQ(0u, statusOf("server").restarts);
    EXPECT_EQ(WorkerState::kRunning, streamOf("server").state);
    EXPECT_TRUE(pollUntil([&] { return statusOf("server").restarts > 0; }));
}

// Exception to the rule that no test asserts elapsed time: without the signal, the child would be killed after 3 s.
TEST_F(SupervisorTest, AStopSignalEndsAChildThatDoesNotReadItsInput) {
    configure("server", {{"/bin/sleep", "100"}, 20s, SIGTERM}, "");
    const auto begun = Clock::now();
    mSupervisor.remove(key("server"));
    ASSERT_TRUE(awaitCount(0));
    EXPECT_LT(Clock::now() - begun, 2s);
}

// Exception to the rule that no test asserts elapsed time: the time limit of stop() is under test.
TEST_F(SupervisorTest, ManyThreadsMayConfigureAndAStopLeavesNoProcess) {
    mSupervisor.stop();
    const size_t before = openDescriptors();
    ASSERT_TRUE(mSupervisor.start());
    runConcurrently(8, [this](int thread) {
        for (int round = 0; round < 12; ++round) {
            const std::string name = std::to_string((thread + round) % 5);  // several threads use the same name
            configure(name, configurationFor(round % 4 == 3 ? "dead" : "0001"));
            mSupervisor.status(key(name));
            mSupervisor.send(key(name), R"({"snapshot":{"width":1}})");
            if (round % 2 == 1) {
                mSupervisor.remove(key(name));
            }
        }
    });
    startStuckWorker(worker());

    const auto begun = Clock::now();
    mSupervisor.stop();
    EXPECT_LT(Clock::now() - begun, 3500ms);
    EXPECT_TRUE(children().empty());  // zombies count as well
    EXPECT_LE(openDescriptors(), before);
    EXPECT_EQ("the service is not running", configure("late", configurationFor("0001")));
}

// A callback that blocks for 2.5 s simulates a suspended process, which reads no status of its children.
TEST(SuspendedSupervisor, ExtendsTheTimeoutsOfItsChildren) {
    const auto onState = [](const WorkerKey& from, const ProcessStatus& status) {
        if (from == key("delay") && status.worker.output.state == WorkerState::kStarting) {
            std::this_thread::sleep_for(2500ms);
        }
    };
    Supervisor supervisor({onState, [](const WorkerKey&, const std::string&) {}, [](const WorkerKey&, const json&) {}});
    ASSERT_TRUE(supervisor.start());
    const auto server = [&supervisor] { return *supervisor.status(key("server")); };
    ASSERT_TRUE(supervisor.configure(key("server"), {{"/bin/sleep", "100"}, 1200ms, SIGTERM}, ""));
    supervisor.setStatus(key("server"), running());
    ASSERT_TRUE(supervisor.configure(key("delay"), {{"/bin/sleep", "100"}, 20s, SIGTERM}, ""));  // returns after 2.5 s
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(100ms);
        supervisor.setStatus(key("server"), running());
    }
    EXPECT_EQ(0u, server().restarts);
    EXPECT_EQ(WorkerState::kRunning, server().worker.output.state);
    EXPECT_TRUE(pollUntil([&] { return server().restarts == 1; }));  // no further status arrives
}

// ---- The environment of a child
// -----------------------------------------------------------------------------------------

TEST(Child, HasItsStreamsAndNoOtherDescriptorAndDefaultSignals) {
    const int leaked = ::dup(STDERR_FILENO);  // without O_CLOEXEC, as a descriptor of another library may be
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto pipeBefore = ::signal(SIGPIPE, SIG_IGN);
    const auto started = vexalive::Child::start(
        {"/bin/sh", "-c", "ls /proc/self/fd; grep -E '^Sig(Blk|Ign)' /proc/self/status; ps -o pgid= -p $$; echo $$"});
    ::signal(SIGPIPE, pipeBefore);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::close(leaked);
    ASSERT_TRUE(started);
    const auto& child = *started;
    std::string output;
    vexalive::LineReader reader({1000, 1000, 100000});
    const auto onLine = [&output](const std::string& line) { output += line + "\n"; };
    ASSERT_TRUE(pollUntil([&] { return !reader.read(child->output.get(), Clock::now(), onLine); }));
    // Descriptor 3 is the folder that ls reads.
    EXPECT_EQ(0u, output.find("0\n1\n2\n3\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n")) << output;
    std::optional<std::string> end;
    ASSERT_TRUE(pollUntil([&] { return (end = child->reap()).has_value(); }));
    EXPECT_EQ("exited with status 0", *end);
}

TEST(Child, IsKilledWithItsOwner) {
    auto child = vexalive::Child::start({"/bin/sleep", "100"});
    ASSERT_EQ(1u, children().size());
    child->reset();
    EXPECT_TRUE(children().empty());
}

// ---- Lines ----------------------------------------------------------------------------------------------------------

TEST(LineReader, SplitsLinesWhereverThePiecesEndAndOmitsLongOnes) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_NONBLOCK));
    vexalive::LineReader reader({5, 100, 1000});
    std::vector<std::string> lines;
    const auto onLine = [&lines](const std::string& line) { lines.push_back(line); };
    for (const std::string piece : {"on", "e\n\ntw", "o\nsixsix\n", "abc", "def\nfive5", "\nrest"}) {
        ASSERT_EQ(static_cast<ssize_t>(piece.size()), ::write(ends[1], piece.data(), piece.size()));
        EXPECT_TRUE(reader.read(ends[0], Clock::now(), onLine));
    }
    EXPECT_EQ((std::vector<std::string>{"one", "", "two", "five5"}), lines);
    EXPECT_EQ(2u, reader.takeOmitted());
    EXPECT_EQ(0u, reader.takeOmitted());
    EXPECT_EQ("rest", reader.takeRest());
    ::close(ends[1]);
    EXPECT_FALSE(reader.read(ends[0], Clock::now(), onLine));
    ::close(ends[0]);
}

TEST(LineReader, LimitsTheLinesAndBytesThatItReadsPerSecond) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_NONBLOCK));
    vexalive::LineReader reader({100, 3, 10});
    int lines = 0;
    const auto onLine = [&lines](const std::string&) { ++lines; };
    const auto now = Clock::now();
    ASSERT_EQ(14, ::write(ends[1], "1\n2\n3\n4\n5\n6\n7\n", 14));
    EXPECT_TRUE(reader.read(ends[0], now, onLine));
    EXPECT_EQ(3, lines);
    EXPECT_EQ(2u, reader.takeOmitted());  // ten bytes have five lines, of which three are delivered
    EXPECT_EQ(now + 1s, reader.ready());
    EXPECT_TRUE(reader.read(ends[0], now + 500ms, onLine));
    EXPECT_EQ(3, lines);
    EXPECT_TRUE(reader.read(ends[0], now + 1s, onLine));
    EXPECT_EQ(5, lines);
    EXPECT_LE(reader.ready(), now);
    ::close(ends[0]);
    ::close(ends[1]);
}
