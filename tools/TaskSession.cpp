#include "tools/TaskSession.h"

#include <algorithm>
#include <utility>

#include "base/RetrySchedule.h"

namespace vexalive {

const TaskFamily kRelayFamily = {
    "relay", "stop", "stops", "stopping", "stopped", Operation::kStartRelay, Operation::kStopRelay, kRelayListenerCodes,
    30};
const TaskFamily kMixFamily = {
    "mix", "cancel", "cancels", "cancelling", "cancelled", Operation::kStartMix, Operation::kStopMix, kMixListenerCodes,
    31};

namespace {

constexpr int kAttempts = kRetryBudget + 1;

template <class T>
nlohmann::ordered_json orNull(const std::optional<T>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

// A report's trace: what was asked, if it opens with that, then a line for each answer.
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

TaskSession::TaskSession(const TaskFamily& family, Lifetime lifetime, std::function<void()> stop,
                         std::function<void(OutputEntry)> show)
    : mFamily(family), mLifetime(lifetime), mCallStop(std::move(stop)), mEmit(std::move(show)), mStop{family.stop} {}

void TaskSession::start(std::function<void()> call) {
    if (!mStopWanted) {
        mNextStart = std::move(call);
        advance();
    }
}

void TaskSession::on(const SdkEvent& event) {
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
        if (event.operation == mFamily.startOperation) {
            onStarted(mStart, event);
        } else if (event.operation == mFamily.stopOperation) {
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
        onAnswered(task, event);
    } else {
        mInFlight.erase(exchange);
        onDelivered(task);
    }
}

void TaskSession::onStarted(Task& task, const ExchangeEvent& event) {
    if (&task == &mStop) {
        mStartWentAstray = mStartWentAstray && isInFlight(mStart);
    } else {
        mStartWentAstray = mStartWentAstray || mStage == Stage::kStopping || isInFlight(mStart);
    }
    mInFlight[event.id] = &task;
    ++task.attempts;
    task.isRetryPlanned = false;
    OutputEntry entry = aboutAttempt(task, "attempt", "waiting for the answer");
    entry.fields["interface"] = event.interfaceName;
    entry.fields["bytes"] = event.bytesSent;
    entry.transient = true;
    mEmit(std::move(entry));
}

void TaskSession::onAnswered(Task& task, const ExchangeEvent& event) {
    task.answer = readAnswer(event.retCode, event.answer, event.httpStatus);
    const ServiceAnswer& answer = task.answer;
    OutputEntry entry =
        aboutAttempt(task, "answer", describe(answer) + "; " + std::to_string(event.elapsed.count()) + " ms");
    entry.fields["returnCode"] = answer.retCode;
    entry.fields["meaning"] = describe(answer);
    entry.fields["httpStatus"] = orNull(answer.httpStatus);
    entry.fields["code"] = orNull(answer.code);
    entry.fields["message"] = answer.message;
    entry.fields["milliseconds"] = event.elapsed.count();
    mEmit(std::move(entry));
}

// The adapter has judged the answer: if the listener heard nothing of it, it plans another try.
void TaskSession::onDelivered(Task& task) {
    const bool isSuperseded = &task == &mStart && mStage == Stage::kStopping && task.told.empty();
    if (isSuperseded) {
        mStartWentAstray = mStartWentAstray && !task.answer.isRefusal();
        mEmit(aboutAttempt(task, "ignored", std::string("no longer counts, since ") + mFamily.stopping + " has begun"));
    } else if (isInFlight(task)) {
        // The newer attempt decides.
    } else if (task.isJudged() || task.attempts >= kAttempts) {
        finish(task);
    } else {
        task.isRetryPlanned = true;
        OutputEntry entry =
            about(task, "retry",
                  "next try, attempt " + std::to_string(task.attempts + 1) + " of " + std::to_string(kAttempts) + ",");
        entry.countdown = std::chrono::milliseconds(retryDelay(task.attempts));
        entry.fields["attempt"] = task.attempts + 1;
        entry.fields["of"] = kAttempts;
        entry.fields["waitMilliseconds"] = entry.countdown->count();
        entry.transient = true;
        mEmit(std::move(entry));
    }
}

void TaskSession::onListener(const ListenerEvent& event) {
    Task* task = event.operation == mFamily.startOperation  ? &mStart
                 : event.operation == mFamily.stopOperation ? &mStop
                                                            : nullptr;
    if (!task) {
        return;
    }
    task->told.push_back(event.told);
    if (!isInFlight(*task)) {  // refused before anything was sent
        finish(*task);
    }
}

void TaskSession::finish(Task& task) {
    if (task.outcome) {
        return;
    }
    task.outcome = conclude(mFamily.codes, task.told);
    std::string outcome;
    switch (*task.outcome) {
        case kSucceeded:
            outcome =
                std::string("done, the ") + mFamily.name + " is " + (&task == &mStop ? mFamily.stopped : "running");
            break;
        case kRefused:
            outcome = "failed, refused by the service";
            break;
        default:
            outcome = task.told.empty() ? "failed, the answer tells no outcome" : "failed, no usable answer came";
    }
    OutputEntry entry = about(task, "outcome", outcome);
    entry.fields["success"] = *task.outcome == kSucceeded;
    entry.fields["attempts"] = task.attempts;
    entry.fields["outcome"] = outcome;
    entry.fields["listener"] = nlohmann::ordered_json::array();
    for (const ListenerTold& told : task.told) {
        entry.details.push_back(describe(mFamily.codes, told));
        entry.fields["listener"].push_back({{"code", told.code},
                                            {"message", told.message},
                                            {"serviceCode", orNull(serviceCode(mFamily.codes, told.code))}});
    }
    mEmit(std::move(entry));
}

void TaskSession::onReport(const EventReport& report) {
    if (report.event != mFamily.reportEvent) {
        return;
    }
    Task* task = !mStart.isReported && mStart.isJudged() ? &mStart
                 : !mStop.isReported && mStop.isJudged() ? &mStop
                                                         : nullptr;  // of a task that was superseded
    if (task) {
        finish(*task);  // what is reported is over, though the client may not have said so yet
        task->isReported = true;
    }

    OutputEntry entry =
        about(task ? *task : mStart, "report",
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

// ---- The course -----------------------------------------------------------------------------------------------------

void TaskSession::onStopAsked(const std::string& why) {
    if (mExitStatus) {
        return;
    }
    if (mStopWanted) {
        OutputEntry entry =
            about("interrupted", "ended at once on " + why + "; whether the " + mFamily.name + " runs is not known");
        entry.fields["why"] = why;
        mEmit(std::move(entry));
        end(kInterrupted);
        return;
    }
    mStopWanted = true;
    mNextStart = nullptr;
    OutputEntry entry = about(
        "stopping",
        std::string(mFamily.stopping) + " the " + mFamily.name + " on " + why +
            (mStage == Stage::kStarting && !isBetweenAttempts() ? ", once the attempt under way is answered" : "") +
            "; another Ctrl-C ends at once");
    entry.fields["why"] = why;
    mEmit(std::move(entry));
    advance();
}

void TaskSession::advance() {
    if (mExitStatus) {
        return;
    }
    if (mStage == Stage::kStarting && hasEnded(mStart)) {
        settleStart();
    } else if (mStage == Stage::kStopping && hasEnded(mStop)) {
        settleStop();
    }
    if (mExitStatus) {
        return;
    }
    const bool isIdle = mStage == Stage::kIdle;
    if (mStopWanted && isIdle && !mRuns) {
        end(mStart.outcome.value_or(kSucceeded));
    } else if (mStopWanted && (isIdle || isBetweenAttempts())) {
        beginStop();
    } else if (mNextStart && (isIdle || isBetweenAttempts())) {
        beginStart();
    }
}

// A start or an update has come to its end.
void TaskSession::settleStart() {
    const ExitStatus outcome = *mStart.outcome;
    mStage = Stage::kIdle;
    mRuns = mRuns || outcome == kSucceeded;
    if (mStopWanted) {
        return;
    }
    if (mStartWentAstray && !mNextStart) {
        mEmit(about("again", "sending it again, since a late attempt of the one before may have come after it"));
        mNextStart = mCallStart;
    }
    if (mNextStart) {
        return;
    }
    if (mLifetime == Lifetime::kDetached && mRuns) {
        mEmit(about("detached", std::string("the ") + mFamily.name + " is left running"));
        end(outcome);
    } else if (mLifetime != Lifetime::kWatched && !mRuns) {
        end(outcome);
    } else {
        showIdle();
    }
}

void TaskSession::settleStop() {
    if (*mStop.outcome == kNoAnswer || !mStartWentAstray) {
        end(*mStop.outcome);
    } else if (!isInFlight(mStart)) {
        OutputEntry entry =
            about("stopping", std::string(mFamily.stopping) + " the " + mFamily.name +
                                  " again, since a late attempt of the start may have come after the " + mFamily.stop);
        entry.fields["why"] = "a late attempt of the start";
        mEmit(std::move(entry));
        beginStop();
    }
}

void TaskSession::beginStart() {
    if (mStage == Stage::kStarting) {
        mEmit(about(mStart, "superseded", "not tried again, since a newer change is to be sent"));
    }
    mStage = Stage::kStarting;
    mStartWentAstray = false;
    mStart = Task{mRuns ? "update" : "start"};
    mCallStart = std::exchange(mNextStart, nullptr);
    mCallStart();
}

void TaskSession::beginStop() {
    mStage = Stage::kStopping;
    mStartWentAstray = false;
    mStop = Task{mFamily.stop};
    mCallStop();
}

void TaskSession::showIdle() {
    const std::string name = std::string("the ") + mFamily.name;
    const char* watch = mLifetime == Lifetime::kWatched ? " a saved change is sent," : "";
    OutputEntry entry = mRuns ? about("holding", name + " is running;" + watch + " Ctrl-C " + mFamily.stops + " it")
                              : about("waiting", name + " does not run;" + watch + " Ctrl-C ends");
    entry.transient = true;
    mEmit(std::move(entry));
}

void TaskSession::end(ExitStatus status) {
    mExitStatus = status;
}

OutputEntry TaskSession::about(const char* event, const std::string& text) const {
    OutputEntry entry;
    entry.fields = {{"event", event}, {"task", mFamily.name}};
    entry.text = text;
    return entry;
}

OutputEntry TaskSession::about(const Task& task, const char* event, const std::string& text) const {
    OutputEntry entry;
    entry.fields = {{"event", event}, {"task", mFamily.name}, {"request", task.name}};
    entry.text = std::string(mFamily.name) + " " + task.name + ": " + text;
    return entry;
}

OutputEntry TaskSession::aboutAttempt(const Task& task, const char* event, const std::string& text) const {
    OutputEntry entry = about(
        task, event, "attempt " + std::to_string(task.attempts) + " of " + std::to_string(kAttempts) + ": " + text);
    entry.fields["attempt"] = task.attempts;
    entry.fields["of"] = kAttempts;
    return entry;
}

}  // namespace vexalive
