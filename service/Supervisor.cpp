#include "service/Supervisor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

namespace vexalive {

using nlohmann::json;

namespace {

constexpr std::chrono::milliseconds kFirstPause(250);
constexpr int kDoublings = 5;
constexpr std::chrono::seconds kSteadyTime(10);  // after which a failure counts as the first
constexpr std::chrono::seconds kFarewell(3);
constexpr int kStartPatience = 5;  // times its own, on top: plugins are looked for before the first sign of life
constexpr std::chrono::milliseconds kMaxWait(500);
constexpr std::chrono::seconds kOmissionPause(1);
constexpr size_t kMaxUnsentBytes = size_t{1} << 20;
constexpr LineReader::Bounds kOutputBounds = {size_t{2} << 20, 50, size_t{4} << 20};  // pictures come this way
constexpr LineReader::Bounds kErrorBounds = {4096, 20, size_t{256} << 10};

// The file descriptors of one child in a list for poll().
enum Slot { kExitSlot, kOutputSlot, kErrorSlot, kInputSlot, kSlots };

}  // namespace

std::chrono::milliseconds restartPause(int failures) {
    return kFirstPause * (1 << std::clamp(failures, 0, kDoublings));
}

struct Supervisor::Kept {
    Kept(const std::string& itsKey, const Program& itsProgram) : key(itsKey), program(itsProgram) {}

    bool isKilled() const { return !blame.empty(); }

