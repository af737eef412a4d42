// Child processes, with and without faults, and the lines that they write.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "service/Child.h"
#include "service/LineReader.h"
#include "service/Supervisor.h"
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
    void SetUp() override { ASSERT_TRUE(mSupervisor.start()); }

    Supervisor::Program worker(std::chrono::milliseconds timeout = 20s) const {
        return {{FAKE_WORKER, "relay"}, timeout};
    }

    // The fake worker reports how many configurations it has had, its process and the last one.
    bool reports(const std::string& name, const std::string& text) const {
        return pollUntil([&] { return errorOf(name).find(text) != std::string::npos; });
    }

    ProcessStatus statusOf(const std::string& name) const {
        return mSupervisor.status(key(name)).value_or(ProcessStatus{});
    }
    StreamStatus streamOf(const std::string& name) const { return statusOf(name).worker.output; }
    std::string errorOf(const std::string& name) const { return streamOf(name).error; }

    // The error, if there is one.
    std::string configure(const std::string& name, const Supervisor::Program& program, const std::string& line) {
        const auto configured = mSupervisor.configure(key(name), program, line);
        return configured ? "" : configured.error().message;
    }
    std::string configure(const std::string& name, const std::string& line) { return configure(name, worker(), line); }

    bool isEmptySoon() {
        return pollUntil([this] { return mSupervisor.count() == 0; });
    }

    pid_t pidOf(const std::string& name) const { return parseWorkerReport(errorOf(name)).pid; }

    std::vector<std::string> linesOf(const std::string& name) {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mLines[name];
    }
    std::vector<std::string> statesOf(const std::string& name) {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mStates[name];
    }
    // The sum of the numbers behind this text.
    int counted(const std::string& name, const std::string& text) {
        int sum = 0;
        for (const std::string& line : linesOf(name)) {
            const size_t at = line.find(text);
            sum += at == std::string::npos ? 0 : std::atoi(line.c_str() + at + text.size());
        }
        return sum;
    }

    std::mutex mMutex;
    std::map<std::string, std::vector<std::string>> mLines;
    std::map<std::string, std::vector<std::string>> mStates;
    std::vector<std::string> mMessages;
    Supervisor mSupervisor{{[this](const WorkerKey& from, const ProcessStatus& status) {
                                const std::lock_guard<std::mutex> lock(mMutex);
                                mStates[from.streamId].push_back(nameOf(status.worker.output.state));
                            },
                            [this](const WorkerKey& from, const std::string& line) {
                                const std::lock_guard<std::mutex> lock(mMutex);
                                mLines[from.streamId].push_back(line);
                            },
                            [this](const WorkerKey& from, const json& message) {
                                const std::lock_guard<std::mutex> lock(mMutex);
                                mMessages.push_back(from.streamId + message.dump());
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

TEST_F(SupervisorTest, AChildIsStartedReconfiguredAndStopped) {
    ASSERT_EQ("", configure("one", configurationFor("0001", "rtmp://first")));
    ASSERT_TRUE(reports("one", "rtmp://first"));
    EXPECT_EQ(WorkerState::kRunning, streamOf("one").state);
    EXPECT_EQ(1000u, streamOf("one").bytes);
    const pid_t pid = pidOf("one");

    ASSERT_EQ("", configure("one", configurationFor("0001", "rtmp://second")));
    ASSERT_TRUE(reports("one", "rtmp://second"));
    EXPECT_NE(std::string::npos, errorOf("one").find("configuration 2"));
    EXPECT_EQ(pid, pidOf("one"));
    EXPECT_EQ(1u, mSupervisor.count());

    const auto begun = Clock::now();
    mSupervisor.remove(key("one"));
    ASSERT_TRUE(isEmptySoon());
    EXPECT_LT(Clock::now() - begun, 2s);  // it was not killed
    EXPECT_FALSE(mSupervisor.status(key("one")));
    EXPECT_TRUE(children().empty());
    const auto states = statesOf("one");
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
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none = {3, before.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    const std::string refusal = configure("one", {{"/bin/sleep", "100"}}, "");
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ("this service cannot create a process for /bin/sleep: Too many open files", refusal);
}

TEST_F(SupervisorTest, AKilledChildIsStartedAgainWithItsLastConfiguration) {
    configure("one", configurationFor("0001", "rtmp://first"));
    configure("one", configurationFor("0001", "rtmp://second"));
    ASSERT_TRUE(reports("one", "configuration 2"));
    const pid_t pid = pidOf("one");

    const auto killed = Clock::now();
    ASSERT_EQ(0, ::kill(pid, SIGKILL));
    ASSERT_TRUE(reports("one", "killed by signal 9"));
    EXPECT_EQ(WorkerState::kReconnecting, streamOf("one").state);
    ASSERT_TRUE(reports("one", "configuration 1"));

    EXPECT_GE(Clock::now() - killed, 250ms);
    EXPECT_NE(std::string::npos, errorOf("one").find("rtmp://second"));
    EXPECT_NE(pid, pidOf("one"));
    EXPECT_EQ(1u, statusOf("one").restarts);
}

TEST_F(SupervisorTest, AChildThatKeepsCrashingIsRestartedAfterGrowingDelaysAndItsLastLineIsReported) {
    const auto begun = Clock::now();
    configure("one", configurationFor("dead"));
    ASSERT_TRUE(pollUntil([&] { return statusOf("one").restarts == 3; }));
    EXPECT_GE(Clock::now() - begun, 250ms + 500ms + 1000ms);
    EXPECT_EQ("the process was killed by signal 9, Killed: about to crash", errorOf("one"));

    configure("two", configurationFor("ed07"));
    EXPECT_TRUE(reports("two", "the process exited with status 7"));
}

TEST_F(SupervisorTest, ANewConfigurationEndsTheDelay) {
    configure("one", configurationFor("dead"));
    ASSERT_TRUE(pollUntil([&] {
        const ProcessStatus status = statusOf("one");
        return status.restarts == 3 && status.worker.output.state == WorkerState::kReconnecting;
    }));
    const auto begun = Clock::now();
    configure("one", configurationFor("0001"));
    ASSERT_TRUE(reports("one", "configuration 1"));
    EXPECT_LT(Clock::now() - begun, 1500ms);  // the pause would be 2 s
}

TEST_F(SupervisorTest, AChildThatIgnoresTheEndOfItsInputIsKilledAndItsKeyIsFreeAtOnce) {
    configure("one", configurationFor("babe"));
    ASSERT_TRUE(reports("one", "configuration 1"));
    const pid_t deaf = pidOf("one");
    const auto begun = Clock::now();
    mSupervisor.remove(key("one"));
    ASSERT_EQ("", configure("one", configurationFor("0001")));
    EXPECT_EQ(2u, mSupervisor.count());
    ASSERT_TRUE(pollUntil([&] { return pidOf("one") != deaf && pidOf("one") != 0; }));
    ASSERT_EQ(0, ::kill(deaf, 0));

    ASSERT_TRUE(pollUntil([&] { return mSupervisor.count() == 1; }));
    EXPECT_GE(Clock::now() - begun, 2900ms);
    EXPECT_LT(Clock::now() - begun, 6s);
    EXPECT_EQ(-1, ::kill(deaf, 0));
    EXPECT_EQ(WorkerState::kRunning, streamOf("one").state);  // not the old one's end
}

TEST_F(SupervisorTest, WithAHandoverAChildStartsWhenTheStoppingOneHasExitedOrWasKilled) {
    Supervisor::Program program = worker();
    program.handover = 300ms;
    configure("one", program, configurationFor("babe"));
    ASSERT_TRUE(reports("one", "configuration 1"));
    const pid_t deaf = pidOf("one");
    const auto begun = Clock::now();
    mSupervisor.remove(key("one"));
    ASSERT_EQ("", configure("one", program, configurationFor("dead")));
    ASSERT_EQ("", configure("one", program, configurationFor("0001")));  // does not end the wait
    ASSERT_TRUE(pollUntil([&] { return pidOf("one") != deaf && pidOf("one") != 0; }));
    EXPECT_EQ(-1, ::kill(deaf, 0));
    EXPECT_GE(Clock::now() - begun, 300ms);
    EXPECT_LT(Clock::now() - begun, 2s);
    EXPECT_EQ(1u, mSupervisor.count());
    EXPECT_EQ(0u, statusOf("one").restarts);
    const std::vector<std::string> states = statesOf("one");
    const auto stopping = std::find(states.begin(), states.end(), "stopping");
    ASSERT_NE(states.end(), stopping);
    EXPECT_EQ("starting", *std::next(stopping));
    EXPECT_EQ(states.end(), std::find(states.begin(), states.end(), "stopped"));
}

TEST_F(SupervisorTest, AChildThatIsRemovedBeforeItCouldStartIsForgotten) {
    Supervisor::Program program = worker();
    program.handover = 300ms;
    configure("one", program, configurationFor("babe"));
    ASSERT_TRUE(reports("one", "configuration 1"));
    mSupervisor.remove(key("one"));
    configure("one", program, configurationFor("0001"));
    mSupervisor.remove(key("one"));
    ASSERT_TRUE(isEmptySoon());
    EXPECT_TRUE(children().empty());
    EXPECT_FALSE(mSupervisor.status(key("one")));
}

TEST_F(SupervisorTest, AChildWithoutAStatusCountsAsHungAndIsRestarted) {
    configure("silent", worker(300ms), configurationFor("cafe"));
    configure("well", worker(300ms), configurationFor("0001"));  // says something every 100 ms
    ASSERT_TRUE(reports("silent", "sent no status for 300 ms"));
    ASSERT_TRUE(pollUntil([&] { return statusOf("silent").restarts >= 1; }));
    EXPECT_EQ(0u, statusOf("well").restarts);
}

TEST_F(SupervisorTest, MalformedLinesAreCountedAndReportedAndDoNoHarm) {
    configure("one", configurationFor("bead"));
    ASSERT_TRUE(reports("one", "configuration 1"));
    EXPECT_TRUE(pollUntil([&] { return counted("one", "malformed lines of its output: ") == 6; }));
    EXPECT_TRUE(pollUntil([&] { return counted("one", "output that were too long or too many: ") == 1; }));
    EXPECT_EQ(0u, statusOf("one").restarts);
}

TEST_F(SupervisorTest, FloodsCostLittleAndDisturbNoOther) {
    configure("statuses", configurationFor("f00d"));
    configure("lines", configurationFor("feed"));
    timespec before{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
    configure("well", configurationFor("0001"));
    ASSERT_TRUE(reports("well", "configuration 1"));
    ASSERT_TRUE(pollUntil([&] { return counted("lines", "omitted lines: ") > 0; }));
    ASSERT_TRUE(pollUntil([&] { return counted("statuses", "too many: ") > 0; }));
    std::this_thread::sleep_for(2s);
    timespec after{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
    // They would fill gigabytes, and take a whole processor to read.
    EXPECT_LT(after.tv_sec - before.tv_sec, 2);
    EXPECT_LT(linesOf("lines").size(), 120u);
    EXPECT_LT(statesOf("statuses").size(), 10u);
}

TEST_F(SupervisorTest, MessagesArePassedOnAndAStatusFromOutsideCountsAsOne) {
    configure("one", configurationFor("0001"));
    mSupervisor.send(key("one"), R"({"snapshot":{"width":640}})");
    ASSERT_TRUE(pollUntil([&] {
        const std::lock_guard<std::mutex> lock(mMutex);
        return !mMessages.empty();
    }));
    EXPECT_EQ(R"(one{"snapshot":"/9j/1001"})", mMessages.front());

    configure("server", {{"/bin/sleep", "100"}, 300ms, SIGTERM}, "");
    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(100ms);
        mSupervisor.setStatus(key("server"), running());
    }
    EXPECT_EQ(0u, statusOf("server").restarts);
    EXPECT_EQ(WorkerState::kRunning, streamOf("server").state);
    EXPECT_TRUE(pollUntil([&] { return statusOf("server").restarts > 0; }));
}

TEST_F(SupervisorTest, AStopSignalEndsWhatDoesNotReadItsInput) {
    configure("server", {{"/bin/sleep", "100"}, 20s, SIGTERM}, "");
    const auto begun = Clock::now();
    mSupervisor.remove(key("server"));
    ASSERT_TRUE(isEmptySoon());
    EXPECT_LT(Clock::now() - begun, 2s);
}

TEST_F(SupervisorTest, ManyThreadsMayConfigureAndAStopLeavesNoProcess) {
    mSupervisor.stop();
    const size_t before = openDescriptors();
    ASSERT_TRUE(mSupervisor.start());
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([this, thread] {
            for (int round = 0; round < 12; ++round) {
                const std::string name = std::to_string((thread + round) % 5);  // shared with other threads
                configure(name, configurationFor(round % 4 == 3 ? "dead" : "0001"));
                mSupervisor.status(key(name));
                mSupervisor.send(key(name), R"({"snapshot":{"width":1}})");
                if (round % 2 == 1) {
                    mSupervisor.remove(key(name));
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    configure("deaf", configurationFor("babe"));
    ASSERT_TRUE(reports("deaf", "configuration 1"));

    const auto begun = Clock::now();
    mSupervisor.stop();
    EXPECT_LT(Clock::now() - begun, 3500ms);
    EXPECT_TRUE(children().empty());  // nor zombies
    EXPECT_LE(openDescriptors(), before);
    EXPECT_EQ("the service is not running", configure("late", configurationFor("0001")));
}

// While this process is suspended, it reads no status.
TEST(SuspendedSupervisor, BlamesNoChildForThat) {
    const auto onState = [](const WorkerKey& from, const ProcessStatus& status) {
        if (from == key("absence") && status.worker.output.state == WorkerState::kStarting) {
            std::this_thread::sleep_for(2500ms);
        }
    };
    Supervisor supervisor({onState, [](const WorkerKey&, const std::string&) {}, [](const WorkerKey&, const json&) {}});
    ASSERT_TRUE(supervisor.start());
    const auto server = [&supervisor] { return *supervisor.status(key("server")); };
    ASSERT_TRUE(supervisor.configure(key("server"), {{"/bin/sleep", "100"}, 1200ms, SIGTERM}, ""));
    supervisor.setStatus(key("server"), running());
    ASSERT_TRUE(supervisor.configure(key("absence"), {{"/bin/sleep", "100"}, 20s, SIGTERM}, ""));  // after the absence
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(100ms);
        supervisor.setStatus(key("server"), running());
    }
    EXPECT_EQ(0u, server().restarts);
    EXPECT_EQ(WorkerState::kRunning, server().worker.output.state);
    EXPECT_TRUE(pollUntil([&] { return server().restarts == 1; }));  // now it is silent
}

// ---- A child's surroundings -----------------------------------------------------------------------------------------

TEST(Child, HasItsStreamsAndNoOtherDescriptorAndDefaultSignals) {
    const int leaked = ::dup(STDERR_FILENO);  // stays open over exec, as another library's might
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
    while (reader.read(child->output.get(), Clock::now(), [&](const std::string& line) { output += line + "\n"; })) {
        std::this_thread::sleep_for(5ms);
    }
    // The fourth is what ls reads the folder with.
    EXPECT_EQ(0u, output.find("0\n1\n2\n3\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n")) << output;
    std::optional<std::string> end;
    while (!(end = child->reap())) {
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_EQ("exited with status 0", *end);
}

TEST(Child, IsKilledWithItsOwner) {
    auto child = vexalive::Child::start({"/bin/sleep", "100"});
    ASSERT_EQ(1u, children().size());
    child->reset();
    EXPECT_TRUE(children().empty());
}

// ---- Lines ----------------------------------------------------------------------------------------------------------

TEST(LineReader, CutsLinesWhereverThePiecesEndAndLeavesOutLongOnes) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_NONBLOCK));
    vexalive::LineReader reader({5, 100, 1000});
    std::vector<std::string> lines;
    const auto take = [&lines](const std::string& line) { lines.push_back(line); };
    for (const std::string piece : {"on", "e\n\ntw", "o\nsixsix\n", "abc", "def\nfive5", "\nrest"}) {
        ASSERT_EQ(static_cast<ssize_t>(piece.size()), ::write(ends[1], piece.data(), piece.size()));
        EXPECT_TRUE(reader.read(ends[0], Clock::now(), take));
    }
    EXPECT_EQ((std::vector<std::string>{"one", "", "two", "five5"}), lines);
    EXPECT_EQ(2u, reader.takeOmitted());
    EXPECT_EQ(0u, reader.takeOmitted());
    EXPECT_EQ("rest", reader.takeRest());
    ::close(ends[1]);
    EXPECT_FALSE(reader.read(ends[0], Clock::now(), take));
    ::close(ends[0]);
}

TEST(LineReader, TakesSoManyLinesAndBytesASecond) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_NONBLOCK));
    vexalive::LineReader reader({100, 3, 10});
    int lines = 0;
    const auto take = [&lines](const std::string&) { ++lines; };
    const auto now = Clock::now();
    ASSERT_EQ(14, ::write(ends[1], "1\n2\n3\n4\n5\n6\n7\n", 14));
    EXPECT_TRUE(reader.read(ends[0], now, take));
    EXPECT_EQ(3, lines);
    EXPECT_EQ(2u, reader.takeOmitted());  // five were read
    EXPECT_EQ(now + 1s, reader.ready());
    EXPECT_TRUE(reader.read(ends[0], now + 500ms, take));
    EXPECT_EQ(3, lines);
    EXPECT_TRUE(reader.read(ends[0], now + 1s, take));
    EXPECT_EQ(5, lines);
    EXPECT_LE(reader.ready(), now);
    ::close(ends[0]);
    ::close(ends[1]);
}
