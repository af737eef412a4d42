// The threads of the HTTPS engine, and the queue that keeps the responses of one client in order.
//
// Each thread can do the I/O and deliver responses. A free thread first does the I/O, if that is requested and no other
// thread does it. Otherwise it delivers a response, if there is one. Otherwise it is idle. So the thread that has read
// a single response also delivers it, without a context switch.
//
// A callback may block for any time: before a thread works, it ensures that another thread is idle, and a thread runs
// no callback while it does the I/O. The number of threads is the number of callbacks that block at the same time, plus
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
    HttpExchange exchange{};  // for the observer; deliver() copies the members above into it
};

class HttpThreads;

// The responses to the requests of one client. Owned by the client and by its requests in flight.
class ResponseQueue : public std::enable_shared_from_this<ResponseQueue> {
public:
    // Appends a completion. If no thread delivers the queue or is about to, passes the queue to `threads`.
    void push(Completion completion, HttpThreads& threads) KST_EXCLUDES(mMutex);

    // Calls the callbacks of all completions in the queue. Called by one thread at a time.
    void deliver() KST_EXCLUDES(mMutex);

    // No callback begins after this has returned. Waits for a callback that runs on another thread.
    void close() KST_EXCLUDES(mMutex);

private:
    KstMutex mMutex;
    KstCondition mCallbackReturned;
    std::list<Completion> mResponses KST_GUARDED_BY(mMutex);  // allocates nothing while empty
    bool mIsQueued KST_GUARDED_BY(mMutex) = false;  // the queue was passed to the threads and is not yet empty
    bool mClosed KST_GUARDED_BY(mMutex) = false;
    std::thread::id mDeliveringThread KST_GUARDED_BY(mMutex);  // the thread that runs a callback, if any
};

// The threads that do the I/O and deliver responses. Never destroyed, since they are detached.
class HttpThreads {
public:
    // `io` does the I/O until none is left; called by one thread at a time.
    explicit HttpThreads(std::function<void()> io) : mIo(std::move(io)) {}

    // Starts a thread. The engine calls it twice before the first request. Throws std::system_error on failure.
    void start();

    // Requests a run of `io`. Returns false if `io` runs already; the caller must then wake it.
    bool requestIo() KST_EXCLUDES(mMutex);

    // Both run on the I/O thread. post() adds a queue to deliver; its delivery starts when `io` returns, or earlier at
    // startDelivery().
    void post(std::shared_ptr<ResponseQueue> queue) KST_EXCLUDES(mMutex);
    void startDelivery() KST_EXCLUDES(mMutex);

    // For the exit of the process: no further callback or run of `io` begins.
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
    Clock::time_point mLastDequeued KST_GUARDED_BY(mMutex);        // when a thread last took a queue from mReady
    int mDelivering KST_GUARDED_BY(mMutex) = 0;                    // number of threads that deliver a queue
    std::vector<IdleThread*> mIdleThreads KST_GUARDED_BY(mMutex);  // used as a stack
    bool mHasWatcher KST_GUARDED_BY(mMutex) = false;               // an idle thread waits as described at run()
    bool mIsIoRequested KST_GUARDED_BY(mMutex) = false;
    bool mIsIoRunning KST_GUARDED_BY(mMutex) = false;
    bool mShuttingDown KST_GUARDED_BY(mMutex) = false;
};

// Calls the host's observer, if one is set.
void observe(const HttpExchange& exchange);

}  // namespace vexalive

#endif
