// The threads of the HTTPS engine, and the queue that keeps the responses of one client in order.
//
// The threads are equal. A free thread does the I/O if that is requested and no thread does it; otherwise it delivers a
// response; otherwise it is idle. So the thread that has read a single response also delivers it, without a switch of
// threads. A callback may block for any time: a thread that starts to work ensures that another is idle, and no
// callback runs on a thread that does the I/O. There are as many threads as callbacks that block at the same time, plus
// two or three.

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

// The result of one exchange, and its callback.
struct Completion {
    CVexaHttpSendRecv::Callback callback;
    int retCode = 0;
    KstCopyOnWriteBuffer response;
    std::string interfaceName;
    HttpExchange exchange{};  // for the observer; deliver() fills in the fields that are stored above
};

class HttpThreads;

// The responses of one client. Owned by the client and by its requests in flight.
class ResponseQueue : public std::enable_shared_from_this<ResponseQueue> {
public:
    // Appends a completion. If the queue was empty and no thread delivers it, hands the queue to `threads`.
    void push(Completion completion, HttpThreads& threads) KST_EXCLUDES(mMutex);

    // Calls the callbacks of all completions in the queue. Called by one thread at a time.
    void deliver() KST_EXCLUDES(mMutex);

    // No callback begins after this has returned. Waits for a callback that runs on another thread.
    void close() KST_EXCLUDES(mMutex);

private:
    KstMutex mMutex;
    KstCondition mCallbackReturned;
    std::list<Completion> mResponses KST_GUARDED_BY(mMutex);  // allocates nothing while empty
    bool mIsQueued KST_GUARDED_BY(mMutex) = false;
    bool mClosed KST_GUARDED_BY(mMutex) = false;
    std::thread::id mDeliveringThread KST_GUARDED_BY(mMutex);  // of the running callback, if any
};

// Never destroyed.
class HttpThreads {
public:
    // `io` does the I/O until none is left; called by one thread at a time.
    explicit HttpThreads(std::function<void()> io) : mIo(std::move(io)) {}

    // Starts a thread. The engine calls it twice before the first request. Throws std::system_error on failure.
    void start();

    // Requests a run of `io`. False if it runs already; the caller then wakes it.
    bool requestIo() KST_EXCLUDES(mMutex);

    // On the I/O thread: adds a queue to deliver. Delivery starts when `io` returns or at startDelivery().
    void post(std::shared_ptr<ResponseQueue> queue) KST_EXCLUDES(mMutex);
    void startDelivery() KST_EXCLUDES(mMutex);

    // For the exit of the process: no further callback begins, and no further I/O.
    void shutDown() KST_EXCLUDES(mMutex);

    // Waits until `io` has returned. Call after shutDown(), and after waking `io`.
    void waitForIo() KST_EXCLUDES(mMutex);

private:
    using Clock = std::chrono::steady_clock;

    struct IdleThread;

    void run() KST_EXCLUDES(mMutex);
    bool waitForWork() KST_REQUIRES(mMutex);
    void ensureIdleThread() KST_REQUIRES(mMutex);
    void wakeOne() KST_REQUIRES(mMutex);
    bool needsWatcher() KST_REQUIRES(mMutex) { return !mReady.empty() && !mHasWatcher; }

    const std::function<void()> mIo;
    KstMutex mMutex;
    KstCondition mIoEnded;
    std::deque<std::shared_ptr<ResponseQueue>> mReady KST_GUARDED_BY(mMutex);
    Clock::time_point mLastDequeued KST_GUARDED_BY(mMutex);        // from mReady
    int mDelivering KST_GUARDED_BY(mMutex) = 0;                    // number of threads
    std::vector<IdleThread*> mIdleThreads KST_GUARDED_BY(mMutex);  // used as a stack
    bool mHasWatcher KST_GUARDED_BY(mMutex) = false;               // an idle thread times the delivery of mReady
    bool mIsIoRequested KST_GUARDED_BY(mMutex) = false;
    bool mIsIoRunning KST_GUARDED_BY(mMutex) = false;
    bool mShuttingDown KST_GUARDED_BY(mMutex) = false;
};

// Calls the host's observer, if one is set.
void observe(const HttpExchange& exchange);

}  // namespace vexalive

#endif
