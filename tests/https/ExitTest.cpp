// A process may exit at any moment, with requests in flight: without a hang and without a crash. The environment
// variable VEXALIVE_EXITS is the number of repetitions for each way.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "support/ScriptedServer.h"

namespace {

using namespace std::chrono_literals;

constexpr int kMaxMicroseconds = 60'000;

struct End {
    int status = -1;  // as waitpid gives it; -1 if the child had to be ended
    int inFlight = 0;
};

End run(const std::string& program, const std::string& how, const std::string& microseconds) {
    std::string arguments[] = {program, how, microseconds};
    char* const list[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
    int output[2] = {};
    if (pipe2(output, O_CLOEXEC) != 0) {
        return {};
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    pid_t child = 0;
    const int failure = posix_spawn(&child, program.c_str(), &actions, nullptr, list, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(output[1]);
    if (failure != 0) {
        close(output[0]);
        return {};
    }
    End end;
    bool hasEnded = false;
    for (const auto patience = std::chrono::steady_clock::now() + 25s;
         !hasEnded && std::chrono::steady_clock::now() < patience;) {
        std::this_thread::sleep_for(1ms);
        hasEnded = waitpid(child, &end.status, WNOHANG) == child;
    }
    if (hasEnded) {
        char text[16] = {};
        end.inFlight = read(output[0], text, sizeof text - 1) > 0 ? std::atoi(text) : 0;
    } else {
        kill(child, SIGKILL);
        waitpid(child, &end.status, 0);
        end.status = -1;
    }
    close(output[0]);
    return end;
}

// How often in each of the four ways.
int times() {
    const char* given = std::getenv("VEXALIVE_EXITS");
    return given ? std::atoi(given) : 25;
}

// The service for the children, and where they find it.
class Service {
public:
    Service() {
        std::ofstream(mCaFile) << testAuthority().pem();
        setenv("VEXALIVE_SERVICE_HOST", ("127.0.0.1:" + std::to_string(mServer.port())).c_str(), 1);
        setenv("VEXALIVE_CA_FILE", mCaFile.c_str(), 1);
    }
    ~Service() { std::filesystem::remove(mCaFile); }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

private:
    ScriptedServer mServer{answering(httpResponse(200, "{\"code\":0}"))};
    const std::filesystem::path mCaFile =
        std::filesystem::temp_directory_path() / ("vexalive-exit-test-" + std::to_string(getpid()));
};

class Exit : public testing::TestWithParam<const char*> {};

TEST_P(Exit, EndsAtAnyMomentWithRequestsInFlight) {
    const Service service;
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    int withRequests = 0;
    for (int i = 0; i < times(); ++i) {
        const int moment = static_cast<int>(random() % kMaxMicroseconds);
        const End end = run(EXIT_PROBE, GetParam(), std::to_string(moment));
        EXPECT_EQ(0, end.status) << GetParam() << " after " << moment << " us";
        withRequests += end.inFlight > 0;
    }
    std::printf("%s: %d exits, %d of them with requests in flight (seed %u)\n", GetParam(), times(), withRequests,
                seed);
    EXPECT_GT(withRequests, times() / 2);
}

INSTANTIATE_TEST_SUITE_P(By, Exit, testing::Values("return", "exit", "listener", "quick"),
                         [](const auto& test) { return std::string(test.param); });

TEST(SlowExit, EndsNoThreadOfTheClientMeanwhile) {
    const Service service;
    EXPECT_EQ(0, run(EXIT_PROBE, "idle", "0").status);
}

}  // namespace
