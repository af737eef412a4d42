#include "service/Child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>

namespace vexalive {

namespace {

constexpr int kFirstFreeFd = 3;

struct Pipe {
    Descriptor reading;
    Descriptor writing;
};

// Moves a descriptor above the standard streams, so that the dup2() calls in the child do not overwrite a pipe.
Descriptor moveAboveStandardStreams(int fd) {
    Descriptor given(fd);
    return fd >= kFirstFreeFd ? std::move(given) : Descriptor(::fcntl(fd, F_DUPFD_CLOEXEC, kFirstFreeFd));
}

Result<Pipe> openPipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return failure(systemMessage(errno));
    }
    Pipe made{moveAboveStandardStreams(ends[0]), moveAboveStandardStreams(ends[1])};
    if (!made.reading.isOpen() || !made.writing.isOpen()) {
        return failure(systemMessage(errno));
    }
    return made;
}

void setNonBlocking(const Descriptor& descriptor) {
    ::fcntl(descriptor.get(), F_SETFL, ::fcntl(descriptor.get(), F_GETFL) | O_NONBLOCK);
}

// Runs in the child between fork and exec, so it calls async-signal-safe functions only.
[[noreturn]] void execChild(char* const* arguments, pid_t parent, int input, int output, int errors, int status) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {  // the parent exited before prctl(), so no signal will come
        ::_exit(1);
    }
    ::setpgid(0, 0);
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    ::sigaction(SIGPIPE, &standard, nullptr);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(errors, STDERR_FILENO);
    ::close_range(kFirstFreeFd, ~0U, CLOSE_RANGE_CLOEXEC);  // also those that other code opened without O_CLOEXEC
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execv(arguments[0], arguments);
    const int reason = errno;
    [[maybe_unused]] const ssize_t written = ::write(status, &reason, sizeof reason);
    ::_exit(1);
}

std::string describeExit(int status) {
    if (WIFSIGNALED(status)) {
        const char* const name = ::sigdescr_np(WTERMSIG(status));
        return "was killed by signal " + std::to_string(WTERMSIG(status)) + (name ? std::string(", ") + name : "");
    }
    return "exited with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

Result<std::string> findProgram(const std::string& name, const std::string& folders) {
    const char* const path = std::getenv("PATH");
    std::istringstream each(folders + ":" + (path ? path : ""));
    const std::string end = "/" + name;
    for (std::string file; std::getline(each, file, ':');) {
        file += end;
        if (::access(file.c_str(), X_OK) == 0) {
            return file;
        }
    }
    return failure(name + " is not installed");
}

Result<std::unique_ptr<Child>> Child::start(const std::vector<std::string>& arguments) {
    const auto failed = [&arguments](const char* what, const std::string& reason) {
        return failure(what + arguments[0] + ": " + reason);
    };
    const char* const localFailure = "this service cannot create a process for ";
    std::vector<char*> texts;
    texts.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        texts.push_back(const_cast<char*>(argument.c_str()));
    }
    texts.push_back(nullptr);
    Result<Pipe> input = openPipe();
    Result<Pipe> output = openPipe();
    Result<Pipe> errors = openPipe();
    Result<Pipe> status = openPipe();  // receives errno if exec fails; if exec succeeds, it is closed without data
    for (const Result<Pipe>* pipe : {&input, &output, &errors, &status}) {
        if (!*pipe) {
            return failed(localFailure, pipe->error().message);
        }
    }
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) {
        return failed(localFailure, systemMessage(errno));
    }
    if (pid == 0) {
        execChild(texts.data(), parent, input->reading.get(), output->writing.get(), errors->writing.get(),
                  status->writing.get());
    }
    std::unique_ptr<Child> child(new Child(pid, Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)))));
    if (child->exitFd() < 0) {
        return failed(localFailure, systemMessage(errno));
    }
    status->writing.reset();
    int reason = 0;
    ssize_t count = 0;
    do {
        count = ::read(status->reading.get(), &reason, sizeof reason);
    } while (count < 0 && errno == EINTR);
    if (count != 0) {
        return failed("cannot run ", systemMessage(reason));
    }
    child->input = std::move(input->writing);
    child->output = std::move(output->reading);
    child->errors = std::move(errors->reading);
    setNonBlocking(child->input);
    setNonBlocking(child->output);
    setNonBlocking(child->errors);
    return child;
}

Child::~Child() {
    signal(SIGKILL);
    while (mPid != 0 && ::waitpid(mPid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void Child::signal(int number) {
    if (mPid != 0) {
        ::kill(mPid, number);
    }
}

std::optional<std::string> Child::reap() {
    int status = 0;
    const pid_t ended = ::waitpid(mPid, &status, WNOHANG);
    if (ended == 0) {
        return std::nullopt;
    }
    mPid = 0;
    return ended < 0 ? "exited" : describeExit(status);  // if the process ignores SIGCHLD, there is no exit status
}

}  // namespace vexalive
