/// @file
/// The main class of the library. It requests from the cloud's live-interface service to relay the local user's stream
/// to a CDN address, and to mix several members' streams into one.
///
/// @code
///     auto adapter = std::make_shared<LiveTranscodingAdapter>();
///     adapter->setLiveTranscodingDelegate(listener);
///     adapter->updateUserInfo(sdkAppId, userSig, userId);
///     adapter->updateEnterRoomInfo(roomId, privateMapKey);
///     adapter->startPublishStreamUrl(param);           // listener->onStartPublishStreamUrl(0, "sucess")
/// @endcode

#ifndef VEXALIVE_COM_LIVE_TRANSCODING_ADAPTER_H
#define VEXALIVE_COM_LIVE_TRANSCODING_ADAPTER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Com/ILiveTrancodingDelegate.h"
#include "base/Mutex.h"
#include "params/VexaMixUserInternal.h"
#include "params/VexaPublishCDNParamInternal.h"
#include "params/VexaTranscodingConfigInternal.h"

class CVexaHttpSendRecv;
class KstCopyOnWriteBuffer;
class KstMessageLoop;

namespace vexalive::requests {
struct Envelope;
struct Refusal;
struct Sender;
}  // namespace vexalive::requests

/// The order of mix inputs: lower layers first. Any thread.
bool LiveTranscodingAdapterSortFun(const kstmedia::VexaMixUserInternal& a, const kstmedia::VexaMixUserInternal& b);

/// Relays and mixes the streams of one room. No operation waits: each but clear() and setLiveTranscodingDelegate()
/// posts a task to the adapter's own worker thread, and the first task starts this thread. The listener receives the
/// outcome (ILiveTrancodingDelegate.h). A request that fails is sent again on the schedule of base/RetrySchedule.h.
///
/// Room event reports (base/EventReport.h): the final response to a request makes one. So do a start that is refused
/// and a start before room entry; the latter makes another one when it ends. A refused stop or cancel makes none.
///
/// Ownership: the adapter must be owned by a shared pointer. An operation that posts aborts the process if the adapter
/// is not, or if it is being destroyed. The last reference may be dropped anywhere, also inside a listener call. A task
/// or a response that is being handled at that moment holds the adapter until it is done and may still call the
/// listener; then the adapter is destroyed on that thread, and no further call follows.
///
/// Threads: call the operations from one thread at a time; listener calls may call them, too. Calls from several
/// threads are safe, but it is then undetermined which of them supersedes the other.
///
/// Code that derives from the class must be compiled without run-time type information, as the class is.
class LiveTranscodingAdapter : public std::enable_shared_from_this<LiveTranscodingAdapter> {
public:
    /// Starts no thread and opens no socket.
    LiveTranscodingAdapter();

    /// Destroys the tasks that have not begun and ends the worker thread.
    virtual ~LiveTranscodingAdapter();

    LiveTranscodingAdapter(const LiveTranscodingAdapter&) = delete;
    LiveTranscodingAdapter& operator=(const LiveTranscodingAdapter&) = delete;

    /// Leaves the room: supersedes all work, drops starts that wait for room entry and clears the stored parameter and
    /// configuration. Identity, room id and listener remain.
    void resetInfo();

    /// Sets the identity of the local user. All values are accepted, also 0 and empty strings.
    void updateUserInfo(int64_t sdkAppId, std::string userSig, std::string userId);

    /// Enters a room and sends the starts that wait for it, the relay first. All values are accepted.
    void updateEnterRoomInfo(std::string roomId, std::string privateMapKey);

    /// Sets the listener at once; a call that has begun still reaches the previous one. The adapter holds a weak
    /// reference. An expired or empty listener is skipped.
    void setLiveTranscodingDelegate(std::weak_ptr<ILiveTrancodingDelegate> delegate);

    /// Clears the stored mix configuration at once; sends nothing.
    void clear();

    /// Relays the local user's main stream to `param.url`; before room entry the start waits. Supersedes earlier relay
    /// work. Outcome and refusal: onStartPublishStreamUrl.
    void startPublishStreamUrl(const kstmedia::VexaPublishCDNParamInternal& param);

    /// Ends the relay. Supersedes earlier relay work and drops a start that waits for room entry. Outcome:
    /// onStopPublishStreamUrl. Refused through onStopLiveMixTranscoding if nothing was ever started.
    void stopPublishStreamUrl();

    /// Starts a mix or changes the running one; before room entry it waits. Supersedes earlier mix work. Outcome:
    /// onSetLiveMixTranscoding; refusal: onStartPublishStreamUrl. Always returns 0.
    int32_t setLiveMixTranscoding(const kstmedia::VexaTranscodingConfigInternal& config);

    /// Ends the mix. Supersedes earlier mix work and drops a configuration that waits for room entry. Outcome:
    /// onStopLiveMixTranscoding, also if it is refused because nothing was ever started.
    void stopLiveMixTranscoding();

private:
    struct Family;       // relay work, or mix work
    struct RequestKind;  // one of the four kinds of request
    struct Attempt;      // the first send of a kind, or its retries
    struct MixSnapshot;  // the members that the body of a mix needs

    // Posting and notifying.
    template <class F>
    auto whileAlive(F work);
    template <class F>
    void post(F task);
    void notify(void (ILiveTrancodingDelegate::*call)(int, std::string), int errCode, std::string errMsg);
    void notify(const vexalive::requests::Refusal& refusal);

