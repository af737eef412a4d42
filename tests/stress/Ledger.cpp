#include "Ledger.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/KstMessageLoop.h"
#include "base/Md5.h"
#include "base/Version.h"

using namespace oracle;
using vexalive::HttpExchange;
using Cause = KstMessageLoop::Cause;

namespace {

constexpr int kSdkAppId = 1400;
constexpr const char* kSegment = " [tryHttp:cnt-";

// Removes `expected` from the front of `text`. A zero byte ends both: reports are C strings.
bool consume(std::string_view& text, const std::string& expected, bool& isCut) {
    const size_t length = std::min(expected.find('\0'), expected.size());
    isCut = length != expected.size();
    if (text.substr(0, length) != std::string_view(expected).substr(0, length)) {
        return false;
    }
    text.remove_prefix(length);
    return true;
}

bool consume(std::string_view& text, const std::string& expected) {
    bool isCut = false;
    return consume(text, expected, isCut) && !isCut;
}

int consumeNumber(std::string_view& text) {
    size_t length = 0;
    int number = 0;
    for (; length < text.size() && length < 9 && text[length] >= '0' && text[length] <= '9'; ++length) {
        number = number * 10 + (text[length] - '0');
    }
    text.remove_prefix(length);
    return length == 0 ? -1 : number;
}

}  // namespace

// ---- For the driver -------------------------------------------------------------------------------------------------

Account::Account(Ledger& ledger, std::string userId) : mLedger(ledger), mUserId(std::move(userId)) {}

// What the adapter does for the call, on any thread, has this cause.
void Account::beginCall() {
    static std::atomic<uint64_t> lastCause{0};
    Cause::current().id = ++lastCause;
}

void Account::supersede(Round& round) {
    if (!round.operations.empty() && round.operations.back().supersedingBegan == 0) {
        round.operations.back().supersedingBegan = ++mNow;
    }
    ++round.generation;
}

void Account::open(Round& round, Operation operation) {
    supersede(round);
    operation.generation = round.generation;
    operation.cause = Cause::current().id;
    round.operations.push_back(std::move(operation));
}

void Account::beginOperation(Operation operation) {
    beginCall();
    const std::lock_guard<std::mutex> lock(mMutex);
    Round& round = roundOf(operation.kind);
    open(round, std::move(operation));
}

void Account::beginReset() {
    beginCall();
    const std::lock_guard<std::mutex> lock(mMutex);
    for (Round& round : mRounds) {
        supersede(round);
    }
}

void Account::beginRoomEntry() {
    beginCall();
    const std::lock_guard<std::mutex> lock(mMutex);
    for (Round& round : mRounds) {
        if (!round.operations.empty() && round.operations.back().outcome == Operation::kWaitsForRoom) {
            Operation again = round.operations.back();
            again.outcome = Operation::kSends;
            again.supersedingBegan = again.supersedingEnded = 0;
            again.reported = 0;
            open(round, std::move(again));
        }
    }
}

void Account::endCall() {
    Cause::current() = {};
    const std::lock_guard<std::mutex> lock(mMutex);
    for (Round& round : mRounds) {
        for (Operation& operation : round.operations) {
            if (operation.supersedingBegan != 0 && operation.supersedingEnded == 0) {
                operation.supersedingEnded = ++mNow;
            }
        }
    }
}

void Account::closeScript(Family family) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mRounds[family].isScriptDone = true;
    completeIfDone(family);
}

void Account::beginDrop() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsDropped = true;
}

void Account::endDrop() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsDropped = false;
    for (Round& round : mRounds) {
        mLedger.abandoned += static_cast<int64_t>(round.operations.size());
        for (const auto& exchange : round.exchanges) {
            exchange->isAbandoned = true;
        }
        round = Round();
    }
}

void Account::abandonRound(Family family) {
    const std::lock_guard<std::mutex> lock(mMutex);
    Round& round = mRounds[family];
    mLedger.lost += static_cast<int64_t>(round.operations.size());
    violation("lost", "a round did not complete", round);
}

// ---- Lookup ---------------------------------------------------------------------------------------------------------

Operation* Account::find(Round& round, uint64_t cause) {
    const auto found = std::find_if(round.operations.begin(), round.operations.end(),
                                    [&](const Operation& each) { return each.cause == cause; });
    return found == round.operations.end() ? nullptr : &*found;
}

