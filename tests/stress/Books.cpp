#include "Books.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "base/Md5.h"
#include "base/Version.h"

using vexalive::HttpExchange;

namespace {

constexpr int kSdkAppId = 1400;
constexpr size_t kLastAttempt = 10;
constexpr const char* kNotInRoom = "not enterRoom status";
constexpr const char* kSegment = " [tryHttp:cnt-";
constexpr const char* kKindNames[] = {"startRelay", "stopRelay", "setMix", "stopMix"};

// ---- What an answer asks for, told independently of the adapter -----------------------------------------------------

struct Judgement {
    bool isWorthAnotherTry;
    std::vector<Told> calls;  // at the end of all tries
};

Judgement judge(Kind kind, int retCode, const std::string& answer) {
    const bool isRelay = familyOf(kind) == kRelay;
    const nlohmann::json parsed = nlohmann::json::parse(answer, nullptr, false);
    const bool isReadable = parsed.is_object();
    const bool hasCode = isReadable && parsed.contains("code");
    const bool hasErrorCode = !hasCode && isReadable && parsed.contains("ErrorCode");
    const int code = hasCode ? parsed["code"].get<int>() : hasErrorCode ? parsed["ErrorCode"].get<int>() : 0;

    Judgement result{retCode == 1 || !isReadable, {}};
    if (!result.isWorthAnotherTry && (hasCode || hasErrorCode)) {
        static const std::map<Kind, std::set<int>> retried = {{kAddRelay, {1}}, {kStartMix, {3, 505, 10017}}};
        const auto codes = retried.find(kind);
        result.isWorthAnotherTry = codes != retried.end() && codes->second.count(std::abs(code)) != 0;
    }

    const auto tell = [&](int errCode, const std::string& message) {
        result.calls.push_back({kKindNames[kind], errCode, message});
    };
    if (retCode != 0) {
        tell(isRelay ? -3321 : -3322, "http post return error， retcode:" + std::to_string(retCode));
    } else if (!isReadable) {
        if (answer.empty()) {
            tell(isRelay ? -3323 : -3324, "recv message nil");
        }
        tell(isRelay ? -3323 : -3324, "recv message can't parse");
    } else if (code != 0) {
        const int64_t told = (isRelay ? -200000 : -300000) - std::abs(int64_t{code});
        tell(static_cast<int>(std::max<int64_t>(told, std::numeric_limits<int>::min())),
             parsed.value(hasCode ? "message" : "ErrorInfo", ""));
    } else if (hasCode || hasErrorCode) {
        tell(0, hasCode ? "sucess" : "");
    }
    return result;
}

// Takes `expected` off the front of `text`. A zero byte ends both: reports are C strings.
bool takeOff(std::string_view& text, const std::string& expected, bool& isCut) {
    const size_t length = std::min(expected.find('\0'), expected.size());
    isCut = length != expected.size();
    if (text.substr(0, length) != std::string_view(expected).substr(0, length)) {
        return false;
    }
    text.remove_prefix(length);
    return true;
}

bool takeOff(std::string_view& text, const std::string& expected) {
    bool isCut = false;
    return takeOff(text, expected, isCut) && !isCut;
}

int takeNumber(std::string_view& text) {
    size_t length = 0;
    int number = 0;
    for (; length < text.size() && length < 9 && text[length] >= '0' && text[length] <= '9'; ++length) {
        number = number * 10 + (text[length] - '0');
    }
    text.remove_prefix(length);
    return length == 0 ? -1 : number;
}

}  // namespace

// ---- The driver's side ----------------------------------------------------------------------------------------------

Account::Account(Books& books, std::string userId) : mBooks(books), mUserId(std::move(userId)) {}

void Account::supersede(Ledger& ledger) {
    if (!ledger.operations.empty() && ledger.operations.back().supersedingBegan == 0) {
        ledger.operations.back().supersedingBegan = ++mNow;
    }
    ++ledger.generation;
}

