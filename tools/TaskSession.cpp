#include "tools/TaskSession.h"

#include <algorithm>
#include <utility>

#include "base/RetrySchedule.h"

namespace vexalive {

const TaskType kRelayTask = {
    "relay", "stop", "stops", "stopping", "stopped", requests::kAddRelay, requests::kRemoveRelay, requests::kRelay};
const TaskType kMixTask = {
    "mix", "cancel", "cancels", "cancelling", "cancelled", requests::kStartMix, requests::kCancelMix, requests::kMix};

namespace {

constexpr int kMaxAttempts = kRetryBudget + 1;

template <class T>
nlohmann::ordered_json orNull(const std::optional<T>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

// Splits a report's trace into its parts: the request body, if the trace begins with one, and one part per response.
std::vector<std::string> splitTrace(const std::string& trace) {
    std::vector<std::string> parts;
    for (size_t begin = 0; begin < trace.size();) {
        const size_t end = std::min(trace.find(" [tryHttp:", begin + 1), trace.size());
        parts.push_back(trace.substr(begin, end - begin));
        begin = end;
    }
    return parts;
}

}  // namespace

TaskSession::TaskSession(const TaskType& type, Lifetime lifetime, std::function<void()> stop,
                         std::function<void(OutputEntry)> show)
    : mType(type), mLifetime(lifetime), mCallStop(std::move(stop)), mEmit(std::move(show)), mStop{type.stop} {}

void TaskSession::start(std::function<void()> call) {
    if (!mIsStopRequested) {
        mPendingStart = std::move(call);
        advance();
    }
}

void TaskSession::handle(const SdkEvent& event) {
    if (mExitStatus) {
        return;
    }
    if (const auto* exchange = std::get_if<ExchangeEvent>(&event)) {
        onExchange(*exchange);
    } else if (const auto* listener = std::get_if<ListenerEvent>(&event)) {
        onListener(*listener);
    } else if (const auto* report = std::get_if<EventReport>(&event)) {
        onReport(*report);
    }
    advance();
}

// ---- One request ----------------------------------------------------------------------------------------------------

bool TaskSession::isInFlight(const Task& task) const {
    return std::any_of(mInFlight.begin(), mInFlight.end(), [&task](const auto& each) { return each.second == &task; });
}

void TaskSession::onExchange(const ExchangeEvent& event) {
    if (event.phase == HttpExchange::kStarted) {
        if (event.kind == mType.startKind) {
            onStarted(mStart, event);
        } else if (event.kind == mType.stopKind) {
            onStarted(mStop, event);
        }
        return;
    }
    const auto exchange = mInFlight.find(event.id);
    if (exchange == mInFlight.end()) {
        return;
    }
    Task& task = *exchange->second;
    if (event.phase == HttpExchange::kCompleted) {
        onResponse(task, event);
    } else {
        mInFlight.erase(exchange);
        onDelivered(task);
    }
}

void TaskSession::onStarted(Task& task, const ExchangeEvent& event) {
    if (&task == &mStop) {
        mHasLateStart = mHasLateStart && isInFlight(mStart);
    } else {
        mHasLateStart = mHasLateStart || mStage == Stage::kStopping || isInFlight(mStart);
    }
    mInFlight[event.id] = &task;
    ++task.attempts;
    task.isRetryScheduled = false;
    OutputEntry entry = attemptEntry(task, "attempt", "waiting for the response");
    entry.fields["interface"] = event.interfaceName;
    entry.fields["bytes"] = event.bytesSent;
    entry.transient = true;
    mEmit(std::move(entry));
}

void TaskSession::onResponse(Task& task, const ExchangeEvent& event) {
    task.response = parseResponse(event.retCode, event.response, event.httpStatus);
    const ServiceResponse& response = task.response;
    OutputEntry entry =
        attemptEntry(task, "response", describe(response) + "; " + std::to_string(event.elapsed.count()) + " ms");
    entry.fields["returnCode"] = response.retCode;
    entry.fields["meaning"] = describe(response);
    entry.fields["httpStatus"] = orNull(response.httpStatus);
    entry.fields["code"] = orNull(response.code);
    entry.fields["message"] = response.message;
    entry.fields["milliseconds"] = event.elapsed.count();
    mEmit(std::move(entry));
}

// The adapter has evaluated the response. If it has not notified the listener, it has scheduled a retry.
void TaskSession::onDelivered(Task& task) {
    const bool isSuperseded = &task == &mStart && mStage == Stage::kStopping && task.notifications.empty();
    if (isSuperseded) {
        mHasLateStart = mHasLateStart && !task.response.isRefusal();
        mEmit(attemptEntry(task, "ignored", std::string("response ignored, because the ") + mType.stop + " has begun"));
    } else if (isInFlight(task)) {
        // A newer attempt is in flight. Its response decides.
    } else if (task.isDecided() || task.attempts >= kMaxAttempts) {
        finish(task);
    } else {
        task.isRetryScheduled = true;
        OutputEntry entry =
            makeEntry(task, "retry",
                      "retrying, attempt " + std::to_string(task.attempts + 1) + " of " + std::to_string(kMaxAttempts));
        entry.countdown = std::chrono::milliseconds(retryDelay(task.attempts));
        entry.fields["attempt"] = task.attempts + 1;
        entry.fields["of"] = kMaxAttempts;
        entry.fields["waitMilliseconds"] = entry.countdown->count();
        entry.transient = true;
        mEmit(std::move(entry));
    }
}

void TaskSession::onListener(const ListenerEvent& event) {
    Task* task = event.kind == mType.startKind ? &mStart : event.kind == mType.stopKind ? &mStop : nullptr;
    if (!task) {
        return;
    }
    task->notifications.push_back(event.notification);
    if (!isInFlight(*task)) {  // the adapter refused the call
        finish(*task);
    }
}

void TaskSession::finish(Task& task) {
    if (task.outcome) {
        return;
    }
    task.outcome = exitStatusOf(mType.family.codes, task.notifications);
    std::string outcome;
    switch (*task.outcome) {
        case kSucceeded:
            outcome = std::string("done, the ") + mType.name + " is " + (&task == &mStop ? mType.stopped : "running");
            break;
        case kRefused:
            outcome = "failed, refused by the service";
            break;
        default:
            outcome = task.notifications.empty() ? "failed, the response has no code" : "failed, no usable response";
    }
    OutputEntry entry = makeEntry(task, "outcome", outcome);
    entry.fields["success"] = *task.outcome == kSucceeded;
    entry.fields["attempts"] = task.attempts;
    entry.fields["outcome"] = outcome;
    entry.fields["listener"] = nlohmann::ordered_json::array();
    for (const requests::Notification& notification : task.notifications) {
        entry.details.push_back(describe(mType.family.codes, notification));
        entry.fields["listener"].push_back(
            {{"code", notification.code},
             {"message", notification.message},
             {"serviceCode", orNull(serviceCode(mType.family.codes, notification.code))}});
    }
    mEmit(std::move(entry));
}

void TaskSession::onReport(const EventReport& report) {
    if (report.event != mType.family.reportEvent) {
        return;
    }
    Task* task = !mStart.isReported && mStart.isDecided() ? &mStart
                 : !mStop.isReported && mStop.isDecided() ? &mStop
                                                          : nullptr;  // the report is about a superseded task
    if (task) {
        finish(*task);  // the event report may arrive before HttpExchange::kDelivered
        task->isReported = true;
    }

    OutputEntry entry =
        makeEntry(task ? *task : mStart, "report",
                  "reported as event " + std::to_string(report.event) + " of type " + std::to_string(report.eventType) +
                      " for app " + std::to_string(report.sdkAppId) + ", room and user " + report.roomUser);
    entry.fields["sdkAppId"] = report.sdkAppId;
    entry.fields["roomUser"] = report.roomUser;
    entry.fields["reportType"] = report.eventType;
    entry.fields["reportEvent"] = report.event;
    entry.fields["information"] = report.information;
    entry.fields["detail"] = report.detail;
    entry.details.push_back("information  " + report.information);
    for (const std::string& part : splitTrace(report.detail)) {
        entry.details.push_back((entry.details.size() == 1 ? "detail       " : "             ") +
                                part.substr(part.front() == ' ' ? 1 : 0));
    }
    mEmit(std::move(entry));
}

// ---- Start and stop -------------------------------------------------------------------------------------------------

void TaskSession::requestStop(const std::string& why) {
    if (mExitStatus) {
        return;
    }
    if (mIsStopRequested) {
        OutputEntry entry =
            makeEntry("interrupted", "aborted on " + why + "; the " + mType.name + " may still be running");
        entry.fields["why"] = why;
        mEmit(std::move(entry));
        end(kInterrupted);
        return;
    }
    mIsStopRequested = true;
    mPendingStart = nullptr;
    OutputEntry entry = makeEntry(
        "stopping",
        std::string(mType.stopping) + " the " + mType.name + " on " + why +
            (mStage == Stage::kStarting && !isBetweenAttempts() ? ", after the response to the current attempt" : "") +
            "; press Ctrl-C again to abort");
    entry.fields["why"] = why;
    mEmit(std::move(entry));
    advance();
}

void TaskSession::advance() {
    if (mExitStatus) {
        return;
    }
    if (mStage == Stage::kStarting && hasEnded(mStart)) {
        onStartEnded();
    } else if (mStage == Stage::kStopping && hasEnded(mStop)) {
        onStopEnded();
    }
    if (mExitStatus) {
        return;
    }
    const bool isIdle = mStage == Stage::kIdle;
    if (mIsStopRequested && isIdle && !mIsRunning) {
        end(mStart.outcome.value_or(kSucceeded));
    } else if (mIsStopRequested && (isIdle || isBetweenAttempts())) {
        beginStop();
    } else if (mPendingStart && (isIdle || isBetweenAttempts())) {
        beginStart();
    }
}

void TaskSession::onStartEnded() {
    const ExitStatus outcome = *mStart.outcome;
    mStage = Stage::kIdle;
    mIsRunning = mIsRunning || outcome == kSucceeded;
    if (mIsStopRequested) {
        return;
    }
    if (mHasLateStart && !mPendingStart) {
        mEmit(makeEntry(
            "again",
            "sending the last change again, because a late attempt of the previous one may have arrived after it"));
        mPendingStart = mLastStart;
    }
    if (mPendingStart) {
        return;
    }
    if (mLifetime == Lifetime::kDetached && mIsRunning) {
        mEmit(makeEntry("detached", std::string("the ") + mType.name + " keeps running"));
        end(outcome);
    } else if (mLifetime != Lifetime::kWatched && !mIsRunning) {
        end(outcome);
    } else {
        emitIdle();
    }
}

void TaskSession::onStopEnded() {
    if (*mStop.outcome == kNoResponse || !mHasLateStart) {
        end(*mStop.outcome);
    } else if (!isInFlight(mStart)) {
        OutputEntry entry = makeEntry(
            "stopping", std::string(mType.stopping) + " the " + mType.name +
                            " again, because a late attempt of the start may have arrived after the " + mType.stop);
        entry.fields["why"] = "late start attempt";
        mEmit(std::move(entry));
        beginStop();
    }
}

void TaskSession::beginStart() {
    if (mStage == Stage::kStarting) {
        mEmit(makeEntry(mStart, "superseded", "not retried, because a newer change is sent"));
    }
    mStage = Stage::kStarting;
    mHasLateStart = false;
    mStart = Task{mIsRunning ? "update" : "start"};
    mLastStart = std::exchange(mPendingStart, nullptr);
    mLastStart();
}

void TaskSession::beginStop() {
    mStage = Stage::kStopping;
    mHasLateStart = false;
    mStop = Task{mType.stop};
    mCallStop();
}

void TaskSession::emitIdle() {
    const std::string name = std::string("the ") + mType.name;
    const char* watch = mLifetime == Lifetime::kWatched ? " saved changes are sent;" : "";
    OutputEntry entry = mIsRunning
                            ? makeEntry("holding", name + " is running;" + watch + " Ctrl-C " + mType.stops + " it")
                            : makeEntry("waiting", name + " is not running;" + watch + " Ctrl-C exits");
    entry.transient = true;
    mEmit(std::move(entry));
}

void TaskSession::end(ExitStatus status) {
    mExitStatus = status;
}

OutputEntry TaskSession::makeEntry(const char* event, const std::string& text) const {
    OutputEntry entry;
    entry.fields = {{"event", event}, {"task", mType.name}};
    entry.text = text;
    return entry;
}

OutputEntry TaskSession::makeEntry(const Task& task, const char* event, const std::string& text) const {
    OutputEntry entry;
    entry.fields = {{"event", event}, {"task", mType.name}, {"request", task.name}};
    entry.text = std::string(mType.name) + " " + task.name + ": " + text;
    return entry;
}

OutputEntry TaskSession::attemptEntry(const Task& task, const char* event, const std::string& text) const {
    OutputEntry entry = makeEntry(
        task, event, "attempt " + std::to_string(task.attempts) + " of " + std::to_string(kMaxAttempts) + ": " + text);
    entry.fields["attempt"] = task.attempts;
    entry.fields["of"] = kMaxAttempts;
    return entry;
}

}  // namespace vexalive