// No other operation has changed the retry counters.
bool Account::hasOneOperation(const Round& round) {
    return round.operations.size() == 1 && round.operations[0].supersedingBegan == 0;
}

Exchange* Account::next(Round& round, const Exchange& exchange) {
    const auto found =
        std::find_if(round.exchanges.begin(), round.exchanges.end(), [&](const std::shared_ptr<Exchange>& each) {
            return each->cause == exchange.cause && each->attempt == exchange.attempt + 1;
        });
    return found == round.exchanges.end() ? nullptr : found->get();
}

std::string Account::describe(const Round& round) const {
    std::string text;
    for (const Operation& each : round.operations) {
        text += std::string("\n      ") + rulesOf(each.kind).name + " number " + std::to_string(each.number) +
                " cause " + std::to_string(each.cause) + " outcome " + std::to_string(each.outcome) + " superseded " +
                std::to_string(each.supersedingBegan) + ".." + std::to_string(each.supersedingEnded) + " notified " +
                std::to_string(each.notified) + " reported " + std::to_string(each.reported);
    }
    for (const auto& each : round.exchanges) {
        text += std::string("\n      sent ") + rulesOf(each->kind).name + " cause " + std::to_string(each->cause) +
                " attempt " + std::to_string(each->attempt) + " retCode " + std::to_string(each->retCode) +
                (each->isCompleted ? " completed" : "") + (each->isDelivered ? " delivered" : "") +
                (each->isRetried ? " retried" : "") + " notified " + std::to_string(each->notified.size()) +
                (each->isReported ? " reported" : "") + " \"" + each->response.substr(0, 60) + "\"";
    }
    return text;
}

void Account::violation(const char* rule, const std::string& what, const Round& round) {
    mLedger.reportViolation(rule, mUserId + ": " + what + describe(round));
}

// ---- For the hooks --------------------------------------------------------------------------------------------------

std::shared_ptr<Exchange> Account::sent(uint64_t id, Kind kind, uint64_t cause, std::string body) {
    const std::lock_guard<std::mutex> lock(mMutex);
    Round& round = roundOf(kind);
    auto exchange = std::make_shared<Exchange>(Exchange{id, kind, cause, 0, std::move(body)});
    const Exchange* previous = nullptr;
    for (const auto& each : round.exchanges) {
        if (each->cause == cause) {
            previous = each.get();
            ++exchange->attempt;
        }
    }
    ++mNow;
    round.exchanges.push_back(exchange);
    const Operation* operation = find(round, cause);
    if (!operation || operation->kind != kind || operation->outcome != Operation::kSends ||
        exchange->attempt > kMaxRetries ||
        (previous &&
         (!previous->isCompleted || !previous->notified.empty() || (previous->isDelivered && !previous->isRetried)))) {
        ++mLedger.doubled;
        violation("doubled", "no operation explains this request: " + exchange->body, round);
        return exchange;
    }
    if (previous && !rulesOf(kind).sendsStaleRetry && operation->supersedingEnded != 0 &&
        operation->supersedingEnded < previous->completedAt) {
        ++mLedger.wrong;
        violation("wrong", "a stale retry was sent", round);
    }
    const std::string number = std::to_string(operation->number);
    if (!previous && ((kind == kAddRelay && exchange->body.find("/" + number + "\"") == std::string::npos) ||
                      (kind == kStartMix &&
                       exchange->body.find("\"output_stream_bitrate\":" + number + ",") == std::string::npos))) {
        ++mLedger.wrong;
        violation("wrong", "the body is not that of operation " + number + ": " + exchange->body, round);
    }
    return exchange;
}

void Account::completed(Exchange& exchange, int retCode, std::string response) {
    const std::lock_guard<std::mutex> lock(mMutex);
    exchange.retCode = retCode;
    exchange.response = std::move(response);
    exchange.isCompleted = true;
    exchange.isLate = exchange.isAbandoned;
    exchange.completedAt = ++mNow;
}