void Account::open(Ledger& ledger, Operation operation) {
    supersede(ledger);
    operation.generation = ledger.generation;
    ledger.operations.push_back(std::move(operation));
}

void Account::beginOperation(Operation operation) {
    const std::lock_guard<std::mutex> lock(mMutex);
    open(ledgerOf(operation.kind), std::move(operation));
}

void Account::beginReset() {
    const std::lock_guard<std::mutex> lock(mMutex);
    for (Ledger& ledger : mLedgers) {
        supersede(ledger);
    }
}

void Account::beginRoomEntry() {
    const std::lock_guard<std::mutex> lock(mMutex);
    for (Ledger& ledger : mLedgers) {
        if (!ledger.operations.empty() && ledger.operations.back().outcome == Operation::kWaitsForRoom) {
            Operation again = ledger.operations.back();
            again.outcome = Operation::kSends;
            again.supersedingBegan = again.supersedingEnded = 0;
            again.reported = 0;
            open(ledger, std::move(again));
        }
    }
}

void Account::endCall() {
    const std::lock_guard<std::mutex> lock(mMutex);
    for (Ledger& ledger : mLedgers) {
        for (Operation& operation : ledger.operations) {
            if (operation.supersedingBegan != 0 && operation.supersedingEnded == 0) {
                operation.supersedingEnded = ++mNow;
            }
        }
    }
}

void Account::closeScript(Family family) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mLedgers[family].scriptIsThrough = true;
    settleIfDone(family);
}

void Account::beginDrop() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsDropped = true;
}

void Account::endDrop() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsDropped = false;
    for (Ledger& ledger : mLedgers) {
        mBooks.abandoned += static_cast<int64_t>(ledger.operations.size());
        for (const auto& exchange : ledger.exchanges) {
            exchange->isAbandoned = true;
        }
        ledger = Ledger();
    }
}

void Account::giveUp(Family family) {
    const std::lock_guard<std::mutex> lock(mMutex);
    Ledger& ledger = mLedgers[family];
    mBooks.lost += static_cast<int64_t>(ledger.operations.size());
    mBooks.breach("lost", mUserId + ": a round did not come to its end" + describe(ledger));
}

// ---- Looking up -----------------------------------------------------------------------------------------------------

Operation* Account::find(Ledger& ledger, int generation) {
    const auto found = std::find_if(ledger.operations.begin(), ledger.operations.end(),
                                    [&](const Operation& each) { return each.generation == generation; });
    return found == ledger.operations.end() ? nullptr : &*found;
}

// Nobody else has touched the counters.
bool Account::isUndisturbed(const Ledger& ledger) {
    return ledger.operations.size() == 1 && ledger.operations[0].supersedingBegan == 0;
}

Exchange* Account::next(Ledger& ledger, const Exchange& exchange) {
    const auto found =
        std::find_if(ledger.exchanges.begin(), ledger.exchanges.end(), [&](const std::shared_ptr<Exchange>& each) {
            return each->generation == exchange.generation && each->attempt == exchange.attempt + 1;
        });
    return found == ledger.exchanges.end() ? nullptr : found->get();
}

std::string Account::describe(const Ledger& ledger) const {
    std::string text;
    for (const Operation& each : ledger.operations) {
        text += std::string("\n      ") + kKindNames[each.kind] + " number " + std::to_string(each.number) +
                " generation " + std::to_string(each.generation) + " outcome " + std::to_string(each.outcome) +
                " superseded " + std::to_string(each.supersedingBegan) + ".." + std::to_string(each.supersedingEnded) +
                " told " + std::to_string(each.told) + " reported " + std::to_string(each.reported);
    }
    for (const auto& each : ledger.exchanges) {
        text += std::string("\n      sent ") + kKindNames[each->kind] + " generation " +
                std::to_string(each->generation) + " attempt " + std::to_string(each->attempt) + " retCode " +
                std::to_string(each->retCode) + (each->isAnswered ? " answered" : "") +
                (each->isJudged ? " judged" : "") + (each->isDelivered ? " delivered" : "") +
                (each->isRetried ? " retried" : "") + " told " + std::to_string(each->told.size()) +
                (each->isReported ? " reported" : "") + " \"" + each->answer.substr(0, 60) + "\"";
    }
    return text;
}

