#include "service/Supervisor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <nlohmann/json.hpp>
#include <utility>

namespace vexalive {

using nlohmann::json;

namespace {

constexpr std::chrono::milliseconds kMinRestartDelay(250);
constexpr int kMaxDoublings = 5;                 // of kMinRestartDelay
constexpr std::chrono::seconds kStableTime(10);  // if a child has run this long, its failure counts as the first
constexpr std::chrono::seconds kStopTimeout(3);
constexpr int kStartTimeoutFactor = 5;  // timeouts added before the first status, since a child loads plugins first
constexpr std::chrono::milliseconds kMaxWait(500);  // of one poll()
constexpr std::chrono::seconds kOmissionInterval(1);
constexpr size_t kMaxUnsentBytes = size_t{1} << 20;
constexpr LineReader::Bounds kOutputBounds = {size_t{2} << 20, 50, size_t{4} << 20};  // a JPEG is one line
constexpr LineReader::Bounds kErrorBounds = {4096, 20, size_t{256} << 10};

// The positions of one child's file descriptors in the list for poll().
enum Slot { kExitSlot, kOutputSlot, kErrorSlot, kInputSlot, kSlots };

}  // namespace

std::chrono::milliseconds restartDelay(int failures) {
    return kMinRestartDelay * (1 << std::clamp(failures, 0, kMaxDoublings));
}

struct Supervisor::Job {
    Job(const WorkerKey& itsKey, const Program& itsProgram) : key(itsKey), program(itsProgram) {}

    bool isKilled() const { return !killReason.empty(); }

    const WorkerKey key;
    Program program;
    std::string configuration;
    std::unique_ptr<Child> child;  // null between an exit and the next start
    std::string unsent;            // lines that were not written to the child yet
    LineReader output{kOutputBounds};
    LineReader errors{kErrorBounds};
    std::string lastLine;                                 // of standard error
    uint64_t malformedLines = 0;                          // not reported yet
    Clock::time_point started;                            // when the child was last started; the epoch if never
    Clock::time_point lastStatus;                         // later than now before the first status
    Clock::time_point retryAt;                            // when to restart the child
    Clock::time_point killAt = Clock::time_point::max();  // when to kill a child that is stopping
    Clock::time_point omissionsReported;                  // when omitted and malformed lines were last reported
    std::string killReason;                               // why the child was killed; empty if it was not
    int failures = 0;                                     // consecutive failures; see restartDelay()
    bool isStopping = false;
    bool isSuperseded = false;  // a newer job has the same key
    std::string restartReason;  // why the child was restarted; empty when its state is kRunning
    ProcessStatus status;
    std::optional<std::pair<WorkerState, std::string>> published;  // last state and error that the listener received
};

// ---- Commands -------------------------------------------------------------------------------------------------------

Supervisor::Supervisor(Listener listener) : mListener(std::move(listener)) {}

Supervisor::~Supervisor() {
    stop();
}

Result<void> Supervisor::start() {
    mWake = Descriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!mWake.isOpen()) {
        return failure("cannot supervise processes: " + systemMessage(errno));
    }
    {
        KstMutexLock lock(mMutex);
        mIsRunning = true;
        mIsStopping = false;
    }
    mIsShuttingDown = false;
    mThread = std::thread([this] { run(); });
    return {};
}

void Supervisor::stop() {
    if (!mThread.joinable()) {
        return;
    }
    {
        KstMutexLock lock(mMutex);
        mIsStopping = true;
    }
    post([] {});
    mThread.join();
}

// Queues a command for the supervisor's thread. Returns false if this thread does not run.
bool Supervisor::post(std::function<void()> command) {
    KstMutexLock lock(mMutex);
    if (!mIsRunning) {
        return false;
    }
    mCommands.push_back(std::move(command));
    const uint64_t one = 1;
    [[maybe_unused]] const auto written =
        ::write(mWake.get(), &one, sizeof one);  // fails only if the eventfd is readable already
    return true;
}

Result<void> Supervisor::configure(const WorkerKey& key, const Program& program, const std::string& configuration) {
    bool isApplied = false;  // mMutex guards this variable and `result`
    Result<void> result;
    const auto command = [&] {
        Result<void> applied = applyConfiguration(key, program, configuration);
        KstMutexLock lock(mMutex);
        result = std::move(applied);
        isApplied = true;
        mCount = mJobs.size();
        mApplied.notifyAll();
    };
    if (!post(command)) {
        return failure("the service is not running");
    }
    KstMutexLock lock(mMutex);
    while (!isApplied) {
        mApplied.wait(mMutex);
    }
    return result;
}

