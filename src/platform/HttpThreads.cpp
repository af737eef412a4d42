#include "platform/HttpThreads.h"

#include <atomic>
#include <chrono>
#include <system_error>
#include <utility>

#include "platform/Hook.h"

namespace vexalive {
namespace {

constexpr int kKept = 2;                           // threads that stand by for ever
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
    if (!mReady.empty()) {
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
        const Clock::time_point patience = mLastTaken + kPatience;
        const bool isAnotherAtIt = isFresh && mTelling > 0 && Clock::now() < patience;
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
            const std::shared_ptr<AnswerQueue> queue = std::move(mReady.front());
            mReady.pop_front();
            mLastTaken = Clock::now();
            ++mTelling;
            keepOneStandingBy();
            lock.unlock();
            queue->deliver();
            lock.lock();
            --mTelling;
            isFresh = false;
        } else {
            ++mIdle;
            bool isBored = false;
            if (!mReady.empty() && !mLeaving) {
                mMoreWork.waitUntil(mMutex, patience);
            } else if (!mFirstIdle) {
                mFirstIdle = true;
                mWork.wait(mMutex);
                mFirstIdle = false;
            } else if (mIdle <= kKept) {
                mMoreWork.wait(mMutex);
            } else {
                isBored = !mMoreWork.waitUntil(mMutex, Clock::now() + kIdleLife);
            }
            --mIdle;
            if (isBored && mReady.empty() && !mIoWanted && mIdle >= kKept) {
                return;
            }
            isFresh = true;
        }
    }
}

// Work is left for another thread, if only to watch whether this one comes back for it.
void HttpThreads::keepOneStandingBy() {
    if (mIdle == 0) {
        try {
            start();
        } catch (const std::system_error&) {
            // Without another thread what comes next waits for this one; the next time tries again.
        }
    } else if (!mReady.empty() || (mIoWanted && !mInIo)) {
        wakeOne();
    }
}

void HttpThreads::wakeOne() {
    if (std::exchange(mFirstIdle, false)) {
        mWork.notifyOne();
    } else {
        mMoreWork.notifyOne();
    }
}

}  // namespace vexalive