// ---- The hooks' side ------------------------------------------------------------------------------------------------

std::shared_ptr<Exchange> Account::sent(uint64_t id, Kind kind, int generation, std::string body) {
    const std::lock_guard<std::mutex> lock(mMutex);
    Ledger& ledger = ledgerOf(kind);
    auto exchange = std::make_shared<Exchange>(Exchange{id, kind, generation, 0, std::move(body)});
    const Exchange* previous = nullptr;
    for (const auto& each : ledger.exchanges) {
        if (each->generation == generation) {
            previous = each.get();
            ++exchange->attempt;
        }
    }
    ++mNow;
    const Operation* operation = find(ledger, generation);
    if (!operation || operation->kind != kind || operation->outcome != Operation::kSends ||
        exchange->attempt > kLastAttempt || (previous && (!previous->isAnswered || !previous->told.empty()))) {
        ++mBooks.doubled;
        mBooks.breach("doubled", mUserId + ": a request that no operation explains, generation " +
                                     std::to_string(generation) + ": " + exchange->body + describe(ledger));
        ledger.exchanges.push_back(exchange);
        return exchange;
    }
    if (previous && kind != kAddRelay && operation->supersedingEnded != 0 &&
        operation->supersedingEnded < previous->answeredAt) {
        ++mBooks.wrong;
        mBooks.breach("wrong", mUserId + ": a stale retry was sent" + describe(ledger));
    }
    const std::string number = std::to_string(operation->number);
    if (!previous && ((kind == kAddRelay && exchange->body.find("/" + number + "\"") == std::string::npos) ||
                      (kind == kStartMix &&
                       exchange->body.find("\"output_stream_bitrate\":" + number + ",") == std::string::npos))) {
        ++mBooks.wrong;
        mBooks.breach("wrong", mUserId + ": the body is not that of operation " + number + ": " + exchange->body);
    }
    ledger.exchanges.push_back(exchange);
    return exchange;
}

void Account::answered(Exchange& exchange, int retCode, std::string answer) {
    const std::lock_guard<std::mutex> lock(mMutex);
    exchange.retCode = retCode;
    exchange.answer = std::move(answer);
    exchange.isAnswered = true;
    exchange.answeredAt = ++mNow;
}

void Account::judged(Exchange& exchange, int generation) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (exchange.isJudged || exchange.isAbandoned || exchange.generation != generation) {
        ++mBooks.doubled;
        mBooks.breach("doubled", mUserId + ": an answer was judged twice, for another request, or for nobody");
    }
    exchange.isJudged = true;
}

void Account::delivered(const std::shared_ptr<Exchange>& exchange) {
    const std::lock_guard<std::mutex> lock(mMutex);
    exchange->isDelivered = true;
    ++mNow;
    Ledger& ledger = ledgerOf(exchange->kind);
    if (!exchange->isAbandoned) {
        checkDelivered(ledger, *exchange);
        settleIfDone(familyOf(exchange->kind));
    }
}

