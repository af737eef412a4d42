// What each adapter of a soak was asked, sent, was answered, told and reported, kept outside of it, and judged against
// the rules of the adapter: every event has to be explained by an operation, and every operation has to come to its
// end.
//
// The books learn from the host's hooks alone: the listener, the event sink, the HTTP observer and the log sink. A log
// line names the generation of the request that the same thread sends next, or of the answer that it judges; a listener
// call belongs to the exchange that its thread delivers.
//
// A round is what one family (relay or mix) of one adapter does between two moments at which nothing is under way. Its
// last operation is never superseded, so it must end; what the earlier ones may still do is the table of superseded
// work in docs/architecture.md. At a round's end all of it must be explained, and its ledger is closed.

#ifndef VEXALIVE_STRESS_BOOKS_H
#define VEXALIVE_STRESS_BOOKS_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Com/ILiveTrancodingDelegate.h"
#include "platform/Platform.h"

enum Family { kRelay, kMix };
enum Kind { kAddRelay, kRemoveRelay, kStartMix, kCancelMix };

constexpr Family familyOf(Kind kind) {
    return kind == kAddRelay || kind == kRemoveRelay ? kRelay : kMix;
}

// One call of a listener.
struct Told {
    std::string operation;  // "startRelay", "stopRelay", "setMix", "stopMix"
    int code;
    std::string message;
    bool operator==(const Told& other) const {
        return operation == other.operation && code == other.code && message == other.message;
    }
};

// What one call of the application has to lead to.
struct Operation {
    enum Outcome {
        kSends,         // a request, its retries, and the end that the service's last answer asks for
        kWaitsForRoom,  // one report and no call; room entry makes it again
        kRefused,       // the call `refusal` and, if it is reported, one report of that text
    };
    Kind kind;
    int number;  // of the adapter's operations; comes back in the report of a start
    Outcome outcome = kSends;
    std::string information{};  // of a start, as its report shows it
    Told refusal{};
    bool isReported = true;
    bool refusedEvenIfStale = true;

    // Filled in by the books.
    int generation = 0;
    uint64_t supersedingBegan = 0;  // when the call that made it stale began and returned; 0: not
    uint64_t supersedingEnded = 0;
    int told = 0;  // of refusals
    int reported = 0;
};

// One request on the wire.
struct Exchange {
    uint64_t id;
    Kind kind;
    int generation;
    size_t attempt;  // 0: the first send
    std::string body;
    int retCode = 0;
    std::string answer{};
    bool isAnswered = false;
    bool isJudged = false;  // the adapter looked at the answer
    bool isDelivered = false;
    bool isReported = false;
    bool isRetried = false;    // judged worth another try, with tries left
    bool isAbandoned = false;  // its adapter is gone
    uint64_t answeredAt = 0;
    std::vector<Told> told{};
};

class Books;

// One adapter's books. Any thread may call any member.
class Account {
public:
    Account(Books& books, std::string userId);

    const std::string& userId() const { return mUserId; }

    // ---- The driver's side ----

    // Around each call of the adapter: begin() first, then the call, then end().
    void beginOperation(Operation operation);
    void beginReset();
    void beginRoomEntry();  // starts that wait for it are made again
    void endCall();
    bool waitsForRoom(Family family);

    // The script of the round is through: from here on it may settle.
    void closeScript(Family family);
    // Between the two the adapter is being dropped: what is under way may end early.
    void beginDrop();
    void endDrop();
    // The round did not end in time: all of it counts as lost.
    void giveUp(Family family);

    // ---- The hooks' side ----

    std::shared_ptr<Exchange> sent(uint64_t id, Kind kind, int generation, std::string body);
    void answered(Exchange& exchange, int retCode, std::string answer);
    void judged(Exchange& exchange, int generation);
    void delivered(const std::shared_ptr<Exchange>& exchange);
    void told(Exchange* exchange, Told call);  // null: on the worker
    void reported(const vexalive::EventReport& report);

private:
    struct Ledger {
        int generation = 0;
        int nextNumber = 1;
        bool isOpen = false;
        bool scriptIsThrough = false;
        std::vector<Operation> operations;
        std::vector<std::shared_ptr<Exchange>> exchanges;
    };

    Ledger& ledgerOf(Kind kind) { return mLedgers[familyOf(kind)]; }
    void open(Ledger& ledger, Operation operation);
    void supersede(Ledger& ledger);
    Operation* find(Ledger& ledger, int generation);
    Exchange* next(Ledger& ledger, const Exchange& exchange);
    static bool isUndisturbed(const Ledger& ledger);
    bool isSettled(Ledger& ledger);
    void settleIfDone(Family family);
    void checkDelivered(Ledger& ledger, Exchange& exchange);
    bool takeReport(Ledger& ledger, const vexalive::EventReport& report);
    bool explains(Ledger& ledger, const Exchange& last, const std::string& trace);
    std::string describe(const Ledger& ledger) const;

    Books& mBooks;
    const std::string mUserId;
    std::mutex mMutex;
    uint64_t mNow = 0;  // counts the events of this account
    bool mIsDropped = false;
    std::array<Ledger, 2> mLedgers;
};

// All accounts, their sums, and the hooks.
class Books {
public:
    // Called when a round has settled; on any thread, with the account locked.
    std::function<void(Account& account, Family family)> onSettled;

    std::shared_ptr<Account> openAccount(const std::string& userId);  // of the room "r1"
    void installHooks();

    void breach(const char* promise, const std::string& text);
    int breaches() const { return mBreaches; }

    // Sums since the start.
    std::atomic<int64_t> operations{0};  // that have come to their end, as the rules want it
    std::atomic<int64_t> succeeded{0};
    std::atomic<int64_t> refused{0};
    std::atomic<int64_t> deferred{0};
    std::atomic<int64_t> superseded{0};
    std::atomic<int64_t> abandoned{0};  // their adapter was dropped; not among `operations`
    std::atomic<int64_t> started{0};
    std::atomic<int64_t> delivered{0};
    std::atomic<int64_t> retries{0};
    std::atomic<int64_t> exhausted{0};  // requests that failed eleven times
    std::atomic<int64_t> lost{0};
    std::atomic<int64_t> doubled{0};
    std::atomic<int64_t> wrong{0};

    size_t inFlight();  // requests without their kDelivered

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
    std::atomic<int> mBreaches{0};

    static thread_local Delivery tDelivery;  // what this thread delivers just now
    static thread_local int tGeneration;     // of the request that this thread sends next

    friend class BookedListener;
};

// The listener of one adapter for as long as that adapter lives.
class BookedListener : public ILiveTrancodingDelegate {
public:
    BookedListener(Books& books, std::shared_ptr<Account> account) : mBooks(books), mAccount(std::move(account)) {}

    void onStartPublishStreamUrl(int code, std::string message) override { told({"startRelay", code, message}); }
    void onStopPublishStreamUrl(int code, std::string message) override { told({"stopRelay", code, message}); }
    void onSetLiveMixTranscoding(int code, std::string message) override { told({"setMix", code, message}); }
    void onStopLiveMixTranscoding(int code, std::string message) override { told({"stopMix", code, message}); }

    // The adapter is gone: no call may begin any more.
    void close() { mIsClosed = true; }

private:
    void told(Told call);

    Books& mBooks;
    const std::shared_ptr<Account> mAccount;
    std::atomic<bool> mIsClosed{false};
};

#endif