void Account::delivered(const std::shared_ptr<Exchange>& exchange, int retries, int reports) {
    const std::lock_guard<std::mutex> lock(mMutex);
    exchange->isDelivered = true;
    exchange->isRetried = retries > 0;
    ++mNow;
    Round& round = roundOf(exchange->kind);
    if (retries + reports > (exchange->isLate ? 0 : 1)) {
        ++mLedger.doubled;
        violation("doubled", "a response was evaluated twice, or after the end of its adapter", round);
    }
    if (!exchange->isAbandoned) {
        checkDelivered(round, *exchange, retries, reports);
        completeIfDone(familyOf(exchange->kind));
    }
}

// One response is dropped, retried or final.
void Account::checkDelivered(Round& round, Exchange& exchange, int retries, int reports) {
    const Operation* operation = find(round, exchange.cause);
    if (!operation) {
        return;  // sent() has reported the violation
    }
    const auto wrong = [&](const char* what) {
        ++mLedger.wrong;
        violation("wrong",
                  std::string(what) + ", attempt " + std::to_string(exchange.attempt) + " of cause " +
                      std::to_string(exchange.cause),
                  round);
    };
    const bool isDroppedIfStale = exchange.attempt == 0 || rulesOf(exchange.kind).dropsStaleRetry;
    const bool isFresh = operation->supersedingBegan == 0;
    const bool isStale = operation->supersedingEnded != 0 && operation->supersedingEnded < exchange.completedAt;
    if (retries + reports == 0) {
        if (!exchange.notified.empty()) {
            wrong("the listener was notified of a dropped response");
        } else if (!mIsDropped && (isFresh || !isDroppedIfStale)) {
            wrong("a response was dropped that is not stale");
        }
        return;
    }
    if (isDroppedIfStale && isStale) {
        wrong("a stale response was evaluated");
    }
    const Evaluation evaluation = evaluate(exchange.kind, exchange.retCode, exchange.response);
    if (retries > 0) {
        ++mLedger.retries;
        // A stale request may use an attempt of the newer request of its kind.
        if (!evaluation.isRetryable || (exchange.attempt >= kMaxRetries && isFresh) || !exchange.notified.empty()) {
            wrong("a final response was retried");
        }
        return;
    }
    if (evaluation.isRetryable && exchange.attempt < kMaxRetries && hasOneOperation(round)) {
        wrong("retries were left");
    }
    mLedger.exhausted += evaluation.isRetryable && exchange.attempt == kMaxRetries;
    if (!(exchange.notified == evaluation.notifications)) {
        wrong("the notifications do not match the response");
    }
    if (next(round, exchange)) {
        wrong("a finished request was sent again");
    }
}

void Account::notified(Exchange* exchange, Notification call) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (exchange && !exchange->isAbandoned) {
        exchange->notified.push_back(std::move(call));
        return;
    }
    for (Round& round : mRounds) {
        for (Operation& operation : round.operations) {
            if (operation.outcome == Operation::kRefused && operation.notified == 0 && operation.refusal == call) {
                operation.notified = 1;
                completeIfDone(familyOf(operation.kind));
                return;
            }
        }
    }
    ++mLedger.doubled;
    mLedger.reportViolation("doubled", mUserId + ": no event explains the listener call " + call.operation + " " +
                                           std::to_string(call.code) + " " + call.message.value_or(""));
}

void Account::reported(const vexalive::EventReport& report) {
    const std::lock_guard<std::mutex> lock(mMutex);
    const Family family = report.event == 30 ? kRelay : kMix;
    Round& round = mRounds[family];
    if (report.sdkAppId != kSdkAppId || report.eventType != 10004 || (report.event != 30 && report.event != 31)) {
        ++mLedger.wrong;
        violation("wrong", "a report with other numbers", round);
    }
    if (matchReport(round, report)) {
        completeIfDone(family);
        return;
    }
    ++mLedger.doubled;
    violation("doubled", "no event explains the report " + report.information + " | " + report.detail, round);
}