// One answer against the rules: dropped, worth another try, or the end.
void Account::checkDelivered(Ledger& ledger, Exchange& exchange) {
    const Operation* operation = find(ledger, exchange.generation);
    if (!operation) {
        return;  // the breach is known since it was sent
    }
    const auto wrong = [&](const char* what) {
        ++mBooks.wrong;
        mBooks.breach("wrong", mUserId + ": " + what + ", attempt " + std::to_string(exchange.attempt) +
                                   " of generation " + std::to_string(exchange.generation) + describe(ledger));
    };
    const bool isDroppedIfStale = exchange.attempt == 0 || exchange.kind == kAddRelay;
    const bool isFresh = operation->supersedingBegan == 0;
    const bool isStale = operation->supersedingEnded != 0 && operation->supersedingEnded < exchange.answeredAt;
    if (!exchange.isJudged) {
        if (!exchange.told.empty()) {
            wrong("a dropped answer was told");
        } else if (!mIsDropped && (isFresh || !isDroppedIfStale)) {
            wrong("an answer that counts was dropped");
        }
        return;
    }
    if (isDroppedIfStale && isStale) {
        wrong("a stale answer was judged");
    }
    const Judgement judgement = judge(exchange.kind, exchange.retCode, exchange.answer);
    const bool isClean = isUndisturbed(ledger);
    if (exchange.told.empty()) {
        // Stale, it may have taken a try of the newer request of its kind.
        exchange.isRetried = judgement.isWorthAnotherTry && (exchange.attempt < kLastAttempt || !isFresh);
        if (exchange.isRetried) {
            ++mBooks.retries;
        } else if (!mIsDropped) {
            wrong("the last answer was not told");
        }
        return;
    }
    if (judgement.isWorthAnotherTry && exchange.attempt < kLastAttempt && isClean) {
        wrong("given up early");
    }
    if (judgement.isWorthAnotherTry && exchange.attempt == kLastAttempt) {
        ++mBooks.exhausted;
    }
    if (!(exchange.told == judgement.calls)) {
        wrong("the listener calls are not those that the answer asks for");
    }
    if (next(ledger, exchange)) {
        wrong("a request that has ended was sent again");
    }
}

void Account::told(Exchange* exchange, Told call) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (exchange && !exchange->isAbandoned) {
        exchange->told.push_back(std::move(call));
        return;
    }
    for (Ledger& ledger : mLedgers) {
        for (Operation& operation : ledger.operations) {
            if (operation.outcome == Operation::kRefused && operation.told == 0 && operation.refusal == call) {
                operation.told = 1;
                settleIfDone(familyOf(operation.kind));
                return;
            }
        }
    }
    ++mBooks.doubled;
    mBooks.breach("doubled", mUserId + ": a listener call that nothing explains: " + call.operation + " " +
                                 std::to_string(call.code) + " " + call.message);
}

void Account::reported(const vexalive::EventReport& report) {
    const std::lock_guard<std::mutex> lock(mMutex);
    const Family family = report.event == 30 ? kRelay : kMix;
    Ledger& ledger = mLedgers[family];
    if (report.sdkAppId != kSdkAppId || report.eventType != 10004 || (report.event != 30 && report.event != 31)) {
        ++mBooks.wrong;
        mBooks.breach("wrong", mUserId + ": a report with other numbers");
    }
    if (takeReport(ledger, report)) {
        settleIfDone(family);
        return;
    }
    ++mBooks.doubled;
    mBooks.breach("doubled", mUserId + ": a report that nothing explains: " + report.information + " | " +
                                 report.detail + describe(ledger));
}

// Finds what the report ends. Its information is the kind's text at that moment: the operation's own, or that of a
// later one.
bool Account::takeReport(Ledger& ledger, const vexalive::EventReport& report) {
    const auto isInformationFrom = [&](const Operation& first) {
        const std::string version = std::string("sdkver:") + kstf_get_sdk_version() + " ";
        for (const Operation* each = &first; each <= &ledger.operations.back(); ++each) {
            std::string information = each->information;
            for (const auto& exchange : ledger.exchanges) {
                if (exchange->generation == each->generation && exchange->attempt == 0 && information.empty()) {
                    information = exchange->body;
                }
            }
            if (each->kind == first.kind && report.information == version + information) {
                return true;
            }
        }
        return false;
    };

    for (Operation& operation : ledger.operations) {
        const bool isRefusal = operation.outcome == Operation::kRefused && operation.isReported &&
                               operation.told == 1 && report.detail == operation.refusal.message;
        const bool isDeferral = operation.outcome == Operation::kWaitsForRoom && report.detail == kNotInRoom;
        if (operation.reported == 0 && (isRefusal || isDeferral) && isInformationFrom(operation)) {
            operation.reported = 1;
            return true;
        }
    }
    for (const auto& exchange : ledger.exchanges) {
        const Operation* operation = find(ledger, exchange->generation);
        if (operation && !exchange->told.empty() && !exchange->isReported && isInformationFrom(*operation) &&
            explains(ledger, *exchange, report.detail)) {
            exchange->isReported = true;
            return true;
        }
    }
    return false;
}

