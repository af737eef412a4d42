#include "Ledger.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "base/KstMessageLoop.h"
#include "base/Version.h"

using namespace oracle;
using vexalive::HttpExchange;
using Cause = KstMessageLoop::Cause;

namespace {

constexpr int kAccountShift = 32;  // the high 32 bits of a cause are the number of its account, plus one

thread_local std::shared_ptr<Exchange> tDelivered;  // the exchange whose callback runs on this thread

bool isStart(Kind kind) {
    return kind == kAddRelay || kind == kStartMix;
}

// The platform passes reports as C strings, which end at the first zero byte.
std::string upToZero(const std::string& text) {
    return text.c_str();
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

int expectedReports(const Operation& operation) {
    switch (operation.outcome) {
        case Operation::kSends:
            return operation.finished;
        case Operation::kWaitsForRoom:
            return 1;
        case Operation::kRefused:
            return isStart(operation.kind) ? operation.notified : 0;
    }
    return 0;
}

// Whether there are more events than the rules allow. A request may be counted before the retry that leads to it, and a
// report before its response. So these are only compared once all responses are counted.
bool isExceeded(const Operation& operation) {
    return operation.notified > 1 ||
           (operation.responses == operation.requests &&
            (operation.reported > expectedReports(operation) || operation.requests > 1 + operation.retries));
}

// Whether all required events have happened.
bool isComplete(const Operation& operation) {
    const bool isSuperseded = operation.state != Operation::kCurrent;
    if (operation.reported < expectedReports(operation) || operation.responses != operation.requests) {
        return false;
    }
    if (operation.outcome == Operation::kRefused) {
        return operation.notified > 0 || (isSuperseded && !isStart(operation.kind));
    }
    if (operation.outcome == Operation::kWaitsForRoom) {
        return true;
    }
    const bool mayBeDropped = isSuperseded && (operation.requests == 0 || !rulesOf(operation.kind).sendsStaleRetry);
    return (operation.finished > 0 || isSuperseded) && (operation.requests > operation.retries || mayBeDropped);
}

std::string describe(const Operation& operation) {
    static constexpr const char* kOutcomes[] = {"sent", "waiting for the room", "refused"};
    const auto count = [](const char* name, int number) {
        return std::string(", ") + name + ' ' + std::to_string(number);
    };
    return std::string("\n    ") + rulesOf(operation.kind).name + ' ' + kOutcomes[operation.outcome] +
           (operation.state == Operation::kCurrent ? "" : ", superseded") + count("requests", operation.requests) +
           count("responses", operation.responses) + count("retries posted", operation.retries) +
           count("finished", operation.finished) + count("refusals", operation.notified) +
           count("reports", operation.reported) + ", trace:" + operation.trace.substr(0, 2000);
}

}  // namespace

// ---- For the driver -------------------------------------------------------------------------------------------------

void Account::beginCall() {
    static std::atomic<uint32_t> calls{0};
    Cause::current().id = (uint64_t{mNumber} + 1) << kAccountShift | ++calls;
}

void Account::supersede(Round& round) {
    if (!round.operations.empty() && round.operations.back().state == Operation::kCurrent) {
        round.operations.back().state = Operation::kBeingSuperseded;
    }
}

void Account::open(Round& round, Operation operation) {
    supersede(round);
    operation.cause = Cause::current().id;
    round.operations.push_back(std::move(operation));
}

void Account::beginOperation(Operation operation) {
    beginCall();
    const std::lock_guard<std::mutex> lock(mMutex);
    Round& round = mRounds[familyOf(operation.kind)];
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
            open(round, {round.operations.back().kind, Operation::kSends, round.operations.back().information});
        }
    }
}