// Finds the operation that the report ends. Its information is that of the kind at that moment: the operation's own, or
// that of a later one.
bool Account::matchReport(Round& round, const vexalive::EventReport& report) {
    const auto isInformationFrom = [&](const Operation& first) {
        const std::string version = std::string("sdkver:") + kstf_get_sdk_version() + " ";
        for (const Operation* each = &first; each <= &round.operations.back(); ++each) {
            std::string information = each->information;
            for (const auto& exchange : round.exchanges) {
                if (exchange->cause == each->cause && exchange->attempt == 0 && information.empty()) {
                    information = exchange->body;
                }
            }
            if (each->kind == first.kind && report.information == version + information) {
                return true;
            }
        }
        return false;
    };

    for (Operation& operation : round.operations) {
        const bool isRefusal = operation.outcome == Operation::kRefused && operation.isReported &&
                               operation.notified == 1 && report.detail == operation.refusal.message;
        const bool isDeferral = operation.outcome == Operation::kWaitsForRoom && report.detail == kNotInRoom;
        if (operation.reported == 0 && (isRefusal || isDeferral) && isInformationFrom(operation)) {
            operation.reported = 1;
            return true;
        }
    }
    for (const auto& exchange : round.exchanges) {
        const Operation* operation = find(round, exchange->cause);
        if (operation && !exchange->notified.empty() && !exchange->isReported && isInformationFrom(*operation) &&
            explains(round, *exchange, report.detail)) {
            exchange->isReported = true;
            return true;
        }
    }
    return false;
}

// Whether `trace` consists of its opening and the responses up to `last`, each with the attempts that were left.
bool Account::explains(Round& round, const Exchange& last, const std::string& trace) {
    std::string_view rest(trace);
    if (last.kind == kStartMix) {
        // Describes the configuration of that moment, which a later cancel has emptied.
        const bool isEmptied = !hasOneOperation(round) && trace.find("\"input_stream_list\":[]") != std::string::npos;
        if (!consume(rest, "task_id:" + std::to_string(find(round, last.cause)->generation) +
                               ", pureAudioOutputStream:" + (isEmptied ? "1" : "0") + ", stream: {")) {
            return false;
        }
        const size_t segment = rest.find(kSegment);
        rest.remove_prefix(std::min(segment, rest.size()));
    }
    for (const auto& exchange : round.exchanges) {
        if (exchange->cause != last.cause || exchange->attempt > last.attempt) {
            continue;
        }
        if (exchange->attempt == 0 && last.kind == kAddRelay && !consume(rest, exchange->body)) {
            return false;
        }
        std::string_view counter = rest.substr(0, rest.find(']'));
        if (!consume(counter, kSegment)) {
            return false;
        }
        const int attemptsLeft = consumeNumber(counter);
        if (hasOneOperation(round) ? attemptsLeft != (last.kind == kRemoveRelay ? 0 : kMaxRetries - exchange->attempt)
                                   : attemptsLeft < 0 || attemptsLeft > kMaxRetries) {
            return false;
        }
        bool isCut = false;
        if (!consume(rest, traceSegment(attemptsLeft, exchange->retCode, exchange->response), isCut)) {
            return false;
        }
        if (isCut) {
            break;
        }
    }
    return rest.empty();
}

// ---- The end of a round ---------------------------------------------------------------------------------------------

bool Account::isComplete(Round& round) {
    if (!round.isScriptDone || mIsDropped) {
        return false;
    }
    for (const auto& exchange : round.exchanges) {
        const Operation* operation = find(round, exchange->cause);
        const bool mayEndHere =
            !rulesOf(exchange->kind).sendsStaleRetry && operation && operation->supersedingBegan != 0;
        if (!exchange->isDelivered || (!exchange->notified.empty() && !exchange->isReported) ||
            (exchange->isRetried && !mayEndHere && !next(round, *exchange))) {
            return false;
        }
    }
    for (const Operation& operation : round.operations) {
        const bool isLast = &operation == &round.operations.back();
        if (operation.outcome == Operation::kWaitsForRoom && operation.reported != 1) {
            return false;
        }
        if (operation.outcome == Operation::kRefused &&
            (operation.reported != (operation.isReported ? operation.notified : 0) ||
             (operation.notified == 0 && (isLast || operation.refusedEvenIfStale)))) {
            return false;
        }
        if (operation.outcome == Operation::kSends && isLast &&
            std::none_of(round.exchanges.begin(), round.exchanges.end(), [&](const std::shared_ptr<Exchange>& each) {
                return each->cause == operation.cause && each->isReported;
            })) {
            return false;
        }
    }
    return true;
}

