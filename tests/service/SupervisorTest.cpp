// Child processes that behave and that do not, and what becomes of them.

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
using vexalive::Supervisor;
using vexalive::WorkerState;
using vexalive::WorkerStatus;
using Clock = std::chrono::steady_clock;

namespace {

// A relay's configuration; how its addresses end tells the fake worker what to do.
std::string wishFor(const std::string& ending, const std::string& destination = "rtmp://cdn.test/live/one") {
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
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(mSupervisor.start(error)) << error;
    }

    Supervisor::Program worker(std::chrono::milliseconds patience = 20s) const {
        return {{FAKE_WORKER, "relay"}, patience};
    }

    // The fake worker's error tells how many wishes it has had, its process and the last wish.
    bool comesToSay(const std::string& key, const std::string& text) const {
        return eventually([&] { return errorOf(key).find(text) != std::string::npos; });
    }

    std::string errorOf(const std::string& key) const {
        return mSupervisor.status(key).value_or(WorkerStatus{}).numbers.error;
    }

    pid_t pidOf(const std::string& key) const {
        const std::string error = errorOf(key);
        const size_t at = error.find(" of ");
        return at == std::string::npos ? 0 : std::atoi(error.c_str() + at + 4);
    }

    std::vector<std::string> linesOf(const std::string& key) {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mLines[key];
    }
    std::vector<std::string> statesOf(const std::string& key) {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mStates[key];
    }
    // What the lines with this text count, in all.
    int counted(const std::string& key, const std::string& text) {
        int sum = 0;
        for (const std::string& line : linesOf(key)) {
            const size_t at = line.find(text);
            sum += at == std::string::npos ? 0 : std::atoi(line.c_str() + at + text.size());
        }
        return sum;
    }

    std::mutex mMutex;
    std::map<std::string, std::vector<std::string>> mLines;
    std::map<std::string, std::vector<std::string>> mStates;
    std::vector<std::string> mAnswers;
    Supervisor mSupervisor{{[this](const std::string& key, const WorkerStatus& status) {
                                const std::lock_guard<std::mutex> lock(mMutex);
                                mStates[key].push_back(nameOf(status.numbers.state));
                            },
                            [this](const std::string& key, const std::string& line) {
                                const std::lock_guard<std::mutex> lock(mMutex);
                                mLines[key].push_back(line);
                            },
                            [this](const std::string& key, const json& answer) {
                                const std::lock_guard<std::mutex> lock(mMutex);
                                mAnswers.push_back(key + answer.dump());
                            }}};
};

}  // namespace

TEST(RestartPause, GrowsToEightSecondsAndStays) {
    std::vector<int> pauses;
    for (int failures = 0; failures < 8; ++failures) {
        pauses.push_back(static_cast<int>(vexalive::restartPause(failures).count()));
    }
    EXPECT_EQ((std::vector<int>{250, 500, 1000, 2000, 4000, 8000, 8000, 8000}), pauses);
    EXPECT_EQ(8s, vexalive::restartPause(1'000'000));
}

TEST_F(SupervisorTest, AChildIsStartedToldMoreAndStopped) {
    ASSERT_EQ("", mSupervisor.want("one", worker(), wishFor("0001", "rtmp://first")));
    ASSERT_TRUE(comesToSay("one", "rtmp://first"));
    EXPECT_EQ(WorkerState::kRunning, mSupervisor.status("one")->numbers.state);
    EXPECT_EQ(1000u, mSupervisor.status("one")->numbers.bytes);
    const pid_t pid = pidOf("one");

    ASSERT_EQ("", mSupervisor.want("one", worker(), wishFor("0001", "rtmp://second")));
    ASSERT_TRUE(comesToSay("one", "rtmp://second"));
    EXPECT_NE(std::string::npos, errorOf("one").find("wish 2"));
    EXPECT_EQ(pid, pidOf("one"));
    EXPECT_EQ(1u, mSupervisor.count());

    const auto begun = Clock::now();
    mSupervisor.drop("one");
    ASSERT_TRUE(eventually([&] { return mSupervisor.count() == 0; }));
    EXPECT_LT(Clock::now() - begun, 2s);  // it was not killed
    EXPECT_FALSE(mSupervisor.status("one"));
    EXPECT_TRUE(children().empty());
    const auto states = statesOf("one");
    ASSERT_GE(states.size(), 3u);
    EXPECT_EQ("starting", states.front());
    EXPECT_EQ("stopping", states[states.size() - 2]);
    EXPECT_EQ("stopped", states.back());
}

