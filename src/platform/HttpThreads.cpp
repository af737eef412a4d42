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

constexpr size_t kKept = 2;                        // threads that stand by for ever
constexpr std::chrono::seconds kIdleLife(1);       // of one more
constexpr std::chrono::milliseconds kPatience(1);  // with a thread that has just taken an answer

std::atomic<bool> processLeaves{false};

Hook<HttpObserver>& observerHook() {
    static auto& hook = *new Hook<HttpObserver>();  // never destroyed: threads outlive main
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

// ---- One client's answers -------------------------------------------------------------------------------------------

void AnswerQueue::push(Answer answer, HttpThreads& threads) {
    KstMutexLock lock(mMutex);
    mAnswers.push_back(std::move(answer));
    const bool first = !std::exchange(mInLine, true);
    lock.unlock();
    if (first) {
        threads.post(shared_from_this());
    }
}

void AnswerQueue::deliver() {
    KstMutexLock lock(mMutex);
    while (!mAnswers.empty()) {
        std::list<Answer> taken;
        taken.splice(taken.begin(), mAnswers, mAnswers.begin());
        lock.unlock();

        Answer& answer = taken.front();
        HttpExchange exchange = answer.exchange;
        exchange.phase = HttpExchange::kAnswered;
        exchange.interfaceName = answer.interfaceName;
        exchange.retCode = answer.retCode;
        exchange.answer = {reinterpret_cast<const char*>(answer.response.cdata()), answer.response.size()};
        const KstCopyOnWriteBuffer kept = answer.response;  // the observer sees it after the callback, too
        observe(exchange);

        lock.lock();
        if (!mClosed && !processLeaves && answer.callback) {
            mDeliverer = std::this_thread::get_id();
            lock.unlock();
            answer.callback(answer.retCode, answer.response);
            answer.callback = nullptr;  // what it holds goes before the client may
            lock.lock();
            mDeliverer = std::thread::id();
            mReturned.notifyAll();
        }
        lock.unlock();

        exchange.phase = HttpExchange::kDelivered;
        observe(exchange);
        taken.clear();
        lock.lock();
    }
    mInLine = false;
}

void AnswerQueue::close() {
    KstMutexLock lock(mMutex);
    mClosed = true;
    while (mDeliverer != std::thread::id() && mDeliverer != std::this_thread::get_id() && !processLeaves) {
        mReturned.wait(mMutex);
    }
}

// ---- The threads ----------------------------------------------------------------------------------------------------

void HttpThreads::start() {
    std::thread([this] { run(); }).detach();
}

bool HttpThreads::wantIo() {
    KstMutexLock lock(mMutex);
    mIoWanted = true;
    if (!mInIo) {
        wakeOne();
    }
    return !mInIo;
}

void HttpThreads::post(std::shared_ptr<AnswerQueue> queue) {
    KstMutexLock lock(mMutex);
    mReady.push_back(std::move(queue));
}

void HttpThreads::tell() {
    KstMutexLock lock(mMutex);
    if (isLeftAlone()) {
        wakeOne();
    }
}

void HttpThreads::leave() {
    KstMutexLock lock(mMutex);
    processLeaves = true;
    mLeaving = true;
}

void HttpThreads::waitForIo() {
    KstMutexLock lock(mMutex);
    while (mInIo) {
        mIoEnded.wait(mMutex);
    }
}

void HttpThreads::run() {
    KstMutexLock lock(mMutex);
    for (bool isFresh = true;;) {
        // One that has just taken an answer will soon be back for the next; only a thread that comes from there takes
        // it at once.
        const bool isAnotherAtIt = isFresh && mTelling > 0 && Clock::now() < mLastTaken + kPatience;
        if (mIoWanted && !mInIo && !mLeaving) {
            mIoWanted = false;
            mInIo = true;
            keepOneStandingBy();
            lock.unlock();
            mIo();
            lock.lock();
            mInIo = false;
            mIoEnded.notifyAll();
            isFresh = false;
        } else if (!mReady.empty() && !mLeaving && !isAnotherAtIt) {
            std::shared_ptr<AnswerQueue> queue = std::move(mReady.front());
            mReady.pop_front();
            mLastTaken = Clock::now();
            ++mTelling;
            keepOneStandingBy();
            lock.unlock();
            queue->deliver();
            queue.reset();
            lock.lock();
            --mTelling;
            isFresh = false;
        } else if (standBy()) {
            isFresh = true;
        } else {
            leaveOpenSsl();
            return;
        }
    }
}

struct HttpThreads::StandBy {
    KstCondition condition;
    bool isWoken = false;
};

// Until there may be something to do. False if enough others stand by, and have for a while; but while the process
// exits no thread ends, since the libraries that a thread has to leave may be gone by then.
bool HttpThreads::standBy() {
    const bool isWatching = isLeftAlone() && !mLeaving;  // whether the thread that is at it comes back
    const bool isKept = mStandingBy.size() < kKept;
    const Clock::time_point end = isWatching ? mLastTaken + kPatience : Clock::now() + kIdleLife;
    StandBy self;
    mIsWatched = mIsWatched || isWatching;
    mStandingBy.push_back(&self);
    bool isOver = false;
    while (!self.isWoken && !isOver) {
        if (isWatching || !isKept) {
            isOver = !self.condition.waitUntil(mMutex, end);
        } else {
            self.condition.wait(mMutex);
        }
    }
    mIsWatched = mIsWatched && !isWatching;
    if (!self.isWoken) {
        mStandingBy.erase(std::find(mStandingBy.begin(), mStandingBy.end(), &self));
    }
    return self.isWoken || isWatching || mLeaving || mStandingBy.size() < kKept;
}

// For a thread that goes to work: what else there is, another does, or watches whether this one comes back for it.
void HttpThreads::keepOneStandingBy() {
    if (mStandingBy.empty()) {
        try {
            start();
        } catch (const std::system_error&) {
            // Without another thread what comes next waits for this one; the next time tries again.
        }
    } else if (isLeftAlone() || (mIoWanted && !mInIo)) {
        wakeOne();
    }
}

void HttpThreads::wakeOne() {
    if (!mStandingBy.empty()) {
        mStandingBy.back()->isWoken = true;
        mStandingBy.back()->condition.notifyOne();
        mStandingBy.pop_back();
    }
}

}  // namespace vexalive