// Whether the trace is that of the tries up to `last`: its opening, then each answer with the tries that were left.
bool Account::explains(Ledger& ledger, const Exchange& last, const std::string& trace) {
    const bool isClean = isUndisturbed(ledger);
    std::string_view rest(trace);
    if (last.kind == kStartMix) {
        // Told from the configuration of that moment, which a cancel that came meanwhile has emptied.
        const bool isEmptied = !isClean && trace.find("\"input_stream_list\":[]") != std::string::npos;
        if (!takeOff(rest, "task_id:" + std::to_string(last.generation) +
                               ", pureAudioOutputStream:" + (isEmptied ? "1" : "0") + ", stream: {")) {
            return false;
        }
        const size_t segment = rest.find(kSegment);
        rest.remove_prefix(std::min(segment, rest.size()));
    }
    for (const auto& exchange : ledger.exchanges) {
        if (exchange->generation != last.generation || exchange->attempt > last.attempt) {
            continue;
        }
        if (exchange->attempt == 0 && last.kind == kAddRelay && !takeOff(rest, exchange->body)) {
            return false;
        }
        if (!takeOff(rest, kSegment)) {
            return false;
        }
        const int triesLeft = takeNumber(rest);
        const int cleanTriesLeft = last.kind == kRemoveRelay ? 0 : 10 - static_cast<int>(exchange->attempt);
        if (isClean ? triesLeft != cleanTriesLeft : triesLeft < 0 || triesLeft > 10) {
            return false;
        }
        bool isCut = false;
        if (!takeOff(rest, "]retCode:" + std::to_string(exchange->retCode) + ", respData:" + exchange->answer, isCut)) {
            return false;
        }
        if (isCut) {
            break;
        }
    }
    return rest.empty();
}

// ---- The end of a round ---------------------------------------------------------------------------------------------

bool Account::isSettled(Ledger& ledger) {
    if (!ledger.scriptIsThrough || mIsDropped) {
        return false;
    }
    for (const auto& exchange : ledger.exchanges) {
        const Operation* operation = find(ledger, exchange->generation);
        const bool mayEndHere = exchange->kind != kAddRelay && operation && operation->supersedingBegan != 0;
        if (!exchange->isDelivered || (!exchange->told.empty() && !exchange->isReported) ||
            (exchange->isRetried && !mayEndHere && !next(ledger, *exchange))) {
            return false;
        }
    }
    for (const Operation& operation : ledger.operations) {
        const bool isLast = &operation == &ledger.operations.back();
        if (operation.outcome == Operation::kWaitsForRoom && operation.reported != 1) {
            return false;
        }
        if (operation.outcome == Operation::kRefused &&
            (operation.reported != (operation.isReported ? operation.told : 0) ||
             (operation.told == 0 && (isLast || operation.refusedEvenIfStale)))) {
            return false;
        }
        if (operation.outcome == Operation::kSends && isLast &&
            std::none_of(ledger.exchanges.begin(), ledger.exchanges.end(), [&](const std::shared_ptr<Exchange>& each) {
                return each->generation == operation.generation && each->isReported;
            })) {
            return false;
        }
    }
    return true;
}

