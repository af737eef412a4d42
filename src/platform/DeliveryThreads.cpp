#include "platform/DeliveryThreads.h"

#include <atomic>
#include <chrono>
#include <system_error>
#include <utility>

#include "platform/Hook.h"

namespace vexalive {
namespace {

constexpr std::chrono::seconds kIdleLife(1);  // of a thread that has another standing by

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

void AnswerQueue::push(Answer answer, DeliveryThreads& threads) {
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

void DeliveryThreads::post(std::shared_ptr<AnswerQueue> queue) {
    {
        KstMutexLock lock(mMutex);
        mReady.push_back(std::move(queue));
    }
    mWork.notifyOne();
}

void DeliveryThreads::leave() {
    KstMutexLock lock(mMutex);
    processLeaves = true;
    mLeaving = true;
}

void DeliveryThreads::start() {
    std::thread([this] { run(); }).detach();
}

void DeliveryThreads::run() {
    KstMutexLock lock(mMutex);
    for (;;) {
        while (mReady.empty() || mLeaving) {
            ++mIdle;
            bool bored = false;
            if (mIdle == 1) {
                mWork.wait(mMutex);
            } else {
                bored = !mWork.waitUntil(mMutex, std::chrono::steady_clock::now() + kIdleLife);
            }
            --mIdle;
            if (bored && mReady.empty() && mIdle > 0) {
                return;
            }
        }
        std::shared_ptr<AnswerQueue> queue = std::move(mReady.front());
        mReady.pop_front();
        if (mIdle == 0) {
            try {
                start();
            } catch (const std::system_error&) {
                // Without another thread answers wait for this callback; the next one tries again.
            }
        }
        lock.unlock();
        queue->deliver();
        queue.reset();
        lock.lock();
    }
}

}  // namespace vexalive
