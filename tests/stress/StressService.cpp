#include "StressService.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

#include "base/KstMessageLoop.h"
#include "support/OwnService.h"

// Divides delays by 50, so that a test of seconds has many retries.
std::chrono::milliseconds shortened(std::chrono::milliseconds pause) {
    return pause / 50;
}

StressService::StressService(const std::string& faults, unsigned seed)
    : mFolder(std::filesystem::temp_directory_path() / ("vexalive-stress-" + std::to_string(getpid()))) {
    const std::vector<std::string> command = {STRESS_SERVICE, std::to_string(ownServicePort()), std::to_string(seed),
                                              mFolder, faults};
    mProcess = std::make_unique<ChildProcess>(command, std::map<std::string, std::string>());
    if (!mProcess->awaitOutput("\n")) {
        std::fprintf(stderr, "%s did not start: %s\n", STRESS_SERVICE, mProcess->errors().c_str());
        std::exit(2);
    }
    mCaFile = mProcess->output().substr(0, mProcess->output().find('\n'));
}

StressService::~StressService() {
    mProcess->sendSignal(SIGTERM);
    if (mProcess->awaitExit() != 1000 + SIGTERM) {
        std::fprintf(stderr, "%s ended early: %s\n", STRESS_SERVICE, mProcess->errors().c_str());
        std::abort();
    }
    std::filesystem::remove_all(mFolder);
}