void Supervisor::remove(const WorkerKey& key) {
    post([this, key] {
        if (Job* const job = find(key)) {
            beginStop(*job);
        }
    });
}

void Supervisor::send(const WorkerKey& key, const std::string& line) {
    post([this, key, line] {
        Job* const job = find(key);
        if (job && job->child) {
            writeLine(*job, line);
        }
    });
}

void Supervisor::setStatus(const WorkerKey& key, const WorkerStatus& status) {
    post([this, key, status] {
        Job* const job = find(key);
        if (job && job->child) {
            job->lastStatus = status.output.state == WorkerState::kRunning ? Clock::now() : job->lastStatus;
            update(*job, status);
        }
    });
}

std::optional<ProcessStatus> Supervisor::status(const WorkerKey& key) const {
    KstMutexLock lock(mMutex);
    const auto found = mStatuses.find(key);
    return found == mStatuses.end() ? std::nullopt : std::optional(found->second);
}

size_t Supervisor::count() const {
    KstMutexLock lock(mMutex);
    return mCount;
}

// ---- The thread -----------------------------------------------------------------------------------------------------

void Supervisor::run() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, nullptr);  // the host's threads handle the signals
    mNow = Clock::now();
    while (runCommands()) {
        wait();
    }
}

// Runs the queued commands. Returns false when the shutdown is complete.
bool Supervisor::runCommands() {
    std::deque<std::function<void()>> commands;
    {
        KstMutexLock lock(mMutex);
        mIsShuttingDown = mIsStopping;
        commands.swap(mCommands);
    }
    for (const auto& command : commands) {
        command();
    }
    for (Job& job : mJobs) {
        if (mIsShuttingDown && !job.isStopping) {
            beginStop(job);
        }
    }
    mJobs.remove_if([](const Job& job) { return job.isStopping && !job.child; });
    KstMutexLock lock(mMutex);
    mCount = mJobs.size();
    mIsRunning = !mIsShuttingDown || !mJobs.empty() || !mCommands.empty();
    return mIsRunning;
}

// Waits for events or the next deadline, and handles the events.
void Supervisor::wait() {
    std::vector<pollfd> watched = {{mWake.get(), POLLIN, 0}};
    Clock::time_point deadline = mNow + kMaxWait;
    for (const Job& job : mJobs) {
        if (!job.child) {
            watched.insert(watched.end(), kSlots, {-1, 0, 0});
            deadline = findBlocker(job) ? deadline : std::min(deadline, job.retryAt);
            continue;
        }
        const auto readable = [&](const Descriptor& stream, const LineReader& reader) {
            const bool isReady = reader.ready() <= mNow;
            deadline = isReady || !stream.isOpen() ? deadline : std::min(deadline, reader.ready());
            return pollfd{isReady ? stream.get() : -1, POLLIN, 0};
        };
        watched.push_back({job.child->exitFd(), POLLIN, 0});
        watched.push_back(readable(job.child->output, job.output));
        watched.push_back(readable(job.child->errors, job.errors));
        watched.push_back({job.unsent.empty() ? -1 : job.child->input.get(), POLLOUT, 0});
        if (!job.isKilled()) {
            deadline = std::min(deadline, job.isStopping ? job.killAt : job.lastStatus + job.program.timeout);
        }
    }
    const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    ::poll(watched.data(), watched.size(), static_cast<int>(std::max<decltype(remaining)>(remaining, 0)));
    extendTimeouts(std::exchange(mNow, Clock::now()));
    uint64_t wakes = 0;
    [[maybe_unused]] const auto count = ::read(mWake.get(), &wakes, sizeof wakes);
    const pollfd* slots = watched.data() + 1;
    for (Job& job : mJobs) {
        handleEvents(job, slots);
        slots += kSlots;
    }
}

// `before` is when the previous wait() ended. If that was much more than kMaxWait ago, this process was suspended and
// could not read the status of its children. So the timeouts of the children are extended by this time.
void Supervisor::extendTimeouts(Clock::time_point before) {
    if (mNow > before + 2 * kMaxWait) {
        for (Job& job : mJobs) {
            job.lastStatus += mNow - before;
        }
    }
}

