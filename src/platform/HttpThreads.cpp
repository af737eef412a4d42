#include "platform/HttpThreads.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <system_error>
#include <utility>

#include "platform/Hook.h"
#include "platform/OpenSsl.h"

namespace vexalive {
namespace {

constexpr size_t kMinIdleThreads = 2;
constexpr std::chrono::seconds kIdleTimeout(1);  // after which an idle thread ends if kMinIdleThreads others are idle
constexpr std::chrono::milliseconds kWatchTimeout(1);  // see run()

std::atomic<bool> processExiting{false};

Hook<HttpObserver>& observerHook() {
    static auto& hook = *new Hook<HttpObserver>();  // never destroyed: the threads outlive main()
    return hook;
}

}  // namespace

void setHttpObserver(HttpObserver observer) {
    observerHook().set(std::move(observer));
}

void observe(const HttpExchange& exchange) {
    if (const auto observer = observerHook().get()) {
        (*observer)(exchange);
    }
}

// ---- The responses of one client ------------------------------------------------------------------------------------

void ResponseQueue::push(Completion completion, HttpThreads& threads) {
    KstMutexLock lock(mMutex);
    mResponses.push_back(std::move(completion));
    const bool first = !std::exchange(mIsQueued, true);
    lock.unlock();
    if (first) {
        threads.post(shared_from_this());
    }
}

void ResponseQueue::deliver() {
    KstMutexLock lock(mMutex);
    while (!mResponses.empty()) {
        std::list<Completion> current;
        current.splice(current.begin(), mResponses, mResponses.begin());
        lock.unlock();

        Completion& completion = current.front();
        HttpExchange exchange = completion.exchange;
        exchange.phase = HttpExchange::kCompleted;
        exchange.interfaceName = completion.interfaceName;
        exchange.retCode = completion.retCode;
        exchange.response = {reinterpret_cast<const char*>(completion.response.cdata()), completion.response.size()};
        const KstCopyOnWriteBuffer keepAlive = completion.response;  // the observer reads it after the callback, too
        observe(exchange);

        lock.lock();
        if (!mClosed && !processExiting && completion.callback) {
            mDeliveringThread = std::this_thread::get_id();
            lock.unlock();
            completion.callback(completion.retCode, completion.response);
            completion.callback = nullptr;  // destroys the captures of the callback while the client still exists
            lock.lock();
            mDeliveringThread = std::thread::id();
            mCallbackReturned.notifyAll();
        }
        lock.unlock();

        exchange.phase = HttpExchange::kDelivered;
        observe(exchange);
        current.clear();
        lock.lock();
    }
    mIsQueued = false;
}

void ResponseQueue::close() {
    KstMutexLock lock(mMutex);
    mClosed = true;
    while (mDeliveringThread != std::thread::id() && mDeliveringThread != std::this_thread::get_id() &&
           !processExiting) {
        mCallbackReturned.wait(mMutex);
    }
}

// ---- The threads ----------------------------------------------------------------------------------------------------

void HttpThreads::start() {
    std::thread([this] { run(); }).detach();
}

bool HttpThreads::requestIo() {
    KstMutexLock lock(mMutex);
    mIsIoRequested = true;
    if (!mIsIoRunning) {
        wakeOne();
    }
    return !mIsIoRunning;
}

void HttpThreads::post(std::shared_ptr<ResponseQueue> queue) {
    KstMutexLock lock(mMutex);
    mReady.push_back(std::move(queue));
}

void HttpThreads::startDelivery() {
    KstMutexLock lock(mMutex);
    if (needsWatcher()) {
        wakeOne();
    }
}

void HttpThreads::shutDown() {
    KstMutexLock lock(mMutex);
    processExiting = true;
    mShuttingDown = true;
}

void HttpThreads::waitForIo() {
    KstMutexLock lock(mMutex);
    while (mIsIoRunning) {
        mIoEnded.wait(mMutex);
    }
}

void HttpThreads::run() {
    KstMutexLock lock(mMutex);
    for (bool wasIdle = true;;) {
        // A thread that delivers a response is usually free soon and then delivers the next one, without a context
        // switch. So a thread that was idle (the watcher) delivers only if no thread has done so for kWatchTimeout.
        const bool isBeingDrained = wasIdle && mDelivering > 0 && Clock::now() < mLastDequeued + kWatchTimeout;
        if (mIsIoRequested && !mIsIoRunning && !mShuttingDown) {
            mIsIoRequested = false;
            mIsIoRunning = true;
            ensureIdleThread();
            lock.unlock();
            mIo();
            lock.lock();
            mIsIoRunning = false;
            mIoEnded.notifyAll();
            wasIdle = false;
        } else if (!mReady.empty() && !mShuttingDown && !isBeingDrained) {
            std::shared_ptr<ResponseQueue> queue = std::move(mReady.front());
            mReady.pop_front();
            mLastDequeued = Clock::now();
            ++mDelivering;
            ensureIdleThread();
            lock.unlock();
            queue->deliver();
            queue.reset();
            lock.lock();
            --mDelivering;
            wasIdle = false;
        } else if (waitForWork()) {
            wasIdle = true;
        } else {
            releaseOpenSslThread();
            return;
        }
    }
}

struct HttpThreads::IdleThread {
    KstCondition condition;
    bool isWoken = false;
};

// Waits until there may be work. Returns false if the calling thread must end: it was idle for kIdleTimeout, and
// kMinIdleThreads others are idle. While the process exits, no thread ends: the clean-up of a thread would use
// libraries that may already be cleaned up.
bool HttpThreads::waitForWork() {
    const bool isWatcher = needsWatcher() && !mShuttingDown;
    const bool isPermanent = mIdleThreads.size() < kMinIdleThreads;
    const Clock::time_point end = isWatcher ? mLastDequeued + kWatchTimeout : Clock::now() + kIdleTimeout;
    IdleThread self;
    mHasWatcher = mHasWatcher || isWatcher;
    mIdleThreads.push_back(&self);
    bool isOver = false;
    while (!self.isWoken && !isOver) {
        if (isWatcher || !isPermanent) {
            isOver = !self.condition.waitUntil(mMutex, end);
        } else {
            self.condition.wait(mMutex);
        }
    }
    mHasWatcher = mHasWatcher && !isWatcher;
    if (!self.isWoken) {
        mIdleThreads.erase(std::find(mIdleThreads.begin(), mIdleThreads.end(), &self));
    }
    return self.isWoken || isWatcher || mShuttingDown || mIdleThreads.size() < kMinIdleThreads;
}

// Called by a thread before it works: another thread must do the remaining work, or become the watcher (see run()).
void HttpThreads::ensureIdleThread() {
    if (mIdleThreads.empty()) {
        try {
            start();
        } catch (const std::system_error&) {
            // Further work waits until this thread is free. The next call of this function tries again.
        }
    } else if (needsWatcher() || (mIsIoRequested && !mIsIoRunning)) {
        wakeOne();
    }
}

void HttpThreads::wakeOne() {
    if (!mIdleThreads.empty()) {
        mIdleThreads.back()->isWoken = true;
        mIdleThreads.back()->condition.notifyOne();
        mIdleThreads.pop_back();
    }
}

}  // namespace vexalive
