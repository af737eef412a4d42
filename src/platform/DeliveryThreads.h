// The threads on which answers are delivered, and the queue that keeps one client's answers in order.
//
// A callback may block for as long as it likes: before a thread runs one, it makes sure that another stands by for the
// next client. So there are as many threads as callbacks that run at the same time, and one more.

#ifndef VEXALIVE_PLATFORM_DELIVERY_THREADS_H
#define VEXALIVE_PLATFORM_DELIVERY_THREADS_H

#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <thread>

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

class DeliveryThreads;

// One client's answers. Shared by the client and its requests in flight, which it may outlive.
class AnswerQueue : public std::enable_shared_from_this<AnswerQueue> {
public:
    // Queues an answer and, if none waits or is being told, puts the queue in line with `threads`.
    void push(Answer answer, DeliveryThreads& threads) KST_EXCLUDES(mMutex);

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
class DeliveryThreads {
public:
    // Starts a thread: once before the first answer, then as needed. The standard library's system error if it cannot.
    void start();

    void post(std::shared_ptr<AnswerQueue> queue) KST_EXCLUDES(mMutex);

    // The process exits: no further callback begins.
    void leave() KST_EXCLUDES(mMutex);

private:
    void run() KST_EXCLUDES(mMutex);

    KstMutex mMutex;
    KstCondition mWork;
    std::deque<std::shared_ptr<AnswerQueue>> mReady KST_GUARDED_BY(mMutex);
    int mIdle KST_GUARDED_BY(mMutex) = 0;
    bool mLeaving KST_GUARDED_BY(mMutex) = false;
};

// Tells the host's observer, if there is one.
void observe(const HttpExchange& exchange);

}  // namespace vexalive

#endif
