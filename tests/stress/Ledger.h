// The bookkeeping of a soak: what each adapter was called with, sent, received, notified and reported, compared with
// the rules of the adapter (support/Oracle.h). An operation must explain every event, and every operation must
// complete.
//
// The ledger observes the listener, the event sink, the HTTP observer and the task loop. The loop carries a cause from
// each call of the adapter to the tasks that it posts (base/KstMessageLoop.h of tests/quick), so each request is known
// by the call that led to it; a listener call belongs to the exchange that its thread delivers.
//
// A round is what one family (relay or mix) of one adapter does between two moments at which it is idle. The last
// operation of a round is never superseded, so it must complete; docs/architecture.md lists what the earlier ones may
// still do. At the end of a round all of its events must be explained.

#ifndef VEXALIVE_STRESS_LEDGER_H
#define VEXALIVE_STRESS_LEDGER_H

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Com/ILiveTrancodingDelegate.h"
#include "platform/Platform.h"
#include "support/Oracle.h"

using oracle::Family;
using oracle::Kind;
using oracle::kMix;
using oracle::kRelay;
using oracle::Notification;

// What one call of the application must lead to.
struct Operation {
    enum Outcome {
        kSends,         // a request, its retries, and the notifications for the final response
        kWaitsForRoom,  // one report and no notification; room entry repeats it
        kRefused,       // the notification `refusal` and, if isReported, one report of its message
    };
    Kind kind;
    int number;  // of the adapter's operations; part of a start's body and report
    Outcome outcome = kSends;
    std::string information{};  // of a start's report
    Notification refusal{};
    bool isReported = true;
    bool refusedEvenIfStale = true;

    // Filled in by the ledger.
    int generation = 0;
    uint64_t cause = 0;             // of the call
    uint64_t supersedingBegan = 0;  // when the call that superseded it began and returned; 0: it did not
    uint64_t supersedingEnded = 0;
    int notified = 0;  // refusals only
    int reported = 0;
};

// One request on the wire.
struct Exchange {
    uint64_t id;
    Kind kind;
    uint64_t cause;
    int attempt;  // 0: the first send
    std::string body;
    int retCode = 0;
    std::string response{};
    bool isCompleted = false;
    bool isDelivered = false;
    bool isReported = false;
    bool isRetried = false;    // the adapter has posted a retry
    bool isAbandoned = false;  // its adapter was dropped
    bool isLate = false;       // completed after that
    uint64_t completedAt = 0;
    std::vector<Notification> notified{};
};

class Ledger;

// The ledger of one adapter. Any thread may call any member.
class Account {
public:
    Account(Ledger& ledger, std::string userId);

    const std::string& userId() const { return mUserId; }

    // ---- For the driver ----

    // Around each call of the adapter: one of these before, endCall() after, on the same thread.
    void beginOperation(Operation operation);
    void beginReset();
    void beginRoomEntry();  // repeats the starts that wait for it
    void endCall();

    // The driver makes no further call in the round: it may complete.
    void closeScript(Family family);
    // Around the destruction of the adapter: active operations may end early.
    void beginDrop();
    void endDrop();
    // The round did not complete in time: its operations count as lost.
    void abandonRound(Family family);

    // ---- For the hooks ----

    std::shared_ptr<Exchange> sent(uint64_t id, Kind kind, uint64_t cause, std::string body);
    void completed(Exchange& exchange, int retCode, std::string response);
    // `retries` and `reports`: the tasks that the adapter posted while it handled the response.
    void delivered(const std::shared_ptr<Exchange>& exchange, int retries, int reports);
    void notified(Exchange* exchange, Notification call);  // null: called on the worker
    void reported(const vexalive::EventReport& report);

private:
    struct Round {
        int generation = 0;
        bool isScriptDone = false;
        std::vector<Operation> operations;
        std::vector<std::shared_ptr<Exchange>> exchanges;
    };

    Round& roundOf(Kind kind) { return mRounds[oracle::familyOf(kind)]; }
    void beginCall();
    void open(Round& round, Operation operation);
    void supersede(Round& round);
    Operation* find(Round& round, uint64_t cause);
    void checkDelivered(Round& round, Exchange& exchange, int retries, int reports);
    Exchange* next(Round& round, const Exchange& exchange);
    static bool hasOneOperation(const Round& round);
    bool isComplete(Round& round);
    void completeIfDone(Family family);
    bool matchReport(Round& round, const vexalive::EventReport& report);
    bool explains(Round& round, const Exchange& last, const std::string& trace);
    std::string describe(const Round& round) const;
    void violation(const char* rule, const std::string& what, const Round& round);

    Ledger& mLedger;
    const std::string mUserId;
    std::mutex mMutex;
    uint64_t mNow = 0;  // number of events of this account
    bool mIsDropped = false;
    std::array<Round, 2> mRounds;
};

// All accounts, their sums, and the hooks.
class Ledger {
public:
    // Called when a round has completed; on any thread, with the account locked.
    std::function<void(Account& account, Family family)> onRoundCompleted;

    std::shared_ptr<Account> openAccount(const std::string& userId);  // in room "r1"
    void installHooks();

    void reportViolation(const char* rule, const std::string& what);
    int violations() const { return mViolations; }

    // Sums since the start.
    std::atomic<int64_t> operations{0};  // completed according to the rules
    std::atomic<int64_t> succeeded{0};
    std::atomic<int64_t> refused{0};
    std::atomic<int64_t> deferred{0};
    std::atomic<int64_t> superseded{0};
    std::atomic<int64_t> abandoned{0};  // dropped with their adapter; not in `operations`
    std::atomic<int64_t> started{0};
    std::atomic<int64_t> delivered{0};
    std::atomic<int64_t> retries{0};
    std::atomic<int64_t> exhausted{0};  // requests that failed eleven times
    std::atomic<int64_t> lost{0};
    std::atomic<int64_t> doubled{0};
    std::atomic<int64_t> wrong{0};

    size_t inFlight();  // requests that are not delivered yet

private:
    void observe(const vexalive::HttpExchange& exchange);

    struct Delivery {
        std::shared_ptr<Account> account;
        std::shared_ptr<Exchange> exchange;
    };
    std::mutex mMutex;
    std::map<std::string, std::shared_ptr<Account>> mByStream;
    std::map<std::string, std::shared_ptr<Account>> mByUser;
    std::map<uint64_t, Delivery> mInFlight;
    std::atomic<int> mViolations{0};

    static thread_local Delivery tCurrentDelivery;

    friend class LedgerListener;
};

// The listener of one adapter.
class LedgerListener : public ILiveTrancodingDelegate {
public:
    LedgerListener(Ledger& ledger, std::shared_ptr<Account> account) : mLedger(ledger), mAccount(std::move(account)) {}

    void onStartPublishStreamUrl(int code, std::string message) override { notified({"startRelay", code, message}); }
    void onStopPublishStreamUrl(int code, std::string message) override { notified({"stopRelay", code, message}); }
    void onSetLiveMixTranscoding(int code, std::string message) override { notified({"setMix", code, message}); }
    void onStopLiveMixTranscoding(int code, std::string message) override { notified({"stopMix", code, message}); }

    // The adapter no longer exists: no further call may begin.
    void close() { mIsClosed = true; }

private:
    void notified(Notification call);

    Ledger& mLedger;
    const std::shared_ptr<Account> mAccount;
    std::atomic<bool> mIsClosed{false};
};

#endif