void Supervisor::handleEvents(Job& job, const pollfd* slots) {
    if (!job.child) {
        if (mNow < job.retryAt || findBlocker(job)) {
            return;
        }
        if (const Result<void> launched = launch(job); !launched) {
            job.restartReason = launched.error().message;
            job.retryAt = mNow + restartDelay(job.failures++);
            job.status.worker.output.error = job.restartReason;
            publish(job);
        }
        return;
    }
    const bool hasExited = slots[kExitSlot].revents != 0;
    if (hasExited || slots[kOutputSlot].revents != 0) {
        readOutput(job);
    }
    if (hasExited || slots[kErrorSlot].revents != 0) {
        readErrors(job);
    }
    if (slots[kInputSlot].revents != 0) {
        write(job);
    }
    if (hasExited) {
        reap(job);
    } else if (job.isStopping && mNow >= job.killAt) {
        kill(job, "did not exit in time");
    } else if (!job.isStopping && mNow >= job.lastStatus + job.program.timeout) {
        kill(job, "sent no status for " + std::to_string(job.program.timeout.count()) + " ms");
    }
    if (mNow >= job.omissionsReported + kOmissionInterval) {
        reportOmissions(job);
    }
}

// ---- One child ------------------------------------------------------------------------------------------------------

Supervisor::Job* Supervisor::find(const WorkerKey& key) {
    const auto found =
        std::find_if(mJobs.begin(), mJobs.end(), [&key](const Job& job) { return job.key == key && !job.isStopping; });
    return found == mJobs.end() ? nullptr : &*found;
}

// The job with the same key whose stopping child must exit before this job's child may start; null if there is none.
Supervisor::Job* Supervisor::findBlocker(const Job& job) {
    const auto found = std::find_if(mJobs.begin(), mJobs.end(), [&job](const Job& other) {
        return other.key == job.key && other.isStopping && other.child;
    });
    return job.program.handover && found != mJobs.end() ? &*found : nullptr;
}

Result<void> Supervisor::applyConfiguration(const WorkerKey& key, const Program& program,
                                            const std::string& configuration) {
    if (mIsShuttingDown) {
        return failure("the service is stopping");
    }
    if (Job* const running = find(key)) {
        running->program = program;
        running->configuration = configuration;
        if (running->child) {
            writeLine(*running, configuration);
        }
        running->retryAt = mNow;
        return {};
    }
    Job& job = mJobs.emplace_back(key, program);
    job.configuration = configuration;
    if (Job* const blocker = findBlocker(job)) {
        blocker->killAt = std::min(blocker->killAt, Clock::now() + *program.handover);
        publish(job);
    } else if (Result<void> launched = launch(job); !launched) {
        mJobs.pop_back();
        return launched;
    }
    for (Job& other : mJobs) {
        other.isSuperseded = other.isSuperseded || (other.key == key && &other != &job);
    }
    return {};
}

Result<void> Supervisor::launch(Job& job) {
    Result<std::unique_ptr<Child>> child = Child::start(job.program.arguments);
    if (!child) {
        return tl::unexpected(child.error());
    }
    job.child = std::move(*child);
    job.status.restarts += job.started == Clock::time_point() ? 0 : 1;
    job.status.worker = {};
    job.status.worker.output.error = job.restartReason;
    job.output = LineReader(kOutputBounds);
    job.errors = LineReader(kErrorBounds);
    job.lastLine.clear();
    job.killReason.clear();
    job.unsent.clear();
    job.started = Clock::now();
    job.lastStatus = job.started + kStartTimeoutFactor * job.program.timeout;
    writeLine(job, job.configuration);
    publish(job);
    return {};
}

void Supervisor::beginStop(Job& job) {
    job.isStopping = true;
    job.killAt = Clock::now() + kStopTimeout;
    job.status.worker.output.state = job.child ? WorkerState::kStopping : WorkerState::kStopped;
    publish(job);
    if (job.child) {
        job.unsent.clear();
        job.child->input.reset();
        if (job.program.stopSignal != 0) {
            job.child->signal(job.program.stopSignal);
        }
    }
}

void Supervisor::writeLine(Job& job, const std::string& line) {
    if (line.empty() || !job.child->input.isOpen()) {
        return;
    }
    job.unsent += line + "\n";
    write(job);
    if (job.unsent.size() > kMaxUnsentBytes) {
        kill(job, "did not read its input");
    }
}