void Account::completeIfDone(Family family) {
    Round& round = mRounds[family];
    if (!isComplete(round)) {
        return;
    }
    for (const Operation& operation : round.operations) {
        ++mLedger.operations;
        mLedger.refused += operation.outcome == Operation::kRefused;
        mLedger.deferred += operation.outcome == Operation::kWaitsForRoom;
        mLedger.superseded += operation.outcome == Operation::kSends && &operation != &round.operations.back();
    }
    for (const auto& exchange : round.exchanges) {
        mLedger.succeeded += !exchange->notified.empty() && exchange->notified.back().code == 0;
    }
    round.operations = {};  // releases the memory
    round.exchanges = {};
    round.isScriptDone = false;
    mLedger.onRoundCompleted(*this, family);
}

// ---- All accounts ---------------------------------------------------------------------------------------------------

thread_local Ledger::Delivery Ledger::tCurrentDelivery;

std::shared_ptr<Account> Ledger::openAccount(const std::string& userId) {
    const auto account = std::make_shared<Account>(*this, userId);
    const std::lock_guard<std::mutex> lock(mMutex);
    mByUser[userId] = account;
    mByStream["8888_" + kstmedia::getMD5("r1_" + userId + "_main")] = account;
    return account;
}

void Ledger::reportViolation(const char* rule, const std::string& what) {
    constexpr int kMaxPrinted = 20;
    if (++mViolations <= kMaxPrinted) {
        std::fprintf(stderr, "%s: %s\n", rule, what.c_str());
    }
}

size_t Ledger::inFlight() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mInFlight.size();
}

void Ledger::installHooks() {
    vexalive::setHttpObserver([this](const HttpExchange& exchange) { observe(exchange); });
    vexalive::setEventSink([this](const vexalive::EventReport& report) {
        std::shared_ptr<Account> account;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            for (const std::string room : {"r1_", "_"}) {  // the room has no name before it is first entered
                if (report.roomUser.compare(0, room.size(), room) == 0 && !account) {
                    const auto found = mByUser.find(report.roomUser.substr(room.size()));
                    account = found == mByUser.end() ? nullptr : found->second;
                }
            }
        }
        if (account) {
            account->reported(report);
        } else {
            ++wrong;
            reportViolation("wrong", "a report of an unknown user: " + report.roomUser);
        }
    });
    vexalive::setLogSink([](auto&&...) {});
}

void Ledger::observe(const HttpExchange& exchange) {
    if (exchange.phase == HttpExchange::kStarted) {
        const std::string body(exchange.body);
        const nlohmann::json fields = nlohmann::json::parse(body);
        const Kind kind = exchange.interfaceName == "add_relay_stream_url"      ? kAddRelay
                          : exchange.interfaceName == "remove_relay_stream_url" ? kRemoveRelay
                          : fields.contains("use_mix_crop_center")              ? kStartMix
                                                                                : kCancelMix;
        std::shared_ptr<Account> account;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            account = mByStream.at(fields.at(familyOf(kind) == kRelay ? "stream_id" : "session_id"));
        }
        ++started;
        Delivery delivery{account, account->sent(exchange.id, kind, Cause::current().id, body)};
        const std::lock_guard<std::mutex> lock(mMutex);
        mInFlight[exchange.id] = std::move(delivery);
        return;
    }
    const bool isCompleted = exchange.phase == HttpExchange::kCompleted;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        const auto found = mInFlight.find(exchange.id);
        if (found == mInFlight.end() || found->second.exchange->isCompleted == isCompleted) {
            ++doubled;
            reportViolation("doubled", "an exchange ended twice, or was never sent");
            return;
        }
        tCurrentDelivery = found->second;
        if (!isCompleted) {
            mInFlight.erase(found);
        }
    }
    Cause& cause = Cause::current();
    if (isCompleted) {
        tCurrentDelivery.account->completed(*tCurrentDelivery.exchange, exchange.retCode,
                                            std::string(exchange.response));
        cause = {tCurrentDelivery.exchange->cause, 0, 0};
    } else {
        ++delivered;
        const Delivery ended = std::exchange(tCurrentDelivery, {});
        ended.account->delivered(ended.exchange, cause.delayedPosts, cause.posts);
        cause = {};
    }
}

void LedgerListener::notified(Notification call) {
    if (mIsClosed) {
        ++mLedger.doubled;
        mLedger.reportViolation("doubled",
                                mAccount->userId() + ": the listener was called after the end of its adapter");
        return;
    }
    mAccount->notified(Ledger::tCurrentDelivery.exchange.get(), std::move(call));
}