void Account::settleIfDone(Family family) {
    Ledger& ledger = mLedgers[family];
    if (!isSettled(ledger)) {
        return;
    }
    for (const Operation& operation : ledger.operations) {
        ++mBooks.operations;
        mBooks.refused += operation.outcome == Operation::kRefused;
        mBooks.deferred += operation.outcome == Operation::kWaitsForRoom;
        mBooks.superseded += operation.outcome == Operation::kSends && &operation != &ledger.operations.back();
    }
    for (const auto& exchange : ledger.exchanges) {
        mBooks.succeeded += !exchange->told.empty() && exchange->told.back().code == 0;
    }
    ledger.operations = {};  // gives their memory back
    ledger.exchanges = {};
    ledger.scriptIsThrough = false;
    mBooks.onSettled(*this, family);
}

// ---- All accounts ---------------------------------------------------------------------------------------------------

thread_local Books::Delivery Books::tDelivery;
thread_local int Books::tGeneration = 0;

std::shared_ptr<Account> Books::openAccount(const std::string& userId) {
    const auto account = std::make_shared<Account>(*this, userId);
    const std::lock_guard<std::mutex> lock(mMutex);
    mByUser[userId] = account;
    mByStream["8888_" + kstmedia::getMD5("r1_" + userId + "_main")] = account;
    return account;
}

void Books::breach(const char* promise, const std::string& text) {
    constexpr int kShown = 20;
    if (++mBreaches <= kShown) {
        std::fprintf(stderr, "%s: %s\n", promise, text.c_str());
    }
}

size_t Books::inFlight() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mInFlight.size();
}

void Books::installHooks() {
    vexalive::setHttpObserver([this](const HttpExchange& exchange) { observe(exchange); });
    vexalive::setEventSink([this](const vexalive::EventReport& report) {
        std::shared_ptr<Account> account;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            for (const std::string room : {"r1_", "_"}) {  // before it was first entered, it has no name
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
            breach("wrong", "a report of nobody: " + report.roomUser);
        }
    });
    vexalive::setLogSink([](int, const char*, int, const char*, const std::string& message) {
        const size_t label = message.find("index: ");
        if (label > 40) {
            return;  // none of a send or an answer
        }
        const int generation = std::atoi(message.c_str() + label + 7);
        if (message.find(", ret: ") < 80) {
            tDelivery.account->judged(*tDelivery.exchange, generation);
        } else {
            tGeneration = generation;
        }
    });
}

void Books::observe(const HttpExchange& exchange) {
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
        Delivery delivery{account, account->sent(exchange.id, kind, tGeneration, body)};
        const std::lock_guard<std::mutex> lock(mMutex);
        mInFlight[exchange.id] = std::move(delivery);
        return;
    }
    if (exchange.phase == HttpExchange::kCompleted) {
        const std::lock_guard<std::mutex> lock(mMutex);
        const auto found = mInFlight.find(exchange.id);
        if (found == mInFlight.end() || found->second.exchange->isAnswered) {
            ++doubled;
            breach("doubled", "an exchange that was answered twice, or never sent");
        }
        tDelivery = found->second;
    } else {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mInFlight.erase(exchange.id) == 0) {
            ++doubled;
            breach("doubled", "an exchange that was delivered twice, or never sent");
        }
    }
    if (exchange.phase == HttpExchange::kCompleted) {
        tDelivery.account->answered(*tDelivery.exchange, exchange.retCode, std::string(exchange.response));
    } else {
        ++delivered;
        const Delivery ended = std::exchange(tDelivery, {});
        ended.account->delivered(ended.exchange);
    }
}

void BookedListener::told(Told call) {
    if (mIsClosed) {
        ++mBooks.doubled;
        mBooks.breach("doubled", mAccount->userId() + ": a listener call after the adapter's end: " + call.message);
        return;
    }
    mAccount->told(Books::tDelivery.exchange.get(), std::move(call));
}
