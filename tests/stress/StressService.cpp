#include "StressService.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "base/KstMessageLoop.h"
#include "support/OwnService.h"

// A fiftieth, so that many retries pass in little time.
std::chrono::milliseconds shortened(std::chrono::milliseconds pause) {
    return pause / 50;
}

StressService::StressService(const std::string& manner, unsigned seed) {
    mFolder = std::filesystem::temp_directory_path() / ("vexalive-stress-" + std::to_string(getpid()));
    int input[2] = {};
    int output[2] = {};
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
        std::perror("pipe");
        std::exit(2);
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    std::string arguments[] = {STRESS_SERVICE, std::to_string(ownServicePort()), std::to_string(seed), mFolder, manner};
    char* const list[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(),
                          arguments[3].data(), arguments[4].data(), nullptr};
    const int failure = posix_spawn(&mChild, list[0], &actions, nullptr, list, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
    close(output[1]);
    mInput = input[1];
    char letter = 0;
    while (failure == 0 && read(output[0], &letter, 1) == 1 && letter != '\n') {
        mCaFile += letter;
    }
    close(output[0]);
    if (letter != '\n') {
        std::fprintf(stderr, "%s did not start\n", list[0]);
        std::exit(2);
    }
}

StressService::~StressService() {
    close(mInput);
    waitpid(mChild, nullptr, 0);
    std::filesystem::remove_all(mFolder);
}
