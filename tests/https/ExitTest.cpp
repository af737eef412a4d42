// A process that exits with requests in flight neither hangs nor crashes, whatever the moment of the exit. The
// environment variable VEXALIVE_EXITS sets the number of exits for each of the four ways to exit.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "support/ChildProcess.h"
#include "support/ScriptedServer.h"

namespace {

constexpr int kMaxMicroseconds = 60'000;

struct ExitResult {
    int status;    // from ChildProcess::awaitExit, which throws if the child hangs
    int inFlight;  // requests at the moment of the exit
};

ExitResult run(const std::string& how, const std::string& microseconds) {
    ChildProcess child({EXIT_PROBE, how, microseconds}, {});
    const int status = child.awaitExit();
    return {status, std::atoi(child.output().c_str())};
}

int repetitions() {
    const char* given = std::getenv("VEXALIVE_EXITS");
    return given ? std::atoi(given) : 25;
}

// A server for the child processes. They inherit its address in the environment.
class Service {
public:
    Service() {
        setenv("VEXALIVE_SERVICE_HOST", ("127.0.0.1:" + std::to_string(mServer.port())).c_str(), 1);
        setenv("VEXALIVE_CA_FILE", testAuthorityFile().c_str(), 1);
    }

private:
    ScriptedServer mServer{alwaysRespond(httpResponse(200, "{\"code\":0}"))};
};

class Exit : public testing::TestWithParam<const char*> {};

TEST_P(Exit, EndsAtAnyMomentWithRequestsInFlight) {
    const Service service;
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    int withRequests = 0;
    for (int i = 0; i < repetitions(); ++i) {
        const int moment = static_cast<int>(random() % kMaxMicroseconds);
        const ExitResult result = run(GetParam(), std::to_string(moment));
        EXPECT_EQ(0, result.status) << GetParam() << " after " << moment << " us";
        withRequests += result.inFlight > 0;
    }
    std::printf("%s: %d exits, %d of them with requests in flight (seed %u)\n", GetParam(), repetitions(), withRequests,
                seed);
    EXPECT_GT(withRequests, repetitions() / 2);
}

INSTANTIATE_TEST_SUITE_P(By, Exit, testing::Values("return", "exit", "listener", "quick"),
                         [](const auto& test) { return std::string(test.param); });

TEST(SlowExit, EndsNoThreadOfTheClientMeanwhile) {
    const Service service;
    EXPECT_EQ(0, run("idle", "0").status);
}

}  // namespace