void Account::endCall() {
    Cause::current() = {};
    const std::lock_guard<std::mutex> lock(mMutex);
    for (Round& round : mRounds) {
        for (Operation& operation : round.operations) {
            if (operation.state == Operation::kBeingSuperseded) {
                operation.state = Operation::kSuperseded;
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
        for (const auto& exchange : round.open) {
            exchange->isAbandoned = true;
        }
        round = Round();
    }
}

void Account::abandonRound(Family family) {
    const std::lock_guard<std::mutex> lock(mMutex);
    violation(Ledger::kLost, "the round did not complete", family);
}

// ---- For the hooks --------------------------------------------------------------------------------------------------

Operation* Account::find(Family family, uint64_t cause) {
    std::vector<Operation>& operations = mRounds[family].operations;
    const auto found = std::find_if(operations.begin(), operations.end(),
                                    [&](const Operation& operation) { return operation.cause == cause; });
    return found == operations.end() ? nullptr : &*found;
}

// Whether the round has no other operation that could change the retry counters, the configuration or the information.
bool Account::isAlone(const Operation& operation) const {
    return operation.state == Operation::kCurrent && mRounds[familyOf(operation.kind)].operations.size() == 1;
}

void Account::violation(int rule, const std::string& what, Family family) {
    std::string text = "user" + std::to_string(mNumber) + ": " + what;
    for (const Operation& operation : mRounds[family].operations) {
        text += describe(operation);
    }
    mLedger.reportViolation(rule, text);
}

std::shared_ptr<Exchange> Account::onSent(Family family, uint64_t cause, const std::string& body) {
    const std::lock_guard<std::mutex> lock(mMutex);
    Operation* const operation = find(family, cause);
    if (!operation || operation->outcome != Operation::kSends) {
        violation(Ledger::kDoubled, "no operation explains the request " + body, family);
        return nullptr;
    }
    const auto exchange = std::make_shared<Exchange>(Exchange{this, operation->kind, cause, operation->requests++});
    if (exchange->attempt == 0 && operation->kind == kAddRelay) {
        operation->trace = body;
    }
    if (exchange->attempt == 0 && operation->information.empty()) {
        operation->information = body;
    }
    mRounds[family].open.push_back(exchange);
    return exchange;
}

void Account::onCompleted(Exchange& exchange, int retCode, std::string response) {
    const std::lock_guard<std::mutex> lock(mMutex);
    exchange.retCode = retCode;
    exchange.response = std::move(response);
    exchange.isCompleted = true;
    Operation* const operation = find(familyOf(exchange.kind), exchange.cause);
    if (operation && !exchange.isAbandoned) {
        exchange.isStale = operation->state == Operation::kSuperseded;
        const int attemptsLeft = exchange.kind == kRemoveRelay ? 0 : kMaxRetries - exchange.attempt;
        operation->trace += traceSegment(attemptsLeft, retCode, exchange.response);
    }
}

// Checks how the adapter has handled a response (dropped, retried or finished it). Returns the error, or null.
const char* Account::errorOf(const Operation& operation, const Exchange& exchange, int retries, int reports) const {
    const bool isDroppedIfStale = exchange.attempt == 0 || rulesOf(exchange.kind).dropsStaleRetry;
    const bool isCurrent = operation.state == Operation::kCurrent && !mIsDropped;
    const Evaluation evaluation = evaluate(exchange.kind, exchange.retCode, exchange.response);
    if (retries + reports > 1) {
        return "a response was handled twice";
    }
    if (reports == 0 && !exchange.notified.empty()) {
        return "the listener was called for a response that is not final";
    }
    if (retries + reports == 0) {
        const bool mayBeDropped = mIsDropped || (isDroppedIfStale && !isCurrent);
        return mayBeDropped ? nullptr : "a response was dropped that is not stale";
    }
    if (isDroppedIfStale && exchange.isStale) {
        return "a stale response was not dropped";
    }
    if (retries > 0) {
        // A stale request may use a retry of a newer request of its kind: both share the counter.
        const bool mayBeRetried = evaluation.isRetryable && (exchange.attempt < kMaxRetries || !isCurrent);
        return mayBeRetried ? nullptr : "a final response was retried";
    }
    if (evaluation.isRetryable && exchange.attempt < kMaxRetries && isAlone(operation)) {
        return "a retry was skipped";
    }
    return exchange.notified == evaluation.notifications ? nullptr : "the listener calls do not match the response";
}

void Account::onDelivered(const Exchange& exchange, int retries, int reports) {
    const std::lock_guard<std::mutex> lock(mMutex);
    const Family family = familyOf(exchange.kind);
    Operation* const operation = find(family, exchange.cause);
    if (exchange.isAbandoned || !operation) {
        return;
    }
    std::vector<std::shared_ptr<Exchange>>& open = mRounds[family].open;
    ++operation->responses;
    operation->retries += retries;
    operation->finished += reports;
    mLedger.retries += retries;
    mLedger.exhausted += reports > 0 && exchange.attempt == kMaxRetries &&
                         evaluate(exchange.kind, exchange.retCode, exchange.response).isRetryable;
    if (const char* const error = errorOf(*operation, exchange, retries, reports)) {
        violation(Ledger::kWrong, error, family);
    }
    open.erase(std::find_if(open.begin(), open.end(), [&](const auto& each) { return each.get() == &exchange; }));
    completeIfDone(family);
}

void Account::onNotified(Exchange* exchange, uint64_t cause, Notification call) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (exchange && !exchange->isAbandoned) {
        exchange->notified.push_back(std::move(call));
        return;
    }
    for (const Family family : {kRelay, kMix}) {
        Operation* const operation = find(family, cause);
        if (operation && !exchange && operation->outcome == Operation::kRefused) {
            const Kind shown = isStart(operation->kind) ? kAddRelay : kCancelMix;
            ++operation->notified;
            if (call.operation != rulesOf(shown).name || call.code != rulesOf(operation->kind).unreadableCode) {
                violation(Ledger::kWrong, "a refusal as " + call.operation + ' ' + std::to_string(call.code), family);
            }
            completeIfDone(family);
            return;
        }
    }
    violation(Ledger::kDoubled,
              "no operation explains the listener call " + call.operation + ' ' + std::to_string(call.code), kRelay);
}

void Account::onReported(uint64_t cause, const vexalive::EventReport& report) {
    const std::lock_guard<std::mutex> lock(mMutex);
    const Family family = report.event == rulesOf(kAddRelay).event ? kRelay : kMix;
    Operation* const operation = find(family, cause);
    if (!operation) {
        violation(Ledger::kDoubled, "no operation explains the report " + report.detail, family);
        return;
    }
    ++operation->reported;
    const std::string expected =
        upToZero(operation->outcome == Operation::kWaitsForRoom ? kNotInRoom : operation->trace);
    const bool isTraceRight = operation->outcome == Operation::kRefused || operation->kind == kStartMix
                                  ? endsWith(report.detail, expected)
                                  : report.detail == expected;
    const bool isInformationRight =
        report.information == std::string("sdkver:") + kstf_get_sdk_version() + " " + operation->information;
    if (report.event != rulesOf(operation->kind).event || report.eventType != 10004 || report.sdkAppId != 1400 ||
        !endsWith(report.roomUser, "_user" + std::to_string(mNumber)) ||
        (isAlone(*operation) && !(isTraceRight && isInformationRight))) {
        violation(Ledger::kWrong, "the report " + report.information + " | " + report.detail, family);
    }
    completeIfDone(family);
}

// ---- The end of a round ---------------------------------------------------------------------------------------------

void Account::completeIfDone(Family family) {
    Round& round = mRounds[family];
    if (mIsDropped) {
        return;
    }
    if (std::any_of(round.operations.begin(), round.operations.end(), isExceeded)) {
        violation(Ledger::kDoubled, "more requests, reports or listener calls than the responses explain", family);
    }
    if (!round.isScriptDone || !std::all_of(round.operations.begin(), round.operations.end(), isComplete)) {
        return;
    }
    mLedger.operations += static_cast<int64_t>(round.operations.size());
    round = Round();
    mLedger.onRoundCompleted(mNumber, family);
}

// ---- All accounts ---------------------------------------------------------------------------------------------------

Ledger::Ledger(size_t accounts, std::function<void(size_t account, Family family)> onCompleted)
    : onRoundCompleted(std::move(onCompleted)) {
    for (size_t number = 0; number < accounts; ++number) {
        mAccounts.push_back(std::make_unique<Account>(*this, number));
    }
}

void Ledger::reportViolation(int rule, const std::string& what) {
    constexpr int kMaxPrinted = 20;  // of each rule
    static constexpr const char* kNames[] = {"lost", "doubled", "wrong"};
    if (++violations[static_cast<size_t>(rule)] <= kMaxPrinted) {
        std::fprintf(stderr, "%s: %s\n", kNames[rule], what.c_str());
    }
}

size_t Ledger::inFlight() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mInFlight.size();
}

