// The bookkeeping of a soak: compares what each adapter sends, retries, notifies and reports with the rules of the
// adapter (support/Oracle.h).
//
// The task loop carries a cause from each call of the adapter to the tasks that it posts, and to the tasks that these
// post (base/KstMessageLoop.h of tests/quick). So the cause of a request, a report or a listener call is the operation
// that led to it. For each operation the ledger counts these events; for each response it requires that the adapter
// drops, retries or finishes the request as the oracle says.
//
// A round is what one family (relay or mix) of one adapter does between two moments at which it is idle. Operations
// that a later one of the round supersedes may end early; docs/architecture.md says where.

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

// One call of the application and its events.
struct Operation {
    enum Outcome {
        kSends,         // a request and its retries; the final response leads to listener calls and a report
        kWaitsForRoom,  // a report; the room entry repeats the operation
        kRefused,       // a listener call and, for a start, a report
    };
    Kind kind;
    Outcome outcome;
    std::string information;  // of a start's report

    // Filled in by the ledger.
    uint64_t cause = 0;
    enum { kCurrent, kBeingSuperseded, kSuperseded } state = kCurrent;
    int requests = 0;
    int responses = 0;
    int retries = 0;   // that the adapter posted
    int finished = 0;  // responses that it reported
    int notified = 0;  // refusals
    int reported = 0;
    std::string trace{};  // what the report has to show of the requests and responses
};

class Account;

// One request.
struct Exchange {
    Account* account;
    Kind kind;
    uint64_t cause;
    int attempt;  // 0: the first send
    int retCode = 0;
    std::string response{};
    std::vector<Notification> notified{};
    bool isCompleted = false;
    bool isStale = false;      // its operation was superseded before it completed
    bool isAbandoned = false;  // its adapter was destroyed
};

class Ledger;

// The ledger of one adapter. Any thread may call any member.
class Account {
public:
    Account(Ledger& ledger, size_t number) : mLedger(ledger), mNumber(number) {}

    // ---- For the driver. Each call of the adapter is between one of these and endCall(), on one thread.

    void beginOperation(Operation operation);
    void beginReset();
    void beginRoomEntry();  // repeats the starts that wait for it
    void endCall();

    void closeScript(Family family);  // no further call in this round
    void beginDrop();                 // around the destruction of the adapter: operations may end early
    void endDrop();
    void abandonRound(Family family);  // it did not complete in time

    // ---- For the hooks

    std::shared_ptr<Exchange> sent(Family family, uint64_t cause, const std::string& body);
    void completed(Exchange& exchange, int retCode, std::string response);
    // `retries` and `reports`: the tasks that the adapter posted while it handled the response.
    void delivered(const Exchange& exchange, int retries, int reports);
    void notified(Exchange* exchange, uint64_t cause, Notification call);  // null: on the worker
    void reported(uint64_t cause, const vexalive::EventReport& report);

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
    const size_t mNumber;
    std::mutex mMutex;
    bool mIsDropped = false;
    std::array<Round, 2> mRounds;
};

// All accounts, their sums, and the hooks.
class Ledger {
public:
    // `onRoundCompleted` is called on any thread, with the account locked.
    Ledger(size_t accounts, std::function<void(size_t account, Family family)> onRoundCompleted);

    Account& account(size_t number) { return *mAccounts[number]; }
    void installHooks();
    void notified(Notification call);  // by the listeners
    size_t inFlight();                 // requests that are not delivered yet

    enum Rule { kLost, kDoubled, kWrong };
    void reportViolation(int rule, const std::string& what);

    std::array<std::atomic<int>, 3> violations{};  // by rule
    std::atomic<int64_t> operations{0};            // completed according to the rules
    std::atomic<int64_t> abandoned{0};             // destroyed with their adapter; not in `operations`
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
