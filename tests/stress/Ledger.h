// The bookkeeping of a soak test: compares the requests, retries, listener calls and reports of each adapter with the
// rules in support/Oracle.h.
//
// Each call of the adapter has a cause. The task loop passes the cause on to the tasks that the call posts, and to the
// tasks that these tasks post (tests/quick/base/KstMessageLoop.h). So each request, report and listener call has the
// cause of the operation that led to it. The ledger counts these events for each operation. For each response, it
// requires that the adapter drops, retries or finishes the request as the oracle does.
//
// A round is the time between two moments at which one family (relay or mix) of an adapter is idle. An operation that a
// later operation of the round supersedes may end early; docs/architecture.md lists the points.

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
#include <vector>

#include "platform/Platform.h"
#include "support/Oracle.h"

using oracle::Family;
using oracle::Kind;
using oracle::kMix;
using oracle::kRelay;
using oracle::Notification;

// A call of the application, with the events that it led to.
struct Operation {
    enum Outcome {
        kSends,         // leads to a request and its retries; then to listener calls and a report
        kWaitsForRoom,  // leads to a report; the room entry repeats the operation
        kRefused,       // leads to a listener call and, for a start, a report
    };
    Kind kind;
    Outcome outcome;
    std::string information;  // for a start: the information of its report

    // The ledger sets the members below.
    uint64_t cause = 0;
    enum { kCurrent, kBeingSuperseded, kSuperseded } state = kCurrent;
    int requests = 0;
    int responses = 0;
    int retries = 0;   // retries that the adapter has posted
    int finished = 0;  // responses for which the adapter has posted a report
    int notified = 0;  // listener calls for refusals
    int reported = 0;
    std::string trace{};  // expected trace in the report
};

class Account;

// A request and its response.
struct Exchange {
    Account* account;
    Kind kind;
    uint64_t cause;
    int attempt;  // 0: the first send
    int retCode = 0;
    std::string response{};
    std::vector<Notification> notified{};
    bool isCompleted = false;
    bool isStale = false;      // the operation was superseded before the response arrived
    bool isAbandoned = false;  // the adapter was destroyed
};

class Ledger;

// The bookkeeping of one adapter. Any thread may call any member function.
class Account {
public:
    Account(Ledger& ledger, size_t number) : mLedger(ledger), mNumber(number) {}

    // ---- Called by the driver. Each call of the adapter is between a begin function and endCall(), on one thread.

    void beginOperation(Operation operation);
    void beginReset();
    void beginRoomEntry();  // the room entry repeats the deferred starts
    void endCall();

    void closeScript(Family family);   // the round has no further call
    void beginDrop();                  // before the destruction of the adapter: from now on, operations may end early
    void endDrop();                    // after the destruction
    void abandonRound(Family family);  // the round was not complete in time

    // ---- Called by the hooks of the platform and by the listeners

    // The exchange of this request; null if no operation explains it.
    std::shared_ptr<Exchange> onSent(Family family, uint64_t cause, const std::string& body);
    void onCompleted(Exchange& exchange, int retCode, std::string response);
    // `retries` and `reports`: numbers of the tasks that the adapter posted in the callback of the response.
    void onDelivered(const Exchange& exchange, int retries, int reports);
    void onNotified(Exchange* exchange, uint64_t cause, Notification call);  // null: a call on the worker
    void onReported(uint64_t cause, const vexalive::EventReport& report);

private:
    struct Round {
        bool isScriptDone = false;
        std::vector<Operation> operations;
        std::vector<std::shared_ptr<Exchange>> open;
    };

    void beginCall();
    void open(Round& round, Operation operation);
    static void supersede(Round& round);
    Operation* find(Family family, uint64_t cause);
    bool isAlone(const Operation& operation) const;
    const char* errorOf(const Operation& operation, const Exchange& exchange, int retries, int reports) const;
    void completeIfDone(Family family);
    void violation(int rule, const std::string& what, Family family);

    Ledger& mLedger;
    const size_t mNumber;  // the index of this account in the ledger
    std::mutex mMutex;
    bool mIsDropped = false;
    std::array<Round, 2> mRounds;
};

// All accounts with their sums. Installs the hooks of the platform.
class Ledger {
public:
    // `onRoundCompleted` is called on any thread, while the account is locked.
    Ledger(size_t accounts, std::function<void(size_t account, Family family)> onRoundCompleted);

    Account& account(size_t number) { return *mAccounts[number]; }
    void installHooks();
    void onNotified(Notification call);  // called by the listeners
    size_t inFlight();                   // number of requests whose response is not delivered yet

    enum Rule { kLost, kDoubled, kWrong };
    void reportViolation(int rule, const std::string& what);

    std::array<std::atomic<int>, 3> violations{};  // number of violations by Rule
    std::atomic<int64_t> operations{0};            // completed without a violation
    std::atomic<int64_t> abandoned{0};             // ended by the destruction of the adapter; not in `operations`
    std::atomic<int64_t> requests{0};
    std::atomic<int64_t> retries{0};
    std::atomic<int64_t> exhausted{0};  // requests that failed eleven times

    const std::function<void(size_t account, Family family)> onRoundCompleted;

private:
    Account* accountOf(uint64_t cause);
    void observe(const vexalive::HttpExchange& exchange);

    std::vector<std::unique_ptr<Account>> mAccounts;
    std::mutex mMutex;
    std::map<uint64_t, std::shared_ptr<Exchange>> mInFlight;
};

#endif
