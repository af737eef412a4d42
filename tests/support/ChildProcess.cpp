#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <stdexcept>

namespace {

constexpr std::chrono::seconds kTestTimeout(120);

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (std::string& string : strings) {
        result.push_back(string.data());
    }
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> merged(std::map<std::string, std::string> environment) {
    for (char** entry = environ; *entry; ++entry) {
        const std::string variable = *entry;
        const size_t equals = variable.find('=');
        environment.emplace(variable.substr(0, equals), variable.substr(equals + 1));
    }
    std::vector<std::string> result;
    for (const auto& [name, value] : environment) {
        if (!value.empty()) {
            result.push_back(std::string(name).append("=").append(value));
        }
    }
    return result;
}

void makePipe(int (&ends)[2]) {
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments,
                           const std::map<std::string, std::string>& environment, Output output) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&attributes);
    std::vector<int> childEnds;
    if (output == kTerminal) {
        int slave = -1;
        char name[128];
        winsize size{};
        size.ws_row = 24;
        size.ws_col = kTerminalColumns;
        if (openpty(&mOutputFd, &slave, name, nullptr, &size) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        fcntl(mOutputFd, F_SETFD, FD_CLOEXEC);
        fcntl(slave, F_SETFD, FD_CLOEXEC);
        childEnds = {slave};
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
        posix_spawn_file_actions_addopen(&files, 0, name, O_RDWR, 0);  // becomes the controlling terminal
        posix_spawn_file_actions_adddup2(&files, 0, 1);
        posix_spawn_file_actions_adddup2(&files, 0, 2);
    } else {
        int outputEnds[2];
        int errorEnds[2];
        makePipe(outputEnds);
        makePipe(errorEnds);
        mOutputFd = outputEnds[0];
        mErrorsFd = errorEnds[0];
        childEnds = {outputEnds[1], errorEnds[1]};
        posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&files, outputEnds[1], 1);
        posix_spawn_file_actions_adddup2(&files, errorEnds[1], 2);
    }
    std::vector<std::string> argumentStrings = arguments;
    std::vector<std::string> environmentStrings = merged(environment);
    const int failure = posix_spawn(&mPid, arguments.front().c_str(), &files, &attributes,
                                    pointers(argumentStrings).data(), pointers(environmentStrings).data());
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    for (const int end : childEnds) {
        close(end);
    }
    if (failure != 0) {
        throw std::runtime_error("cannot start " + arguments.front());
    }
}

ChildProcess::~ChildProcess() {
    if (mPid > 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
    closeOutput();
    if (mErrorsFd >= 0) {
        close(mErrorsFd);
    }
}

// False once both outputs have ended, or if nothing arrives for kTestTimeout.
bool ChildProcess::readSome() {
    pollfd sources[] = {{mOutputFd, POLLIN, 0}, {mErrorsFd, POLLIN, 0}};  // poll() ignores a negative descriptor
    if ((mOutputFd < 0 && mErrorsFd < 0) || poll(sources, 2, std::chrono::milliseconds(kTestTimeout).count()) <= 0) {
        return false;
    }
    const auto receive = [](const pollfd& source, int& fd, std::string& received) {
        if (source.revents == 0) {
            return;
        }
        char piece[4096];
        const ssize_t length = read(fd, piece, sizeof piece);
        if (length > 0) {
            received.append(piece, static_cast<size_t>(length));
        } else {
            close(fd);
            fd = -1;
        }
    };
    receive(sources[0], mOutputFd, mOutput);
    receive(sources[1], mErrorsFd, mErrors);
    return true;
}

bool ChildProcess::awaitOutput(const std::string& text, int times) {
    for (size_t begin = 0; times > 0; --times) {
        size_t found = std::string::npos;
        while ((found = mOutput.find(text, begin)) == std::string::npos) {
            if (!readSome()) {
                return false;
            }
        }
        begin = found + text.size();
    }
    return true;
}

void ChildProcess::sendSignal(int signal) const {
    kill(mPid, signal);
}

void ChildProcess::type(const std::string& keys) const {
    if (write(mOutputFd, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
        throw std::runtime_error("cannot type");
    }
}

void ChildProcess::closeOutput() {
    if (mOutputFd >= 0) {
        close(mOutputFd);
        mOutputFd = -1;
    }
}

int ChildProcess::awaitExit() {
    while (readSome()) {
    }
    if (mOutputFd >= 0 || mErrorsFd >= 0) {
        throw std::runtime_error("the child does not end");
    }
    int status = 0;
    waitpid(mPid, &status, 0);
    mPid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}