    const std::string key;
    Program program;
    std::string configuration;
    std::unique_ptr<Child> child;  // none between an end and the next start
    std::string unsent;
    LineReader output{kOutputBounds};
    LineReader errors{kErrorBounds};
    std::string lastLine;  // of its errors
    uint64_t notUnderstood = 0;
    Clock::time_point started;
    Clock::time_point lastSign;  // of life
    Clock::time_point retryAt;
    Clock::time_point killAt = Clock::time_point::max();
    Clock::time_point omissionsTold;
    std::string blame;  // why it was killed; empty if it was not
    int failures = 0;   // in a row
    bool isLeaving = false;
    bool isSuperseded = false;  // its key is another's now
    std::string failure;        // why it was started again; until it runs
    WorkerStatus status;
    std::optional<std::pair<WorkerState, std::string>> told;
};

// ---- Wishes ---------------------------------------------------------------------------------------------------------

Supervisor::Supervisor(Listener listener) : mListener(std::move(listener)) {}

Supervisor::~Supervisor() {
    stop();
}

bool Supervisor::start(std::string& error) {
    mWake = Descriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!mWake.isOpen()) {
        error = "cannot watch over processes: " + std::generic_category().message(errno);
        return false;
    }
    {
        KstMutexLock lock(mMutex);
        mIsRunning = true;
        mIsStopping = false;
    }
    mIsLeaving = false;
    mThread = std::thread([this] { run(); });
    return true;
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

// False if there is no thread to run it.
bool Supervisor::post(std::function<void()> wish) {
    KstMutexLock lock(mMutex);
    if (!mIsRunning) {
        return false;
    }
    mWishes.push_back(std::move(wish));
    const uint64_t one = 1;
    [[maybe_unused]] const auto written =
        ::write(mWake.get(), &one, sizeof one);  // fails only if it is readable anyway
    return true;
}

std::string Supervisor::want(const std::string& key, const Program& program, const std::string& configuration) {
    bool isObeyed = false;  // guarded by mMutex, as is the other
    std::string refusal;
    const auto wish = [&] {
        std::string made = obey(key, program, configuration);
        KstMutexLock lock(mMutex);
        refusal = std::move(made);
        isObeyed = true;
        mCount = mKept.size();
        mObeyed.notifyAll();
    };
    if (!post(wish)) {
        return "the service is not running";
    }
    KstMutexLock lock(mMutex);
    while (!isObeyed) {
        mObeyed.wait(mMutex);
    }
    return refusal;
}

void Supervisor::drop(const std::string& key) {
    post([this, key] {
        if (Kept* const kept = find(key)) {
            leave(*kept);
        }
    });
}

void Supervisor::tell(const std::string& key, const std::string& line) {
    post([this, key, line] {
        Kept* const kept = find(key);
        if (kept && kept->child) {
            send(*kept, line);
        }
    });
}

void Supervisor::note(const std::string& key, const WorkerStatus& status) {
    post([this, key, status] {
        Kept* const kept = find(key);
        if (kept && kept->child) {
            kept->lastSign = status.numbers.state == WorkerState::kRunning ? Clock::now() : kept->lastSign;
            take(*kept, status);
        }
    });
}

std::optional<WorkerStatus> Supervisor::status(const std::string& key) const {
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
    ::pthread_sigmask(SIG_SETMASK, &all, nullptr);  // signals are for the host's threads
    mNow = Clock::now();
    while (takeWishes()) {
        await();
    }
}

// False once all is over.
bool Supervisor::takeWishes() {
    std::deque<std::function<void()>> wishes;
    {
        KstMutexLock lock(mMutex);
        mIsLeaving = mIsStopping;
        wishes.swap(mWishes);
    }
    for (const auto& wish : wishes) {
        wish();
    }
    for (Kept& kept : mKept) {
        if (mIsLeaving && !kept.isLeaving) {
            leave(kept);
        }
    }
    mKept.remove_if([](const Kept& kept) { return kept.isLeaving && !kept.child; });
    KstMutexLock lock(mMutex);
    mCount = mKept.size();
    mIsRunning = !mIsLeaving || !mKept.empty() || !mWishes.empty();
    return mIsRunning;
}

// Waits until something is to be done, and does it.
void Supervisor::await() {
    std::vector<pollfd> watched = {{mWake.get(), POLLIN, 0}};
    Clock::time_point deadline = mNow + kMaxWait;
    for (const Kept& kept : mKept) {
        if (!kept.child) {
            watched.insert(watched.end(), kSlots, {-1, 0, 0});
            deadline = findInTheWay(kept) ? deadline : std::min(deadline, kept.retryAt);
            continue;
        }
        const auto readable = [&](const Descriptor& stream, const LineReader& reader) {
            const bool isReady = reader.ready() <= mNow;
            deadline = isReady || !stream.isOpen() ? deadline : std::min(deadline, reader.ready());
            return pollfd{isReady ? stream.get() : -1, POLLIN, 0};
        };
        watched.push_back({kept.child->exitFd(), POLLIN, 0});
        watched.push_back(readable(kept.child->output, kept.output));
        watched.push_back(readable(kept.child->errors, kept.errors));
        watched.push_back({kept.unsent.empty() ? -1 : kept.child->input.get(), POLLOUT, 0});
        if (!kept.isKilled()) {
            deadline = std::min(deadline, kept.isLeaving ? kept.killAt : kept.lastSign + kept.program.patience);
        }
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    ::poll(watched.data(), watched.size(), static_cast<int>(std::max<decltype(left)>(left, 0)));
    forgiveAbsence(std::exchange(mNow, Clock::now()));
    uint64_t wakes = 0;
    [[maybe_unused]] const auto taken = ::read(mWake.get(), &wakes, sizeof wakes);
    const pollfd* slots = watched.data() + 1;
    for (Kept& kept : mKept) {
        attend(kept, slots);
        slots += kSlots;
    }
}

// A wait that took far too long means that this process was stopped. Whoever gives signs of life by way of it could
// not.
void Supervisor::forgiveAbsence(Clock::time_point before) {
    if (mNow > before + 2 * kMaxWait) {
        for (Kept& kept : mKept) {
            kept.lastSign += mNow - before;
        }
    }
}

void Supervisor::attend(Kept& kept, const pollfd* slots) {
    if (!kept.child) {
        std::string error;
        if (mNow >= kept.retryAt && !findInTheWay(kept) && !launch(kept, error)) {
            kept.failure = error;
            kept.retryAt = mNow + restartPause(kept.failures++);
            kept.status.numbers.error = error;
            publish(kept);
        }
        return;
    }
    const bool hasEnded = slots[kExitSlot].revents != 0;
    if (hasEnded || slots[kOutputSlot].revents != 0) {
        readOutput(kept);
    }
    if (hasEnded || slots[kErrorSlot].revents != 0) {
        readErrors(kept);
    }
    if (slots[kInputSlot].revents != 0) {
        write(kept);
    }
    if (hasEnded) {
        bury(kept);
    } else if (kept.isLeaving && mNow >= kept.killAt) {
        killBlaming(kept, "did not end when it was asked to");
    } else if (!kept.isLeaving && mNow >= kept.lastSign + kept.program.patience) {
        killBlaming(kept, "gave no sign of life for " + std::to_string(kept.program.patience.count()) + " ms");
    }
    if (mNow >= kept.omissionsTold + kOmissionPause) {
        tellOmitted(kept);
    }
}

// ---- One child ------------------------------------------------------------------------------------------------------

Supervisor::Kept* Supervisor::find(const std::string& key) {
    const auto found = std::find_if(mKept.begin(), mKept.end(),
                                    [&key](const Kept& kept) { return kept.key == key && !kept.isLeaving; });
    return found == mKept.end() ? nullptr : &*found;
}

// One that leaves, and has to be gone before this one may start.
Supervisor::Kept* Supervisor::findInTheWay(const Kept& kept) {
    const auto found = std::find_if(mKept.begin(), mKept.end(), [&kept](const Kept& other) {
        return other.key == kept.key && other.isLeaving && other.child;
    });
    return kept.program.handover && found != mKept.end() ? &*found : nullptr;
}

std::string Supervisor::obey(const std::string& key, const Program& program, const std::string& configuration) {
    if (mIsLeaving) {
        return "the service is stopping";
    }
    if (Kept* const running = find(key)) {
        running->program = program;
        running->configuration = configuration;
        if (running->child) {
            send(*running, configuration);
        }
        running->retryAt = mNow;
        return "";
    }
    Kept& kept = mKept.emplace_back(key, program);
    kept.configuration = configuration;
    std::string error;
    if (Kept* const leaving = findInTheWay(kept)) {
        leaving->killAt = std::min(leaving->killAt, Clock::now() + *program.handover);
        publish(kept);
    } else if (!launch(kept, error)) {
        mKept.pop_back();
        return error;
    }
    for (Kept& other : mKept) {
        other.isSuperseded = other.isSuperseded || (other.key == key && &other != &kept);
    }
    return "";
}

bool Supervisor::launch(Kept& kept, std::string& error) {
    kept.child = Child::start(kept.program.arguments, error);
    if (!kept.child) {
        return false;
    }
    kept.status.restarts += kept.started == Clock::time_point() ? 0 : 1;
    kept.status.numbers = {};
    kept.status.numbers.error = kept.failure;
    kept.status.inputs.clear();
    kept.output = LineReader(kOutputBounds);
    kept.errors = LineReader(kErrorBounds);
    kept.lastLine.clear();
    kept.blame.clear();
    kept.unsent.clear();
    kept.started = Clock::now();
    kept.lastSign = kept.started + kStartPatience * kept.program.patience;
    send(kept, kept.configuration);
    publish(kept);
    return true;
}

void Supervisor::leave(Kept& kept) {
    kept.isLeaving = true;
    kept.killAt = Clock::now() + kFarewell;
    kept.status.numbers.state = kept.child ? WorkerState::kStopping : WorkerState::kStopped;
    publish(kept);
    if (kept.child) {
        kept.unsent.clear();
        kept.child->input.reset();
        if (kept.program.stopSignal != 0) {
            kept.child->signal(kept.program.stopSignal);
        }
    }
}

void Supervisor::send(Kept& kept, const std::string& line) {
    if (line.empty() || !kept.child->input.isOpen()) {
        return;
    }
    kept.unsent += line + "\n";
    write(kept);
    if (kept.unsent.size() > kMaxUnsentBytes) {
        killBlaming(kept, "did not read what it was told");
    }
}

void Supervisor::write(Kept& kept) {
    const ssize_t count = ::write(kept.child->input.get(), kept.unsent.data(), kept.unsent.size());
    if (count >= 0) {
        kept.unsent.erase(0, static_cast<size_t>(count));
    } else if (errno != EAGAIN && errno != EINTR) {
        kept.unsent.clear();
        kept.child->input.reset();
    }
}

void Supervisor::readOutput(Kept& kept) {
    if (kept.child->output.isOpen() &&
        !kept.output.read(kept.child->output.get(), mNow, [&](const std::string& line) { hear(kept, line); })) {
        kept.child->output.reset();
    }
}

void Supervisor::readErrors(Kept& kept) {
    const auto tellLine = [&](const std::string& line) {
        if (!line.empty()) {
            kept.lastLine = line;
            mListener.onLine(kept.key, line);
        }
    };
    if (kept.child->errors.isOpen() && !kept.errors.read(kept.child->errors.get(), mNow, tellLine)) {
        kept.child->errors.reset();
        tellLine(kept.errors.takeRest());
    }
}

void Supervisor::hear(Kept& kept, const std::string& line) {
    const json message = json::parse(line, nullptr, false);
    const bool isObject = message.is_object();
    if (isObject && !message.contains("status")) {
        if (!kept.isLeaving) {
            mListener.onAnswer(kept.key, message);
        }
        return;
    }
    std::optional<WorkerStatus> status = isObject ? readStatus(message["status"]) : std::nullopt;
    if (!status) {
        ++kept.notUnderstood;
        return;
    }
    kept.lastSign = mNow;
    take(kept, std::move(*status));
}

void Supervisor::take(Kept& kept, WorkerStatus status) {
    if (kept.isLeaving) {
        return;
    }
    WorkerNumbers& numbers = status.numbers;
    if (numbers.state == WorkerState::kRunning) {
        kept.failure.clear();
    } else if (numbers.error.empty()) {
        numbers.error = kept.failure;
    }
    status.restarts = kept.status.restarts;
    kept.status = std::move(status);
    publish(kept);
}

void Supervisor::killBlaming(Kept& kept, const std::string& reason) {
    if (!kept.isKilled()) {
        kept.blame = reason;
        kept.child->signal(SIGKILL);
    }
}

// After it has ended: it is stopped, or will be started again.
void Supervisor::bury(Kept& kept) {
    const std::optional<std::string> end = kept.child->reap();
    if (!end) {
        return;
    }
    tellOmitted(kept);
    kept.child.reset();
    WorkerNumbers& numbers = kept.status.numbers;
    if (kept.isLeaving) {
        numbers.state = WorkerState::kStopped;
        numbers.error = kept.blame.empty() ? numbers.error : "the process " + kept.blame;
        publish(kept);
        return;
    }
    kept.failures = mNow >= kept.started + kSteadyTime ? 0 : kept.failures;
    kept.retryAt = mNow + restartPause(kept.failures++);
    kept.failure = "the process " + (kept.blame.empty() ? *end : kept.blame);
    kept.failure += kept.lastLine.empty() ? "" : ": " + kept.lastLine;
    numbers.state = WorkerState::kReconnecting;
    numbers.error = kept.failure;
    publish(kept);
}

void Supervisor::tellOmitted(Kept& kept) {
    kept.omissionsTold = mNow;
    const auto tellCount = [&](uint64_t count, const char* what) {
        if (count > 0) {
            mListener.onLine(kept.key, what + std::to_string(count));
        }
    };
    tellCount(kept.errors.takeOmitted(), "lines left out: ");
    tellCount(kept.output.takeOmitted(), "lines of its output that were too long or came too fast: ");
    tellCount(std::exchange(kept.notUnderstood, 0), "lines of its output that were not understood: ");
}

// Makes known how it is, and says so if that is news.
void Supervisor::publish(Kept& kept) {
    if (kept.isSuperseded) {
        return;
    }
    const WorkerNumbers& numbers = kept.status.numbers;
    {
        KstMutexLock lock(mMutex);
        if (kept.isLeaving && numbers.state == WorkerState::kStopped) {
            mStatuses.erase(kept.key);
        } else {
            mStatuses[kept.key] = kept.status;
        }
    }
    std::pair<WorkerState, std::string> news(numbers.state, numbers.error);
    if (kept.told != news) {
        kept.told = std::move(news);
        mListener.onState(kept.key, kept.status);
    }
}

}  // namespace vexalive