Account* Ledger::accountOf(uint64_t cause) {
    const uint64_t number = cause >> kAccountShift;
    if (number == 0) {
        reportViolation(kWrong, "a request, report or listener call without a cause");
        return nullptr;
    }
    return mAccounts[number - 1].get();
}

void Ledger::installHooks() {
    vexalive::setHttpObserver([this](const HttpExchange& exchange) { observe(exchange); });
    vexalive::setEventSink([this](const vexalive::EventReport& report) {
        if (Account* const account = accountOf(Cause::current().id)) {
            account->onReported(Cause::current().id, report);
        }
    });
    vexalive::setLogSink([](auto&&...) {});
}

void Ledger::onNotified(Notification call) {
    if (tDelivered) {
        tDelivered->account->onNotified(tDelivered.get(), tDelivered->cause, std::move(call));
    } else if (Account* const account = accountOf(Cause::current().id)) {
        account->onNotified(nullptr, Cause::current().id, std::move(call));
    }
}

void Ledger::observe(const HttpExchange& exchange) {
    Cause& cause = Cause::current();
    if (exchange.phase == HttpExchange::kStarted) {
        ++requests;
        const Family family = exchange.interfaceName == rulesOf(kStartMix).interfaceName ? kMix : kRelay;
        Account* const account = accountOf(cause.id);
        const auto sent = account ? account->onSent(family, cause.id, std::string(exchange.body)) : nullptr;
        if (sent && exchange.interfaceName != rulesOf(sent->kind).interfaceName) {
            reportViolation(kWrong, "a request to another interface: " + std::string(exchange.interfaceName));
        }
        const std::lock_guard<std::mutex> lock(mMutex);
        mInFlight[exchange.id] = sent;
        return;
    }
    const bool isCompleted = exchange.phase == HttpExchange::kCompleted;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        const auto found = mInFlight.find(exchange.id);
        if (found == mInFlight.end() || (found->second && found->second->isCompleted == isCompleted)) {
            reportViolation(kDoubled, "an exchange ended twice, or was never sent");
            return;
        }
        tDelivered = found->second;
        if (!isCompleted) {
            mInFlight.erase(found);
        }
    }
    if (tDelivered && isCompleted) {
        tDelivered->account->onCompleted(*tDelivered, exchange.retCode, std::string(exchange.response));
        cause = {tDelivered->cause, 0, 0};
    } else if (const auto ended = std::exchange(tDelivered, nullptr)) {
        ended->account->onDelivered(*ended, cause.delayedPosts, cause.posts);
        cause = {};
    }
}