    // Access by member pointer, as the tables name members: guarded() requires the lock, read() takes it.
    template <class T>
    T& guarded(T LiveTranscodingAdapter::*member) KST_REQUIRES(mMutex) {
        return this->*member;
    }
    template <class T>
    T read(T LiveTranscodingAdapter::*member) KST_EXCLUDES(mMutex) {
        KstMutexLock lock(mMutex);
        return guarded(member);
    }

    // Generations.
    int32_t supersede(const Family& family) KST_REQUIRES(mMutex);
    bool isStale(const Family& family, int32_t index);
    bool dropStale(const Family& family, int32_t index);

    // The engine: one request of any kind, from the first send to the report.
    void sendFirst(const RequestKind& kind, int32_t index);
    void storeInformation(const RequestKind& kind, std::string body);
    void logSend(const RequestKind& kind, const Attempt& attempt, int32_t index, const std::string& body);
    void send(const RequestKind& kind, const Attempt& attempt, int32_t index, const std::string& url,
              const std::string& body, std::string trace);
    void receive(const RequestKind& kind, const Attempt& attempt, int32_t index, std::string trace, int retCode,
                 const KstCopyOnWriteBuffer& response);
    void retry(const RequestKind& kind, int32_t index, std::string trace);
    bool useRetry(const RequestKind& kind);
    int getDelayTime(int n);

    // The four kinds of request.
    void addPublishUrlInner(int index);
    void retryAddPublishUrlInner(int index, std::string trace);
    std::string getAddPublisherData(std::string destUrl);
    void removePublishUrlInner(int index);
    void retryRemovePublishUrlInner(int index, std::string trace);
    std::string getRemovePublisherData();
    void startMixStream(int index);
    void retryStartMixStream(int index, std::string trace);
    std::string getMixPostData();
    std::string getReportMixPostData(int index);
    void cancelMixStream(int index);
    void retryCancelMixStream(int index, std::string trace);
    std::string getCancelMixPostData();

    // Evaluation of responses.
    bool isRetryRequest(int retCode, std::string respData, int kind);
    int responeRequest(int retCode, std::string respData, int kind);

    // Mix inputs.
    bool isPureAudioStream(std::vector<kstmedia::VexaMixUserInternal> users);
    int32_t checkMixConfig(std::vector<kstmedia::VexaMixUserInternal> users, bool bPureAudio);
    void sortMixConfig();

    // What every request shares.
    std::string getServerUrl(std::string interfaceName);
    vexalive::requests::Envelope nextEnvelope();
    vexalive::requests::Sender sender() KST_EXCLUDES(mMutex);
    MixSnapshot mixSnapshot() KST_EXCLUDES(mMutex);
    uint32_t getCurrentSec();
    int32_t getEventIdSeq();
    std::string getStreamId(std::string roomId, std::string userId, bool isMain);
    std::string getMD5(std::string text, bool flag);

    void report(const RequestKind& kind, std::string detail);
    void reportTaskInfo(int event, std::string information, std::string detail);

    // The mutex is a leaf: it is never held while the listener, the HTTPS client, the loop, the log or the report is
    // called. Of the members below, those that it does not guard are constant after construction (clients, loop) or
    // belong to the worker thread.
    KstMutex mMutex;

    std::shared_ptr<CVexaHttpSendRecv> mStartCdnHttp;
    std::shared_ptr<CVexaHttpSendRecv> mStopCdnHttp;
    std::shared_ptr<CVexaHttpSendRecv> mStartMixHttp;
    std::shared_ptr<CVexaHttpSendRecv> mCancelMixHttp;
    std::string mRoomId KST_GUARDED_BY(mMutex);
    std::string mUserId KST_GUARDED_BY(mMutex);
    int64_t mSdkAppId = 0;
    int32_t mBizId KST_GUARDED_BY(mMutex) = 0;
    int32_t mAppId = 0;  // 0: nothing was ever started
    std::string mUserSig;
    std::string mPrivateMapKey;
    kstmedia::VexaTranscodingConfigInternal mTranscodingConfig KST_GUARDED_BY(mMutex);
    kstmedia::VexaPublishCDNParamInternal mPublishCDNParam;
    std::weak_ptr<ILiveTrancodingDelegate> mDelegate KST_GUARDED_BY(mMutex);
    std::shared_ptr<KstMessageLoop> mMessageLoop;
    bool mIsEnterRoom = false;
    bool mPendingMix = false;
    bool mPendingCdn = false;
    int32_t retryStartCdnCnt KST_GUARDED_BY(mMutex) = 0;
    int32_t retryStartMixCnt KST_GUARDED_BY(mMutex) = 0;
    int32_t retryStopCdnCnt KST_GUARDED_BY(mMutex) = 0;
    int32_t retryCancelMixCnt KST_GUARDED_BY(mMutex) = 0;
    int32_t mixTaskIndex KST_GUARDED_BY(mMutex) = 0;
    int32_t cdnTaskIndex KST_GUARDED_BY(mMutex) = 0;
    std::string mStartMixInfo KST_GUARDED_BY(mMutex);
    std::string mStartCdnInfo KST_GUARDED_BY(mMutex);
    std::string mCancelMixInfo KST_GUARDED_BY(mMutex);
    std::string mStopCdnInfo KST_GUARDED_BY(mMutex);
};

#endif
