// The threads of the HTTPS engine, and the queue that keeps one client's answers in order.
//
// Any of the threads does what is next: the I/O, if it is wanted and nobody does it; else it tells an answer; else it
// stands by. So a lone answer is told by the thread that has read it, without a hand-over. A callback may block for as
// long as it likes: a thread that goes to work makes sure that another stands by, and no callback runs on a thread that
// does the I/O. There are as many threads as callbacks that block at the same time, and two or three more.

#ifndef VEXALIVE_PLATFORM_HTTP_THREADS_H
#define VEXALIVE_PLATFORM_HTTP_THREADS_H

#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "base/CVexaHttpSendRecv.h"
#include "base/Mutex.h"
#include "platform/Platform.h"

namespace vexalive {

// What came back of one exchange, and whom to tell.
struct Answer {
    CVexaHttpSendRecv::Callback callback;
    int retCode = 0;
    KstCopyOnWriteBuffer response;
    std::string interfaceName;
    HttpExchange exchange{};  // for the observer, but for what the fields above say
};

class HttpThreads;

// One client's answers. Shared by the client and its requests in flight, which it may outlive.
class AnswerQueue : public std::enable_shared_from_this<AnswerQueue> {
public:
    // Queues an answer and, if none waits or is being told, puts the queue in line with `threads`.
    void push(Answer answer, HttpThreads& threads) KST_EXCLUDES(mMutex);

    // Tells all answers that wait, one by one. Called by one thread at a time.
    void deliver() KST_EXCLUDES(mMutex);

    // From here on no callback begins. Waits for one that runs on another thread.
    void close() KST_EXCLUDES(mMutex);

private:
    KstMutex mMutex;
    KstCondition mReturned;
    std::list<Answer> mAnswers KST_GUARDED_BY(mMutex);  // costs nothing while empty
    bool mInLine KST_GUARDED_BY(mMutex) = false;
    bool mClosed KST_GUARDED_BY(mMutex) = false;
    std::thread::id mDeliverer KST_GUARDED_BY(mMutex);  // of the callback that runs, if any
};

// Lives as long as the process.
class HttpThreads {
public:
    // `io` does the I/O until there is none left to do; never called by two threads at a time.
    explicit HttpThreads(std::function<void()> io) : mIo(std::move(io)) {}

    // Starts a thread: two before the first request, then as needed. The standard library's system error if it cannot.
    void start();

    // There is I/O to do. False if a thread is at it already, which is to be woken if it waits.
    bool wantIo() KST_EXCLUDES(mMutex);

    // For the thread that does the I/O: answers to tell, once it has ended its I/O or calls tell().
    void post(std::shared_ptr<AnswerQueue> queue) KST_EXCLUDES(mMutex);
    void tell() KST_EXCLUDES(mMutex);

    // The process exits: no further callback begins, and no further I/O.
    void leave() KST_EXCLUDES(mMutex);

    // To be called after leave(), when the I/O has been told to end.
    void waitForIo() KST_EXCLUDES(mMutex);

private:
    using Clock = std::chrono::steady_clock;

    struct StandBy;

    void run() KST_EXCLUDES(mMutex);
    bool standBy() KST_REQUIRES(mMutex);
    void keepOneStandingBy() KST_REQUIRES(mMutex);
    void wakeOne() KST_REQUIRES(mMutex);
    bool isLeftAlone() KST_REQUIRES(mMutex) { return !mReady.empty() && !mIsWatched; }

    const std::function<void()> mIo;
    KstMutex mMutex;
    KstCondition mIoEnded;
    std::deque<std::shared_ptr<AnswerQueue>> mReady KST_GUARDED_BY(mMutex);
    Clock::time_point mLastTaken KST_GUARDED_BY(mMutex);       // of mReady
    int mTelling KST_GUARDED_BY(mMutex) = 0;                   // threads
    std::vector<StandBy*> mStandingBy KST_GUARDED_BY(mMutex);  // the last to come is the first to go
    bool mIsWatched KST_GUARDED_BY(mMutex) = false;  // that what is in mReady gets told, by one that stands by
    bool mIoWanted KST_GUARDED_BY(mMutex) = false;
    bool mInIo KST_GUARDED_BY(mMutex) = false;  // a thread is
    bool mLeaving KST_GUARDED_BY(mMutex) = false;
};

// Tells the host's observer, if there is one.
void observe(const HttpExchange& exchange);

}  // namespace vexalive

#endif
