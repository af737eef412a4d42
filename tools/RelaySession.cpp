#include "tools/RelaySession.h"

#include <algorithm>
#include <utility>

#include "base/RetrySchedule.h"

namespace vexalive {
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

RelaySession::RelaySession(bool detach, std::function<void()> stopRelay, std::function<void(Step)> show,
                           std::function<void(const std::string&)> log)
    : mDetach(detach), mStopRelay(std::move(stopRelay)), mShow(std::move(show)), mLog(std::move(log)) {
    mStart.name = "start";
    mStart.interfaceName = "add_relay_stream_url";
    mStart.operation = ListenerEvent::kStartRelay;
    mStart.success = "the relay is running";
    mStop.name = "stop";
    mStop.interfaceName = "remove_relay_stream_url";
    mStop.operation = ListenerEvent::kStopRelay;
    mStop.success = "the relay is stopped";
}

void RelaySession::on(const SdkEvent& event) {
    if (const auto* line = std::get_if<LogEvent>(&event)) {
        mLog("[" + std::to_string(line->level) + "] " + line->file + ":" + std::to_string(line->line) + " " +
             line->function + ": " + line->message);
    } else if (mExitStatus) {
        return;
    } else if (const auto* exchange = std::get_if<ExchangeEvent>(&event)) {
        onExchange(*exchange);
    } else if (const auto* listener = std::get_if<ListenerEvent>(&event)) {
        onListener(*listener);
    } else if (const auto* report = std::get_if<EventReport>(&event)) {
        onReport(*report);
    }
}

// ---- One request ----------------------------------------------------------------------------------------------------

void RelaySession::onExchange(const ExchangeEvent& event) {
    Task* task = event.interfaceName == mStart.interfaceName  ? &mStart
                 : event.interfaceName == mStop.interfaceName ? &mStop
                                                              : nullptr;
    if (!task) {
        return;
    }
    switch (event.phase) {
        case HttpExchange::kStarted: {
            ++task->attempts;
            task->isInFlight = true;
            if (mStage == Stage::kStopping) {
                mStartWentAstray = task == &mStart || (mStartWentAstray && mStart.isInFlight);
            }
            Step step = about(*task, "attempt", "waiting for the answer");
            step.fields["interface"] = event.interfaceName;
            step.fields["bytes"] = event.bytesSent;
            step.passing = true;
            mShow(std::move(step));
            break;
        }
        case HttpExchange::kAnswered: {
            task->answer = readAnswer(event.retCode, event.answer, event.httpStatus);
            const ServiceAnswer& answer = task->answer;
            Step step = about(*task, "answer", describe(answer) + "; " + std::to_string(event.elapsed.count()) + " ms");
            step.fields["returnCode"] = answer.retCode;
            step.fields["meaning"] = describe(answer);
            step.fields["httpStatus"] = orNull(answer.httpStatus);
            step.fields["code"] = orNull(answer.code);
            step.fields["message"] = answer.message;
            step.fields["milliseconds"] = event.elapsed.count();
            mShow(std::move(step));
            break;
        }
        case HttpExchange::kDelivered:
            onDelivered(*task);
            break;
    }
}

// The adapter has judged the answer: if the listener heard nothing of it, it plans another try.
void RelaySession::onDelivered(Task& task) {
    task.isInFlight = false;
    const bool isSuperseded = &task == &mStart && mStage == Stage::kStopping && task.told.empty();
    if (isSuperseded) {
        mStartWentAstray = mStartWentAstray && !task.answer.isRefusal();
        mShow(about(task, "ignored", "no longer counts, since the stop has begun"));
    } else if (!task.told.empty() || task.answer.isVerdictMissing() || task.attempts >= kAttempts) {
        finish(task);
    } else {
        Step step = about(task, "retry", "");
        step.wait = std::chrono::milliseconds(retryDelay(task.attempts));
        step.fields["attempt"] = task.attempts + 1;
        step.fields["waitMilliseconds"] = step.wait->count();
        step.text = std::string(task.name) + ": next try, attempt " + std::to_string(task.attempts + 1) + " of " +
                    std::to_string(kAttempts) + ",";
        step.passing = true;
        mShow(std::move(step));
    }
    advance();
}

void RelaySession::onListener(const ListenerEvent& event) {
    for (Task* task : {&mStart, &mStop}) {
        if (task->operation == event.operation) {
            task->told.push_back(event.told);
            if (!task->isInFlight) {  // refused before anything was sent
                finish(*task);
            }
        }
    }
    advance();
}

void RelaySession::finish(Task& task) {
    if (task.outcome) {
        return;
    }
    task.outcome = conclude(kRelayListenerCodes, task.told);
    Step step;
    step.text = std::string(task.name) + ": ";
    switch (*task.outcome) {
        case kSucceeded:
            step.text += std::string("done, ") + task.success;
            break;
        case kRefused:
            step.text += "failed, refused by the service";
            break;
        default:
            step.text += task.told.empty() ? "failed, the answer tells no outcome" : "failed, no usable answer came";
    }
    step.fields = {{"event", "outcome"}, {"request", task.name}, {"success", *task.outcome == kSucceeded}};
    step.fields["attempts"] = task.attempts;
    step.fields["outcome"] = step.text.substr(step.text.find(' ') + 1);
    step.fields["listener"] = nlohmann::ordered_json::array();
    for (const ListenerTold& told : task.told) {
        step.details.push_back(describe(kRelayListenerCodes, told));
        step.fields["listener"].push_back({{"code", told.code},
                                           {"message", told.message},
                                           {"serviceCode", orNull(serviceCode(kRelayListenerCodes, told.code))}});
    }
    mShow(std::move(step));
}

void RelaySession::onReport(const EventReport& report) {
    const bool isOfStart = !mStart.isReported && (!mStart.told.empty() || mStart.outcome ||
                                                  (mStart.attempts > 0 && mStart.answer.isVerdictMissing()));
    Task& task = isOfStart ? mStart : mStop;
    finish(task);  // what is reported is over, though the client may not have said so yet
    task.isReported = true;

    Step step;
    step.fields = {{"event", "report"},
                   {"request", task.name},
                   {"sdkAppId", report.sdkAppId},
                   {"roomUser", report.roomUser},
                   {"reportType", report.eventType},
                   {"reportEvent", report.event},
                   {"information", report.information},
                   {"detail", report.detail}};
    step.text = std::string(task.name) + ": reported as event " + std::to_string(report.event) + " of type " +
                std::to_string(report.eventType) + " for app " + std::to_string(report.sdkAppId) + ", room and user " +
                report.roomUser;
    step.details.push_back("information  " + report.information);
    for (const std::string& part : splitTrace(report.detail)) {
        step.details.push_back((step.details.size() == 1 ? "detail       " : "             ") +
                               part.substr(part.front() == ' ' ? 1 : 0));
    }
    mShow(std::move(step));
    advance();
}

// ---- The relay's course ---------------------------------------------------------------------------------------------

void RelaySession::onStopAsked(const std::string& why) {
    if (mExitStatus) {
        return;
    }
    Step step;
    if (mStopWanted) {
        step.text = "ended at once on " + why + "; whether the relay runs is not known";
        step.fields = {{"event", "interrupted"}, {"why", why}};
        mShow(std::move(step));
        end(kInterrupted);
        return;
    }
    mStopWanted = true;
    step.fields = {{"event", "stopping"}, {"why", why}};
    step.text = "stopping on " + why + (mStart.isInFlight ? ", once the attempt under way is answered" : "") +
                "; a second Ctrl-C ends at once";
    mShow(std::move(step));
    advance();
}

void RelaySession::beginStop() {
    mStage = Stage::kStopping;
    mStop.attempts = 0;
    mStop.told.clear();
    mStop.outcome.reset();
    mStop.isReported = false;
    mStopRelay();
}

void RelaySession::advance() {
    if (mExitStatus) {
        return;
    }
    if (mStage == Stage::kStarting && mStart.hasEnded()) {
        const bool isLeftRunning = *mStart.outcome == kSucceeded && mDetach && !mStopWanted;
        if (isLeftRunning) {
            Step step;
            step.fields = {{"event", "detached"}};
            step.text = "the relay is left running";
            mShow(std::move(step));
        }
        if (isLeftRunning || *mStart.outcome != kSucceeded) {
            end(*mStart.outcome);
            return;
        }
        mStage = Stage::kHolding;
        if (!mStopWanted) {
            Step step;
            step.fields = {{"event", "holding"}};
            step.text = "the relay is running; Ctrl-C stops it";
            step.passing = true;
            mShow(std::move(step));
        }
    }
    const bool isBetweenAttempts = mStage == Stage::kStarting && !mStart.isInFlight && !mStart.outcome;
    if (mStopWanted && (mStage == Stage::kHolding || isBetweenAttempts)) {
        beginStop();
    } else if (mStage == Stage::kStopping && mStop.hasEnded()) {
        if (*mStop.outcome == kNoAnswer || !mStartWentAstray) {
            end(*mStop.outcome);
        } else if (!mStart.isInFlight) {
            mStartWentAstray = false;
            Step step;
            step.fields = {{"event", "stopping"}, {"why", "a late attempt of the start"}};
            step.text = "stopping again, since a late attempt of the start may have come after the stop";
            mShow(std::move(step));
            beginStop();
        }
    }
}

void RelaySession::end(int status) {
    mExitStatus = status;
    Step step;
    step.fields = {{"event", "end"}, {"exitStatus", status}};
    mShow(std::move(step));
}

// A step of one attempt.
Step RelaySession::about(const Task& task, const char* event, const std::string& text) const {
    Step step;
    step.fields = {{"event", event}, {"request", task.name}, {"attempt", task.attempts}, {"of", kAttempts}};
    step.text = std::string(task.name) + ": attempt " + std::to_string(task.attempts) + " of " +
                std::to_string(kAttempts) + ": " + text;
    return step;
}

}  // namespace vexalive