void Supervisor::write(Job& job) {
    const ssize_t count = ::write(job.child->input.get(), job.unsent.data(), job.unsent.size());
    if (count >= 0) {
        job.unsent.erase(0, static_cast<size_t>(count));
    } else if (errno != EAGAIN && errno != EINTR) {
        job.unsent.clear();
        job.child->input.reset();
    }
}

void Supervisor::readOutput(Job& job) {
    if (job.child->output.isOpen() &&
        !job.output.read(job.child->output.get(), mNow, [&](const std::string& line) { handleLine(job, line); })) {
        job.child->output.reset();
    }
}

void Supervisor::readErrors(Job& job) {
    const auto reportLine = [&](const std::string& line) {
        if (!line.empty()) {
            job.lastLine = line;
            mListener.onLine(job.key, line);
        }
    };
    if (job.child->errors.isOpen() && !job.errors.read(job.child->errors.get(), mNow, reportLine)) {
        job.child->errors.reset();
        reportLine(job.errors.takeRest());
    }
}

void Supervisor::handleLine(Job& job, const std::string& line) {
    const json message = json::parse(line, nullptr, false);
    const bool isObject = message.is_object();
    if (isObject && !message.contains("status")) {
        if (!job.isStopping) {
            mListener.onMessage(job.key, message);
        }
        return;
    }
    std::optional<WorkerStatus> status = isObject ? parseWorkerStatus(message["status"]) : std::nullopt;
    if (!status) {
        ++job.malformedLines;
        return;
    }
    job.lastStatus = mNow;
    update(job, std::move(*status));
}

void Supervisor::update(Job& job, WorkerStatus status) {
    if (job.isStopping) {
        return;
    }
    StreamStatus& output = status.output;
    if (output.state == WorkerState::kRunning) {
        job.restartReason.clear();
    } else if (output.error.empty()) {
        output.error = job.restartReason;
    }
    job.status.worker = std::move(status);
    publish(job);
}

void Supervisor::kill(Job& job, const std::string& reason) {
    if (!job.isKilled()) {
        job.killReason = reason;
        job.child->signal(SIGKILL);
    }
}

// Called when the child has exited. Schedules its restart, unless it was stopped.
void Supervisor::reap(Job& job) {
    const std::optional<std::string> exit = job.child->reap();
    if (!exit) {
        return;
    }
    reportOmissions(job);
    job.child.reset();
    StreamStatus& output = job.status.worker.output;
    if (job.isStopping) {
        output.state = WorkerState::kStopped;
        output.error = job.killReason.empty() ? output.error : "the process " + job.killReason;
        publish(job);
        return;
    }
    job.failures = mNow >= job.started + kStableTime ? 0 : job.failures;
    job.retryAt = mNow + restartDelay(job.failures++);
    job.restartReason = "the process " + (job.killReason.empty() ? *exit : job.killReason);
    job.restartReason += job.lastLine.empty() ? "" : ": " + job.lastLine;
    output.state = WorkerState::kReconnecting;
    output.error = job.restartReason;
    publish(job);
}

void Supervisor::reportOmissions(Job& job) {
    job.omissionsReported = mNow;
    const auto reportCount = [&](uint64_t count, const char* what) {
        if (count > 0) {
            mListener.onLine(job.key, what + std::to_string(count));
        }
    };
    reportCount(job.errors.takeOmitted(), "omitted lines: ");
    reportCount(job.output.takeOmitted(), "lines of its output that were too long or too many: ");
    reportCount(std::exchange(job.malformedLines, 0), "malformed lines of its output: ");
}

// Updates the result of status(), and notifies the listener if the state or the error has changed.
void Supervisor::publish(Job& job) {
    if (job.isSuperseded) {
        return;
    }
    const StreamStatus& output = job.status.worker.output;
    {
        KstMutexLock lock(mMutex);
        if (job.isStopping && output.state == WorkerState::kStopped) {
            mStatuses.erase(job.key);
        } else {
            mStatuses[job.key] = job.status;
        }
    }
    std::pair<WorkerState, std::string> current(output.state, output.error);
    if (job.published != current) {
        job.published = std::move(current);
        mListener.onState(job.key, job.status);
    }
}

}  // namespace vexalive
