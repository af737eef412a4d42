// Start here. The one object of the library: asks the cloud's live-interface service to relay the local user's stream
// to a CDN address, and to mix several members' streams into one.
//
//     auto adapter = std::make_shared<LiveTranscodingAdapter>();
//     adapter->setLiveTranscodingDelegate(listener);
//     adapter->updateUserInfo(sdkAppId, userSig, userId);
//     adapter->updateEnterRoomInfo(roomId, privateMapKey);
//     adapter->startPublishStreamUrl(param);           // listener->onStartPublishStreamUrl(0, "sucess")
//
// No operation waits: each posts a task to the adapter's own worker thread, and the outcome reaches the listener
// (ILiveTrancodingDelegate.h). A request that fails is sent again on the schedule of base/RetrySchedule.h. Each
// finished or refused task makes one room event report (base/EventReport.h).

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

// The order of mix inputs: lower layers first.
bool LiveTranscodingAdapterSortFun(const kstmedia::VexaMixUserInternal& a, const kstmedia::VexaMixUserInternal& b);

// Must be owned by a shared pointer: an operation called on an adapter that is not, or that is being destroyed, aborts
// the process. The operations are meant to be called from one thread at a time; called from several, nothing is
// undefined, but which call supersedes which is chance. They may be called from inside a listener call. An adapter may
// be dropped anywhere, inside its listener's calls too. A task or an answer that is being handled at that moment keeps
// it until it is done, and until then the listener may still be told; then it is destroyed on that thread, and nothing
// follows. Code that derives from the class must be compiled without run-time type information, as the class is.
class LiveTranscodingAdapter : public std::enable_shared_from_this<LiveTranscodingAdapter> {
public:
    // Costs no thread and no socket; the first operation starts the worker.
    LiveTranscodingAdapter();

    // Drops the work still to come and ends the worker.
    virtual ~LiveTranscodingAdapter();

    LiveTranscodingAdapter(const LiveTranscodingAdapter&) = delete;
    LiveTranscodingAdapter& operator=(const LiveTranscodingAdapter&) = delete;

    // Leaves the room: work under way becomes stale, pending starts and the stored parameters are forgotten. Identity,
    // room and listener stay.
    void resetInfo();

    // Who the local user is. Any values are taken.
    void updateUserInfo(int64_t sdkAppId, std::string userSig, std::string userId);

    // Enters a room: starts asked for before are sent now, the relay first.
    void updateEnterRoomInfo(std::string roomId, std::string privateMapKey);

    // Who is told; takes effect at once, but for a call that has begun. Kept weakly; one that is gone or empty is
    // skipped.
    void setLiveTranscodingDelegate(std::weak_ptr<ILiveTrancodingDelegate> delegate);

    // Forgets the stored mix configuration at once; sends nothing.
    void clear();

    // Relays the local user's main stream to `param.url`; before room entry the start waits for it. Supersedes earlier
    // relay work. Told through onStartPublishStreamUrl.
    void startPublishStreamUrl(const kstmedia::VexaPublishCDNParamInternal& param);

    // Ends the relay. Supersedes earlier relay work and forgets a start that waits for room entry. Told through
    // onStopPublishStreamUrl; refused, if nothing was ever started, through onStopLiveMixTranscoding.
    void stopPublishStreamUrl();

    // Starts a mix, or changes the running one; before room entry it waits. Supersedes earlier mix work. Told through
    // onSetLiveMixTranscoding; a refused configuration through onStartPublishStreamUrl. Always returns 0.
    int32_t setLiveMixTranscoding(const kstmedia::VexaTranscodingConfigInternal& config);

    // Ends the mix. Supersedes earlier mix work and forgets a configuration that waits for room entry. Told through
    // onStopLiveMixTranscoding; refused if nothing was ever started.
    void stopLiveMixTranscoding();

private:
    struct Family;       // relay work, or mix work
    struct RequestKind;  // one of the four kinds of request
    struct Attempt;      // the first send of a kind, or its retries
    struct MixSnapshot;  // what the body of a mix is made of

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
