// A process may exit at any moment, with requests in flight: without a hang and without a crash.

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "ScriptedServer.h"

namespace {

using namespace std::chrono_literals;

// The status as waitpid gives it; -1 if the child had to be ended.
int run(const std::string& program, const std::string& how, const std::string& microseconds) {
    std::string arguments[] = {program, how, microseconds};
    char* const list[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, program.c_str(), nullptr, nullptr, list, environ) != 0) {
        return -1;
    }
    int status = 0;
    for (const auto patience = std::chrono::steady_clock::now() + 25s; std::chrono::steady_clock::now() < patience;) {
        if (waitpid(child, &status, WNOHANG) == child) {
            return status;
        }
        std::this_thread::sleep_for(1ms);
    }
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return -1;
}

class Exit : public testing::TestWithParam<const char*> {};

TEST_P(Exit, EndsAtAnyMomentWithRequestsInFlight) {
    ScriptedServer server(answering(httpAnswer(200, "{\"code\":0}")));
    const auto caFile = std::filesystem::temp_directory_path() / ("vexalive-exit-test-" + std::to_string(getpid()));
    std::ofstream(caFile) << testAuthority().pem();
    setenv("VEXALIVE_SERVICE_HOST", ("127.0.0.1:" + std::to_string(server.port())).c_str(), 1);
    setenv("VEXALIVE_CA_FILE", caFile.c_str(), 1);

    std::mt19937 random(20);
    for (int i = 0; i < 25; ++i) {
        const int moment = static_cast<int>(random() % 40000);
        EXPECT_EQ(0, run(EXIT_PROBE, GetParam(), std::to_string(moment))) << GetParam() << " after " << moment << " us";
    }
    std::filesystem::remove(caFile);
}

INSTANTIATE_TEST_SUITE_P(By, Exit, testing::Values("return", "exit", "listener", "quick"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
