/// @file
/// The main class of the library. It sends requests to the live-interface service in the cloud. The service relays the
/// local user's stream to a CDN address, and mixes the streams of several room members into one.
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

/// The order of the inputs of a mix: whether the layer of `a` is below the layer of `b`. Any thread may call.
bool LiveTranscodingAdapterSortFun(const kstmedia::VexaMixUserInternal& a, const kstmedia::VexaMixUserInternal& b);

/// Relays and mixes the streams of one room. No operation blocks. Each operation except clear() and
/// setLiveTranscodingDelegate() posts a task to the adapter's own worker thread; the first task starts this thread. The
/// listener receives the outcome (ILiveTrancodingDelegate.h). If a request fails temporarily, the adapter sends it
/// again on the schedule of base/RetrySchedule.h.
///
/// Each relay operation supersedes earlier relay work; each mix operation supersedes earlier mix work; resetInfo()
/// supersedes both. To supersede means: the adapter drops the earlier tasks that have not begun, and ignores the
/// responses to the earlier requests. ILiveTrancodingDelegate.h lists the exceptions.
///
/// Room event reports (base/EventReport.h): the adapter reports the final response to each request, each refused start
/// and each start before room entry. A start before room entry is reported a second time when its request ends. A
/// refused stop or cancel is not reported.
///
/// Ownership: the adapter must be owned by a shared pointer. An operation that posts a task aborts the process if the
/// adapter is not owned by one, or if the adapter is being destroyed. The last reference may be released anywhere, also
/// inside a listener call. If a thread is running a task or handling a response at that moment, this thread finishes it
/// first; it may still call the listener. Then it destroys the adapter. No listener call follows.
///
/// Threads: call the operations from one thread at a time; listener functions may call them, too. Concurrent calls are
/// safe, but their order is then undetermined: either of two calls may supersede the other.
///
/// Derived classes must be compiled with -fno-rtti, as this class is.
class LiveTranscodingAdapter : public std::enable_shared_from_this<LiveTranscodingAdapter> {
public:
    /// Starts no thread and opens no socket.
    LiveTranscodingAdapter();

    /// Destroys the tasks that have not begun and ends the worker thread.
    virtual ~LiveTranscodingAdapter();

    LiveTranscodingAdapter(const LiveTranscodingAdapter&) = delete;
    LiveTranscodingAdapter& operator=(const LiveTranscodingAdapter&) = delete;

    /// Exits the room: supersedes all work, drops starts that wait for room entry, and clears the stored relay
    /// parameter and mix configuration. Identity, room id and listener remain.
    void resetInfo();

    /// Sets the identity of the local user. All values are accepted, also 0 and empty strings.
    void updateUserInfo(int64_t sdkAppId, std::string userSig, std::string userId);

    /// Enters a room. Sends the starts that wait for room entry, the relay start first. All values are accepted.
    void updateEnterRoomInfo(std::string roomId, std::string privateMapKey);

    /// Sets the listener at once. A call that has begun still reaches the previous listener. The adapter holds a weak
    /// reference. If the reference is expired or empty, the adapter makes no listener calls.
    void setLiveTranscodingDelegate(std::weak_ptr<ILiveTrancodingDelegate> delegate);

    /// Clears the stored mix configuration at once; sends nothing.
    void clear();

    /// Relays the local user's main stream to `param.url`. Before room entry, the start waits. Supersedes earlier relay
    /// work. onStartPublishStreamUrl receives the outcome or the refusal.
    void startPublishStreamUrl(const kstmedia::VexaPublishCDNParamInternal& param);

    /// Ends the relay. Supersedes earlier relay work and drops a relay start that waits for room entry.
    /// onStopPublishStreamUrl receives the outcome. If nothing was ever started, the stop is refused;
    /// onStopLiveMixTranscoding receives the refusal (intended, prescribed by the interface).
    void stopPublishStreamUrl();

    /// Starts a mix or updates the running mix. Before room entry, the start waits. Supersedes earlier mix work.
    /// onSetLiveMixTranscoding receives the outcome. onStartPublishStreamUrl receives a refusal (intended, prescribed
    /// by the interface). Always returns 0.
    int32_t setLiveMixTranscoding(const kstmedia::VexaTranscodingConfigInternal& config);

    /// Ends the mix. Supersedes earlier mix work and drops a mix start that waits for room entry.
    /// onStopLiveMixTranscoding receives the outcome, or the refusal if nothing was ever started.
    void stopLiveMixTranscoding();

private:
    struct Family;       // the members that all relay operations share, or all mix operations
    struct RequestKind;  // the properties of one of the four kinds of request
    struct Attempt;      // the properties of the first send of a request, or of its retries
    struct MixSnapshot;  // a copy of the members that the body of a mix needs

    // Posting and notifying.
    template <class F>
    auto whileAlive(F work);
    template <class F>
    void post(F task);
    void notify(void (ILiveTrancodingDelegate::*call)(int, std::string), int errCode, std::string errMsg);
    void notify(const vexalive::requests::Refusal& refusal);

    // Access by pointer to member, since the tables of Family and RequestKind refer to members: guarded() requires the
    // lock, read() acquires it.
    template <class T>
    T& guarded(T LiveTranscodingAdapter::*member) KST_REQUIRES(mMutex) {
        return this->*member;
    }
    template <class T>
    T read(T LiveTranscodingAdapter::*member) KST_EXCLUDES(mMutex) {
        KstMutexLock lock(mMutex);
        return guarded(member);
    }

    // Generations: each operation of a family starts a new generation. Work of an older one is stale.
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

    // Values of every request.
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
    // called. Of the members that it does not guard, the clients and the loop are constant after construction; the
    // others are used on the worker thread only.
    KstMutex mMutex;

    std::shared_ptr<CVexaHttpSendRecv> mStartCdnHttp;
    std::shared_ptr<CVexaHttpSendRecv> mStopCdnHttp;
    std::shared_ptr<CVexaHttpSendRecv> mStartMixHttp;
    std::shared_ptr<CVexaHttpSendRecv> mCancelMixHttp;
    std::string mRoomId KST_GUARDED_BY(mMutex);
    std::string mUserId KST_GUARDED_BY(mMutex);
    int64_t mSdkAppId = 0;
    int32_t mBizId KST_GUARDED_BY(mMutex) = 0;
    int32_t mAppId = 0;  // of the latest accepted start; 0 if no start was ever accepted
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