TEST_F(SupervisorTest, AProgramThatIsNotThereIsTold) {
    EXPECT_EQ("cannot run /no/such/program: No such file or directory",
              mSupervisor.want("one", {{"/no/such/program"}}, ""));
    EXPECT_EQ(0u, mSupervisor.count());
    EXPECT_FALSE(mSupervisor.status("one"));
}

TEST_F(SupervisorTest, AProgramThatIsThereIsNotBlamedForWantOfDescriptors) {
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none = {3, before.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    const std::string refusal = mSupervisor.want("one", {{"/bin/sleep", "100"}}, "");
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ("this service cannot make a process for /bin/sleep: Too many open files", refusal);
}

TEST_F(SupervisorTest, AKilledChildIsStartedAgainWithItsLastConfiguration) {
    mSupervisor.want("one", worker(), wishFor("0001", "rtmp://first"));
    mSupervisor.want("one", worker(), wishFor("0001", "rtmp://second"));
    ASSERT_TRUE(comesToSay("one", "wish 2"));
    const pid_t pid = pidOf("one");

    const auto killed = Clock::now();
    ASSERT_EQ(0, ::kill(pid, SIGKILL));
    ASSERT_TRUE(comesToSay("one", "ended by signal 9"));
    EXPECT_EQ(WorkerState::kReconnecting, mSupervisor.status("one")->numbers.state);
    ASSERT_TRUE(comesToSay("one", "wish 1"));

    EXPECT_GE(Clock::now() - killed, 250ms);
    EXPECT_NE(std::string::npos, errorOf("one").find("rtmp://second"));
    EXPECT_NE(pid, pidOf("one"));
    EXPECT_EQ(1u, mSupervisor.status("one")->restarts);
}

TEST_F(SupervisorTest, AChildThatKeepsCrashingIsStartedAfterGrowingPausesAndItsLastWordsAreKept) {
    const auto begun = Clock::now();
    mSupervisor.want("one", worker(), wishFor("dead"));
    ASSERT_TRUE(eventually([&] { return mSupervisor.status("one")->restarts == 3; }));
    EXPECT_GE(Clock::now() - begun, 250ms + 500ms + 1000ms);
    EXPECT_EQ("the process was ended by signal 9, Killed: about to crash", errorOf("one"));

    mSupervisor.want("two", worker(), wishFor("ed07"));
    EXPECT_TRUE(comesToSay("two", "the process ended with exit status 7"));
}

TEST_F(SupervisorTest, ANewWishEndsThePause) {
    mSupervisor.want("one", worker(), wishFor("dead"));
    ASSERT_TRUE(eventually([&] {
        const WorkerStatus status = *mSupervisor.status("one");
        return status.restarts == 3 && status.numbers.state == WorkerState::kReconnecting;
    }));
    const auto begun = Clock::now();
    mSupervisor.want("one", worker(), wishFor("0001"));
    ASSERT_TRUE(comesToSay("one", "wish 1"));
    EXPECT_LT(Clock::now() - begun, 1500ms);  // the pause would be 2 s
}

TEST_F(SupervisorTest, AChildThatIgnoresTheEndOfItsInputIsKilledAndItsKeyIsFreeAtOnce) {
    mSupervisor.want("one", worker(), wishFor("babe"));
    ASSERT_TRUE(comesToSay("one", "wish 1"));
    const pid_t deaf = pidOf("one");
    const auto begun = Clock::now();
    mSupervisor.drop("one");
    ASSERT_EQ("", mSupervisor.want("one", worker(), wishFor("0001")));
    EXPECT_EQ(2u, mSupervisor.count());
    ASSERT_TRUE(eventually([&] { return pidOf("one") != deaf && pidOf("one") != 0; }));
    ASSERT_EQ(0, ::kill(deaf, 0));

    ASSERT_TRUE(eventually([&] { return mSupervisor.count() == 1; }));
    EXPECT_GE(Clock::now() - begun, 2900ms);
    EXPECT_LT(Clock::now() - begun, 6s);
    EXPECT_EQ(-1, ::kill(deaf, 0));
    EXPECT_EQ(WorkerState::kRunning, mSupervisor.status("one")->numbers.state);  // not the old one's end
}

TEST_F(SupervisorTest, AChildInWhoseWayALeavingOneIsStartsWhenThatHasGoneWhichIsNotGivenLong) {
    Supervisor::Program program = worker();
    program.handover = 300ms;
    mSupervisor.want("one", program, wishFor("babe"));
    ASSERT_TRUE(comesToSay("one", "wish 1"));
    const pid_t deaf = pidOf("one");
    const auto begun = Clock::now();
    mSupervisor.drop("one");
    ASSERT_EQ("", mSupervisor.want("one", program, wishFor("dead")));
    ASSERT_EQ("", mSupervisor.want("one", program, wishFor("0001")));  // does not end the wait
    ASSERT_TRUE(eventually([&] { return pidOf("one") != deaf && pidOf("one") != 0; }));
    EXPECT_EQ(-1, ::kill(deaf, 0));
    EXPECT_GE(Clock::now() - begun, 300ms);
    EXPECT_LT(Clock::now() - begun, 2s);
    EXPECT_EQ(1u, mSupervisor.count());
    EXPECT_EQ(0u, mSupervisor.status("one")->restarts);
    const std::vector<std::string> states = statesOf("one");
    const auto stopping = std::find(states.begin(), states.end(), "stopping");
    ASSERT_NE(states.end(), stopping);
    EXPECT_EQ("starting", *std::next(stopping));
    EXPECT_EQ(states.end(), std::find(states.begin(), states.end(), "stopped"));
}

TEST_F(SupervisorTest, AChildThatIsNoLongerWantedBeforeItCouldStartIsForgotten) {
    Supervisor::Program program = worker();
    program.handover = 300ms;
    mSupervisor.want("one", program, wishFor("babe"));
    ASSERT_TRUE(comesToSay("one", "wish 1"));
    mSupervisor.drop("one");
    mSupervisor.want("one", program, wishFor("0001"));
    mSupervisor.drop("one");
    ASSERT_TRUE(eventually([&] { return mSupervisor.count() == 0; }));
    EXPECT_TRUE(children().empty());
    EXPECT_FALSE(mSupervisor.status("one"));
}

TEST_F(SupervisorTest, AChildThatSaysNothingIsTakenForHungAndStartedAgain) {
    mSupervisor.want("silent", worker(300ms), wishFor("cafe"));
    mSupervisor.want("well", worker(300ms), wishFor("0001"));  // says something every 100 ms
    ASSERT_TRUE(comesToSay("silent", "gave no sign of life for 300 ms"));
    ASSERT_TRUE(eventually([&] { return mSupervisor.status("silent")->restarts >= 1; }));
    EXPECT_EQ(0u, mSupervisor.status("well")->restarts);
}

TEST_F(SupervisorTest, WhatIsNoStatusIsCountedAndSaidAndDoesNoHarm) {
    mSupervisor.want("one", worker(), wishFor("bead"));
    ASSERT_TRUE(comesToSay("one", "wish 1"));
    EXPECT_TRUE(eventually([&] { return counted("one", "lines of its output that were not understood: ") == 6; }));
    EXPECT_TRUE(eventually([&] { return counted("one", "output that were too long or came too fast: ") == 1; }));
    EXPECT_EQ(0u, mSupervisor.status("one")->restarts);
}

TEST_F(SupervisorTest, FloodsCostLittleAndDisturbNoOther) {
    mSupervisor.want("statuses", worker(), wishFor("f00d"));
    mSupervisor.want("lines", worker(), wishFor("feed"));
    timespec before{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
    mSupervisor.want("well", worker(), wishFor("0001"));
    ASSERT_TRUE(comesToSay("well", "wish 1"));
    ASSERT_TRUE(eventually([&] { return counted("lines", "lines left out: ") > 0; }));
    ASSERT_TRUE(eventually([&] { return counted("statuses", "came too fast: ") > 0; }));
    std::this_thread::sleep_for(2s);
    timespec after{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
    // They would fill gigabytes, and take a whole processor to read.
    EXPECT_LT(after.tv_sec - before.tv_sec, 2);
    EXPECT_LT(linesOf("lines").size(), 120u);
    EXPECT_LT(statesOf("statuses").size(), 10u);
}

TEST_F(SupervisorTest, AnswersAreHandedOnAndASignFromOutsideCountsAsOne) {
    mSupervisor.want("one", worker(), wishFor("0001"));
    mSupervisor.tell("one", R"({"snapshot":{"width":640}})");
    ASSERT_TRUE(eventually([&] {
        const std::lock_guard<std::mutex> lock(mMutex);
        return !mAnswers.empty();
    }));
    EXPECT_EQ(R"(one{"snapshot":"/9j/1001"})", mAnswers.front());

    mSupervisor.want("server", {{"/bin/sleep", "100"}, 300ms, SIGTERM}, "");
    WorkerStatus running;
    running.numbers.state = WorkerState::kRunning;
    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(100ms);
        mSupervisor.note("server", running);
    }
    EXPECT_EQ(0u, mSupervisor.status("server")->restarts);
    EXPECT_EQ(WorkerState::kRunning, mSupervisor.status("server")->numbers.state);
    EXPECT_TRUE(eventually([&] { return mSupervisor.status("server")->restarts > 0; }));
}

TEST_F(SupervisorTest, AStopSignalEndsWhatDoesNotReadItsInput) {
    mSupervisor.want("server", {{"/bin/sleep", "100"}, 20s, SIGTERM}, "");
    const auto begun = Clock::now();
    mSupervisor.drop("server");
    ASSERT_TRUE(eventually([&] { return mSupervisor.count() == 0; }));
    EXPECT_LT(Clock::now() - begun, 2s);
}

TEST_F(SupervisorTest, ManyThreadsMayWishAndAStopLeavesNothing) {
    mSupervisor.stop();
    const size_t before = openDescriptors();
    std::string error;
    ASSERT_TRUE(mSupervisor.start(error));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([this, thread] {
            for (int round = 0; round < 12; ++round) {
                const std::string key = std::to_string((thread + round) % 5);  // shared with other threads
                mSupervisor.want(key, worker(), wishFor(round % 4 == 3 ? "dead" : "0001"));
                mSupervisor.status(key);
                mSupervisor.tell(key, R"({"snapshot":{"width":1}})");
                if (round % 2 == 1) {
                    mSupervisor.drop(key);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    mSupervisor.want("deaf", worker(), wishFor("babe"));
    ASSERT_TRUE(comesToSay("deaf", "wish 1"));

    const auto begun = Clock::now();
    mSupervisor.stop();
    EXPECT_LT(Clock::now() - begun, 3500ms);
    EXPECT_TRUE(children().empty());  // nor zombies
    EXPECT_LE(openDescriptors(), before);
    EXPECT_EQ("the service is not running", mSupervisor.want("late", worker(), wishFor("0001")));
}

// Who stops this process stops whoever would pass on a sign of life, too.
TEST(SupervisorThatWasStopped, BlamesNoChildForThat) {
    const auto tell = [](const std::string& key, const WorkerStatus& status) {
        if (key == "absence" && status.numbers.state == WorkerState::kStarting) {
            std::this_thread::sleep_for(2500ms);
        }
    };
    Supervisor supervisor(
        {tell, [](const std::string&, const std::string&) {}, [](const std::string&, const json&) {}});
    std::string error;
    ASSERT_TRUE(supervisor.start(error)) << error;
    WorkerStatus running;
    running.numbers.state = WorkerState::kRunning;
    supervisor.want("server", {{"/bin/sleep", "100"}, 1200ms, SIGTERM}, "");
    supervisor.note("server", running);
    supervisor.want("absence", {{"/bin/sleep", "100"}, 20s, SIGTERM}, "");  // comes back when that is over
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(100ms);
        supervisor.note("server", running);
    }
    EXPECT_EQ(0u, supervisor.status("server")->restarts);
    EXPECT_EQ(WorkerState::kRunning, supervisor.status("server")->numbers.state);
    EXPECT_TRUE(eventually([&] { return supervisor.status("server")->restarts == 1; }));  // it has been silent now
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
    std::string error;
    const auto child = vexalive::Child::start(
        {"/bin/sh", "-c", "ls /proc/self/fd; grep -E '^Sig(Blk|Ign)' /proc/self/status; ps -o pgid= -p $$; echo $$"},
        error);
    ::signal(SIGPIPE, pipeBefore);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::close(leaked);
    ASSERT_TRUE(child) << error;

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
    EXPECT_EQ("ended with exit status 0", *end);
}

TEST(Child, IsKilledWithItsOwner) {
    std::string error;
    auto child = vexalive::Child::start({"/bin/sleep", "100"}, error);
    ASSERT_EQ(1u, children().size());
    child.reset();
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
