// The sections, in this order: the table of request kinds, posting and notifying, identity and room, the public relay
// and mix operations, the engine that sends, receives and retries requests, and the room event report. The rules of
// bodies, refusals and responses are in LiveRequests.h.

#include "Com/LiveTranscodingAdapter.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <utility>

#include "Com/LiveRequests.h"
#include "base/CVexaHttpSendRecv.h"
#include "base/Clock.h"
#include "base/EventReport.h"
#include "base/KstMessageLoop.h"
#include "base/Log.h"
#include "base/Md5.h"
#include "base/RetrySchedule.h"
#include "base/ServiceAddress.h"
#include "base/Version.h"

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaPublishCDNParamInternal;
using kstmedia::VexaTranscodingConfigInternal;
namespace requests = vexalive::requests;

namespace {

constexpr const char* kSourceFile = "LiveTranscodingAdapter.cpp";
constexpr const char* kInTask = "operator()";  // function name in log lines of posted tasks and callbacks
constexpr int kProgress = 2;                   // log level 2: info
constexpr int kRefusal = 4;                    // log level 4: error

constexpr int kRoomEventType = 10004;
constexpr const char* kNotInRoom = "not enterRoom status";

// The service's base URL. It is built during static initialisation: by CGI_VEXALIVE_SERVER below, or earlier if another
// static object uses an adapter first. Never destroyed, since a worker may still send while the process exits.
struct ServerUrl {
    ServerUrl() { get(); }
    static const std::string& get() {
        static const std::string& url =
            *new std::string("https://" + std::string(kstf_get_live_service_host()) + "/v3/liveinterface/");
        return url;
    }
};
const ServerUrl CGI_VEXALIVE_SERVER;

}  // namespace

// ---- Request kinds --------------------------------------------------------------------------------------------------

// A family is all relay operations, or all mix operations. Its operations share one generation number.
struct LiveTranscodingAdapter::Family {
    const requests::Family& rules;
    int32_t LiveTranscodingAdapter::*generation;
    int32_t LiveTranscodingAdapter::*startCounter;
    int32_t LiveTranscodingAdapter::*stopCounter;

    static const Family kRelay;
    static const Family kMix;
};

struct LiveTranscodingAdapter::Attempt {
    const char* function;     // function name in the log line of the send
    const char* sendLog;      // format of that line; arguments: generation, number of retries so far, body
    const char* responseLog;  // format of the response's log line; arguments: generation, return code, response
    bool dropsStaleResponse;  // whether a response of an older generation is ignored
};

struct LiveTranscodingAdapter::RequestKind {
    requests::Kind number;
    const Family& family;
    std::shared_ptr<CVexaHttpSendRecv> LiveTranscodingAdapter::*client;
    int32_t LiveTranscodingAdapter::*retries;        // counter of the remaining retries
    int32_t LiveTranscodingAdapter::*tracedCounter;  // retry counter that the trace shows
    std::string (*buildBody)(LiveTranscodingAdapter& self);
    void (LiveTranscodingAdapter::*retryEntry)(int index, std::string trace);
    std::string LiveTranscodingAdapter::*information;  // string of the room event report
    // What `information` holds: the operation's parameter, or the first body, stored before or after it is logged.
    enum Stores { kParameter, kBodyBeforeLog, kBodyAfterLog } storesInformation;
    bool traceStartsWithBody;                                           // with the body of the first send
    std::string (LiveTranscodingAdapter::*buildTraceStart)(int index);  // called at the first response; may be null
    bool dropsStaleRetry;                                               // whether a stale retry is not sent
    Attempt first;
    Attempt retry;

    const char* interfaceName() const { return requests::rulesOf(number).interfaceName; }

    static const RequestKind kAddRelay;
    static const RequestKind kRemoveRelay;
    static const RequestKind kStartMix;
    static const RequestKind kCancelMix;
};

// All members are copied under one lock, so that they belong to the same room.
struct LiveTranscodingAdapter::MixSnapshot {
    requests::Sender sender;
    VexaTranscodingConfigInternal config;
};

namespace {

using Adapter = LiveTranscodingAdapter;

// Names for the bool values in the rows of the table below.
constexpr bool kTraceStartsEmpty = false;
constexpr bool kTraceStartsWithBody = true;
constexpr bool kSendsStaleRetry = false;
constexpr bool kDropsStaleRetry = true;
constexpr bool kEvaluatesStaleResponse = false;
constexpr bool kDropsStaleResponse = true;

}  // namespace

// All differences between the kinds. The rows differ in odd ways (a relay stop traces the counter of relay starts, for
// example). This is intended and prescribed by the interface.
// clang-format off
const Adapter::Family Adapter::Family::kRelay = {
    requests::kRelay, &Adapter::cdnTaskIndex, &Adapter::retryStartCdnCnt, &Adapter::retryStopCdnCnt};
const Adapter::Family Adapter::Family::kMix = {
    requests::kMix, &Adapter::mixTaskIndex, &Adapter::retryStartMixCnt, &Adapter::retryCancelMixCnt};

const Adapter::RequestKind Adapter::RequestKind::kAddRelay = {
    requests::kAddRelay, Family::kRelay,
    &Adapter::mStartCdnHttp, &Adapter::retryStartCdnCnt, /* traced */ &Adapter::retryStartCdnCnt,
    [](Adapter& self) { return self.getAddPublisherData(self.mPublishCDNParam.url); },
    &Adapter::retryAddPublishUrlInner,
    &Adapter::mStartCdnInfo, kParameter, kTraceStartsWithBody, nullptr, kSendsStaleRetry,
    {"addPublishUrlInner",
     "addPublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
     "addPublishUrlInner index: %d, ret: %lu, respData: %s",
     kDropsStaleResponse},
    {kInTask,
     "retryAddPublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
     "retryAddPublishUrlInner index: %d, ret: %lu, respData: %s",
     kDropsStaleResponse},
};

const Adapter::RequestKind Adapter::RequestKind::kRemoveRelay = {
    requests::kRemoveRelay, Family::kRelay,
    &Adapter::mStopCdnHttp, &Adapter::retryStopCdnCnt, /* traced */ &Adapter::retryStartCdnCnt,
    [](Adapter& self) { return self.getRemovePublisherData(); },
    &Adapter::retryRemovePublishUrlInner,
    &Adapter::mStopCdnInfo, kBodyBeforeLog, kTraceStartsEmpty, nullptr, kDropsStaleRetry,
    {"removePublishUrlInner",
     "removePublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
     "removePublishUrlInner index: %d, ret: %lu, respData: %s",
     kDropsStaleResponse},
    {kInTask,
     "retryRemovePublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
     "retryRemovePublishUrlInner index: %d, ret: %lu, respData: %s",
     kEvaluatesStaleResponse},
};

const Adapter::RequestKind Adapter::RequestKind::kStartMix = {
    requests::kStartMix, Family::kMix,
    &Adapter::mStartMixHttp, &Adapter::retryStartMixCnt, /* traced */ &Adapter::retryStartMixCnt,
    [](Adapter& self) { return self.getMixPostData(); },
    &Adapter::retryStartMixStream,
    &Adapter::mStartMixInfo, kParameter, kTraceStartsEmpty, &Adapter::getReportMixPostData, kDropsStaleRetry,
    {"startMixStream",
     "startMixStream index: %d, retryStartMixCnt:%d, jsonStr: %s",
     "startMixStream index: %d, ret: %lu, respData: %s",
     kDropsStaleResponse},
    {kInTask,
     "retryStartMixStream index: %d, retryStartMixCnt:%d, jsonStr: %s",
     "retryStartMixStream index: %d, ret: %lu, respData: %s",
     kEvaluatesStaleResponse},
};

const Adapter::RequestKind Adapter::RequestKind::kCancelMix = {
    requests::kCancelMix, Family::kMix,
    &Adapter::mCancelMixHttp, &Adapter::retryCancelMixCnt, /* traced */ &Adapter::retryCancelMixCnt,
    [](Adapter& self) { return self.getCancelMixPostData(); },
    &Adapter::retryCancelMixStream,
    &Adapter::mCancelMixInfo, kBodyAfterLog, kTraceStartsEmpty, nullptr, kDropsStaleRetry,
    {"cancelMixStream",
     "index: %d, retryCancelMixCnt:%d, jsonStr: %s",
     "index: %d, ret: %lu, respData: %s",
     kDropsStaleResponse},
    {kInTask,
     "index: %d, retryStartMixCnt:%d, jsonStr: %s",
     "index: %d, ret: %lu, respData: %s",
     kEvaluatesStaleResponse},
};
// clang-format on

// ---- Posting and notifying ------------------------------------------------------------------------------------------

// Wraps `work` for a later call on another thread. The wrapper holds a weak reference to the adapter. It calls `work`
// only if the adapter still exists.
template <class F>
auto LiveTranscodingAdapter::whileAlive(F work) {
    const std::shared_ptr<LiveTranscodingAdapter> self = weak_from_this().lock();
    if (!self) {
        std::abort();  // owned by no shared pointer, or being destroyed
    }
    return [weak = std::weak_ptr<LiveTranscodingAdapter>(self), work = std::move(work)](auto&&... arguments) mutable {
        if (const auto alive = weak.lock()) {
            work(arguments...);
        }
    };
}

template <class F>
void LiveTranscodingAdapter::post(F task) {
    mMessageLoop->PostTask(whileAlive(std::move(task)));
}

void LiveTranscodingAdapter::notify(void (ILiveTrancodingDelegate::*call)(int, std::string), int errCode,
                                    std::string errMsg) {
    std::shared_ptr<ILiveTrancodingDelegate> listener;
    {
        KstMutexLock lock(mMutex);
        listener = mDelegate.lock();
    }
    if (listener) {
        (listener.get()->*call)(errCode, std::move(errMsg));
    }
}

void LiveTranscodingAdapter::notify(const requests::Refusal& refusal) {
    notify(refusal.listenerCall, refusal.code, refusal.message);
}

// ---- Identity and room ----------------------------------------------------------------------------------------------

LiveTranscodingAdapter::LiveTranscodingAdapter()
    : mStartCdnHttp(std::make_shared<CVexaHttpSendRecv>()),
      mStopCdnHttp(std::make_shared<CVexaHttpSendRecv>()),
      mStartMixHttp(std::make_shared<CVexaHttpSendRecv>()),
      mCancelMixHttp(std::make_shared<CVexaHttpSendRecv>()),
      mMessageLoop(std::make_shared<KstMessageLoop>()) {}

LiveTranscodingAdapter::~LiveTranscodingAdapter() {
    mMessageLoop->stop();
}

void LiveTranscodingAdapter::resetInfo() {
    {
        KstMutexLock lock(mMutex);
        supersede(Family::kMix);
        supersede(Family::kRelay);
    }
    post([this] {
        mIsEnterRoom = mPendingMix = mPendingCdn = false;
        mPublishCDNParam = VexaPublishCDNParamInternal();
        clear();
    });
}

void LiveTranscodingAdapter::updateUserInfo(int64_t sdkAppId, std::string userSig, std::string userId) {
    post([this, sdkAppId, userSig = std::move(userSig), userId = std::move(userId)] {
        mSdkAppId = sdkAppId;
        mUserSig = userSig;
        KstMutexLock lock(mMutex);
        mUserId = userId;
    });
}

void LiveTranscodingAdapter::updateEnterRoomInfo(std::string roomId, std::string privateMapKey) {
    post([this, roomId = std::move(roomId), privateMapKey = std::move(privateMapKey)] {
        mPrivateMapKey = privateMapKey;
        {
            KstMutexLock lock(mMutex);
            mRoomId = roomId;
        }
        mIsEnterRoom = true;
        if (mPendingCdn) {
            startPublishStreamUrl(mPublishCDNParam);
        }
        if (mPendingMix) {
            setLiveMixTranscoding(mixSnapshot().config);
        }
    });
}

void LiveTranscodingAdapter::setLiveTranscodingDelegate(std::weak_ptr<ILiveTrancodingDelegate> delegate) {
    KstMutexLock lock(mMutex);
    mDelegate.swap(delegate);
}

void LiveTranscodingAdapter::clear() {
    KstMutexLock lock(mMutex);
    requests::clear(mTranscodingConfig);
}

// ---- Relay ----------------------------------------------------------------------------------------------------------

void LiveTranscodingAdapter::startPublishStreamUrl(const VexaPublishCDNParamInternal& param) {
    std::string information = param.to_string();
    int32_t index = 0;
    {
        KstMutexLock lock(mMutex);
        index = supersede(Family::kRelay);
        mStartCdnInfo.swap(information);
    }
    post([this, param, index] {
        // The parameter is checked before the generation: an invalid start is refused even if it is superseded.
        if (!requests::isComplete(param)) {
            kstf_log(kRefusal, kSourceFile, __LINE__, kInTask, "error: url invalid url = %s, appId:%d, bizId:%d",
                     param.url.c_str(), param.appId, param.bizId);
            notify(requests::kInvalidRelay);
            report(RequestKind::kAddRelay, requests::kInvalidRelay.message);
            return;
        }
        if (dropStale(Family::kRelay, index)) {
            return;
        }
        {
            KstMutexLock lock(mMutex);
            mBizId = param.bizId;
        }
        mAppId = param.appId;
        mPublishCDNParam = param;
        mPendingCdn = !mIsEnterRoom;
        if (mIsEnterRoom) {
            addPublishUrlInner(index);
        } else {
            kstf_log(kProgress, kSourceFile, __LINE__, kInTask, kNotInRoom);
            report(RequestKind::kAddRelay, kNotInRoom);
        }
    });
}

void LiveTranscodingAdapter::stopPublishStreamUrl() {
    int32_t index = 0;
    {
        KstMutexLock lock(mMutex);
        index = supersede(Family::kRelay);
    }
    post([this, index] {
        if (dropStale(Family::kRelay, index)) {
            return;
        }
        mPendingCdn = false;
        if (mAppId == 0) {
            kstf_log(kProgress, kSourceFile, __LINE__, kInTask, "%s", requests::kNoRelayToStop.message);
            notify(requests::kNoRelayToStop);
            return;
        }
        removePublishUrlInner(index);
    });
}

// ---- Mix ------------------------------------------------------------------------------------------------------------

int32_t LiveTranscodingAdapter::setLiveMixTranscoding(const VexaTranscodingConfigInternal& config) {
    std::string information = config.to_string();
    int32_t index = 0;
    {
        KstMutexLock lock(mMutex);
        index = supersede(Family::kMix);
        mStartMixInfo.swap(information);
    }
    post([this, config, index] {
        const auto refuse = [this](const requests::Refusal& refusal) {
            notify(refusal);
            report(RequestKind::kStartMix, refusal.message);
        };
        const bool bPureAudio = isPureAudioStream(config.mixUsersArray);
        kstf_log(kProgress, kSourceFile, __LINE__, kInTask, "bPureAudio:%d", bPureAudio);
        // As in a relay start, the fields are checked before the generation. The users are checked after it.
        if (!requests::isComplete(config, bPureAudio)) {
            // The 17 spaces are part of the interface.
            kstf_log(kRefusal, kSourceFile, __LINE__, kInTask,
                     "setLiveMixTranscoding error: param invalid, appId:%d, bizId:%d, videoWidth:%d, videoHeight:%d, "
                     "videoBitrate:%d, videoFramerate:%d, videoGOP:%d,                 audioSampleRate:%d, "
                     "audioBitrate:%d, audioChannels:%d,",
                     config.appId, config.bizId, config.videoWidth, config.videoHeight, config.videoBitrate,
                     config.videoFramerate, config.videoGOP, config.audioSampleRate, config.audioBitrate,
                     config.audioChannels);
            refuse(requests::kInvalidMix);
            return;
        }
        if (dropStale(Family::kMix, index)) {
            return;
        }
        if (checkMixConfig(config.mixUsersArray, bPureAudio) != 0) {
            kstf_log(kRefusal, kSourceFile, __LINE__, kInTask, "error: checkMixConfig ret invalid cnt:%d",
                     static_cast<int>(config.mixUsersArray.size()));
            refuse(requests::kInvalidMixUsers);
            return;
        }
        {
            KstMutexLock lock(mMutex);
            mBizId = config.bizId;
            mTranscodingConfig = config;
        }
        mAppId = config.appId;
        mPendingMix = !mIsEnterRoom;
        if (mIsEnterRoom) {
            if (!bPureAudio) {
                sortMixConfig();
            }
            startMixStream(index);
        } else {
            kstf_log(kRefusal, kSourceFile, __LINE__, kInTask, kNotInRoom);
            report(RequestKind::kStartMix, kNotInRoom);
        }
    });
    return 0;
}

void LiveTranscodingAdapter::stopLiveMixTranscoding() {
    int32_t index = 0;
    {
        KstMutexLock lock(mMutex);
        index = supersede(Family::kMix);
    }
    post([this, index] {
        if (dropStale(Family::kMix, index)) {
            return;
        }
        mPendingMix = false;
        if (mAppId == 0) {
            kstf_log(kProgress, kSourceFile, __LINE__, kInTask, "%s", requests::kNoMixToStop.message);
            notify(requests::kNoMixToStop);
            return;
        }
        clear();
        cancelMixStream(index);
    });
}

bool LiveTranscodingAdapter::isPureAudioStream(std::vector<VexaMixUserInternal> users) {
    return requests::isPureAudio(users);
}

int32_t LiveTranscodingAdapter::checkMixConfig(std::vector<VexaMixUserInternal> users, bool bPureAudio) {
    const requests::MixUsersCheck check = requests::checkMixUsers(users, bPureAudio);
    switch (check.error) {
        case requests::MixUsersError::kNone:
            return 0;
        case requests::MixUsersError::kNoUsers:
            kstf_log(kRefusal, kSourceFile, __LINE__, __func__, "error: config or config.mixUser can't be null");
            break;
        case requests::MixUsersError::kLayerOutOfRange:
            // The message is part of the interface. Layer 0 is valid, too.
            kstf_log(kRefusal, kSourceFile, __LINE__, __func__,
                     "error : zOrder invalid!zOrder = %d.must between 1 and 16!", check.zOrder);
            break;
        case requests::MixUsersError::kLayerNotUnique:
            kstf_log(kRefusal, kSourceFile, __LINE__, __func__, "error : zOrder can't be the same! zOrder = %d",
                     check.zOrder);
            break;
    }
    return -1;
}

bool LiveTranscodingAdapterSortFun(const VexaMixUserInternal& a, const VexaMixUserInternal& b) {
    return a.zOrder < b.zOrder;
}

void LiveTranscodingAdapter::sortMixConfig() {
    KstMutexLock lock(mMutex);
    std::sort(mTranscodingConfig.mixUsersArray.begin(), mTranscodingConfig.mixUsersArray.end(),
              LiveTranscodingAdapterSortFun);
}

// ---- Generations ----------------------------------------------------------------------------------------------------

// Each start, stop and reset begins a new generation of its family. Operations of an earlier generation are stale.

// Makes all earlier work of the family stale and ends its retries. Returns the number of the new generation.
int32_t LiveTranscodingAdapter::supersede(const Family& family) {
    guarded(family.startCounter) = 0;
    guarded(family.stopCounter) = 0;
    return ++guarded(family.generation);
}

bool LiveTranscodingAdapter::isStale(const Family& family, int32_t index) {
    return read(family.generation) != index;
}

bool LiveTranscodingAdapter::dropStale(const Family& family, int32_t index) {
    const int32_t current = read(family.generation);
    if (current == index) {
        return false;
    }
    // The label is cdnTaskIndex for mix work, too (intended, prescribed by the interface).
    kstf_log(kProgress, kSourceFile, __LINE__, kInTask, "index:%d, cdnTaskIndex:%d", index, current);
    return true;
}

// ---- The engine -----------------------------------------------------------------------------------------------------

void LiveTranscodingAdapter::sendFirst(const RequestKind& kind, int32_t index) {
    {
        KstMutexLock lock(mMutex);
        guarded(kind.retries) = kRetryBudget;
    }
    const std::string url = getServerUrl(kind.interfaceName());
    const std::string body = kind.buildBody(*this);
    if (kind.storesInformation == RequestKind::kBodyBeforeLog) {
        storeInformation(kind, body);
    }
    logSend(kind, kind.first, index, body);
    if (kind.storesInformation == RequestKind::kBodyAfterLog) {
        storeInformation(kind, body);
    }
    send(kind, kind.first, index, url, body, kind.traceStartsWithBody ? body : std::string());
}

void LiveTranscodingAdapter::storeInformation(const RequestKind& kind, std::string body) {
    KstMutexLock lock(mMutex);
    guarded(kind.information).swap(body);
}

void LiveTranscodingAdapter::logSend(const RequestKind& kind, const Attempt& attempt, int32_t index,
                                     const std::string& body) {
    kstf_log(kProgress, kSourceFile, __LINE__, attempt.function, attempt.sendLog, index,
             kRetryBudget - read(kind.retries), body.c_str());
}

void LiveTranscodingAdapter::send(const RequestKind& kind, const Attempt& attempt, int32_t index,
                                  const std::string& url, const std::string& body, std::string trace) {
    KstCopyOnWriteBuffer buffer(reinterpret_cast<const uint8_t*>(body.data()), body.size());
    (this->*kind.client)
        ->sendHttpsRequest(buffer, url,
                           whileAlive([this, &kind, &attempt, index, trace = std::move(trace)](
                                          int retCode, KstCopyOnWriteBuffer& response) mutable {
                               receive(kind, attempt, index, std::move(trace), retCode, response);
                           }));
}

// Runs on the client's delivery thread. Retries the request or ends it.
void LiveTranscodingAdapter::receive(const RequestKind& kind, const Attempt& attempt, int32_t index, std::string trace,
                                     int retCode, const KstCopyOnWriteBuffer& response) {
    if (attempt.dropsStaleResponse && isStale(kind.family, index)) {
        return;
    }
    std::string respData(reinterpret_cast<const char*>(response.cdata()), response.size());
    if (kind.buildTraceStart && &attempt == &kind.first) {
        trace = (this->*kind.buildTraceStart)(index);
    }
    trace += requests::traceSegment(read(kind.tracedCounter), retCode, respData);
    kstf_log(kProgress, kSourceFile, __LINE__, kInTask, attempt.responseLog, index,
             static_cast<unsigned long>(static_cast<uint32_t>(retCode)), respData.c_str());
    if (isRetryRequest(retCode, respData, kind.number) && useRetry(kind)) {
        (this->*kind.retryEntry)(index, std::move(trace));
        return;
    }
    responeRequest(retCode, std::move(respData), kind.number);
    report(kind, std::move(trace));
}

bool LiveTranscodingAdapter::useRetry(const RequestKind& kind) {
    KstMutexLock lock(mMutex);
    if (guarded(kind.retries) <= 0) {
        return false;
    }
    --guarded(kind.retries);
    return true;
}

// Sends the request again after the delay, with a new URL and a new body.
void LiveTranscodingAdapter::retry(const RequestKind& kind, int32_t index, std::string trace) {
    const std::chrono::milliseconds delay(getDelayTime(kRetryBudget - read(kind.retries)));
    mMessageLoop->DelayPostTask(delay, whileAlive([this, &kind, index, trace = std::move(trace)]() mutable {
                                    if (kind.dropsStaleRetry && isStale(kind.family, index)) {
                                        return;
                                    }
                                    const std::string url = getServerUrl(kind.interfaceName());
                                    const std::string body = kind.buildBody(*this);
                                    logSend(kind, kind.retry, index, body);
                                    send(kind, kind.retry, index, url, body, std::move(trace));
                                }));
}

int LiveTranscodingAdapter::getDelayTime(int n) {
    return retryDelay(n);
}

void LiveTranscodingAdapter::addPublishUrlInner(int index) {
    sendFirst(RequestKind::kAddRelay, index);
}

void LiveTranscodingAdapter::retryAddPublishUrlInner(int index, std::string trace) {
    retry(RequestKind::kAddRelay, index, std::move(trace));
}

void LiveTranscodingAdapter::removePublishUrlInner(int index) {
    sendFirst(RequestKind::kRemoveRelay, index);
}

void LiveTranscodingAdapter::retryRemovePublishUrlInner(int index, std::string trace) {
    retry(RequestKind::kRemoveRelay, index, std::move(trace));
}

void LiveTranscodingAdapter::startMixStream(int index) {
    sendFirst(RequestKind::kStartMix, index);
}

void LiveTranscodingAdapter::retryStartMixStream(int index, std::string trace) {
    retry(RequestKind::kStartMix, index, std::move(trace));
}

void LiveTranscodingAdapter::cancelMixStream(int index) {
    sendFirst(RequestKind::kCancelMix, index);
}

void LiveTranscodingAdapter::retryCancelMixStream(int index, std::string trace) {
    retry(RequestKind::kCancelMix, index, std::move(trace));
}

bool LiveTranscodingAdapter::isRetryRequest(int retCode, std::string respData, int kind) {
    return requests::isRetried(retCode, respData, kind);
}

int LiveTranscodingAdapter::responeRequest(int retCode, std::string respData, int kind) {
    requests::Evaluation evaluation = requests::evaluate(retCode, respData, kind);
    for (requests::Notification& notification : evaluation.notifications) {
        notify(requests::rulesOf(kind).listenerCall, notification.code, std::move(notification.message));
    }
    return evaluation.result;
}

// ---- Values of every request ----------------------------------------------------------------------------------------

std::string LiveTranscodingAdapter::getServerUrl(std::string interfaceName) {
    return requests::requestUrl(CGI_VEXALIVE_SERVER.get(), interfaceName,
                                {mSdkAppId, std::rand() % 10000, mUserSig, mPrivateMapKey});
}

requests::Envelope LiveTranscodingAdapter::nextEnvelope() {
    return {mAppId, getCurrentSec(), getEventIdSeq()};
}

// Seconds since an arbitrary origin, not wall-clock time.
uint32_t LiveTranscodingAdapter::getCurrentSec() {
    return static_cast<uint32_t>(kstf_gettickcount()) / 1000;
}

// One sequence for all adapters of the process.
int32_t LiveTranscodingAdapter::getEventIdSeq() {
    static std::atomic<int32_t> eventid{0};
    int32_t last = eventid;
    int32_t next = 0;
    do {
        const uint32_t base =
            last != 0 ? static_cast<uint32_t>(last) : static_cast<uint32_t>(kstf_getutctick()) / 1000 + 10;
        next = static_cast<int32_t>(base + 1);
    } while (!eventid.compare_exchange_weak(last, next));
    return next;
}

std::string LiveTranscodingAdapter::getStreamId(std::string roomId, std::string userId, bool isMain) {
    return requests::streamId(read(&LiveTranscodingAdapter::mBizId), roomId, userId, isMain);
}

std::string LiveTranscodingAdapter::getMD5(std::string text, bool /*flag*/) {
    return kstmedia::getMD5(text);
}

// ---- Bodies ---------------------------------------------------------------------------------------------------------

std::string LiveTranscodingAdapter::getAddPublisherData(std::string destUrl) {
    return requests::addRelayBody(nextEnvelope(), sender(), destUrl);
}

std::string LiveTranscodingAdapter::getRemovePublisherData() {
    return requests::removeRelayBody(nextEnvelope(), sender());
}

std::string LiveTranscodingAdapter::getMixPostData() {
    const MixSnapshot mix = mixSnapshot();
    return requests::startMixBody(nextEnvelope(), mix.sender, mix.config);
}

std::string LiveTranscodingAdapter::getReportMixPostData(int index) {
    const MixSnapshot mix = mixSnapshot();
    return requests::mixDescription(index, mix.sender, mix.config);
}

std::string LiveTranscodingAdapter::getCancelMixPostData() {
    return requests::cancelMixBody(nextEnvelope(), sender());
}

requests::Sender LiveTranscodingAdapter::sender() {
    KstMutexLock lock(mMutex);
    return {mBizId, mRoomId, mUserId};
}

LiveTranscodingAdapter::MixSnapshot LiveTranscodingAdapter::mixSnapshot() {
    KstMutexLock lock(mMutex);
    return {{mBizId, mRoomId, mUserId}, mTranscodingConfig};
}

// ---- The report -----------------------------------------------------------------------------------------------------

// Reports the information that the member holds now. A newer operation may have replaced it since the request was sent.
void LiveTranscodingAdapter::report(const RequestKind& kind, std::string detail) {
    reportTaskInfo(kind.family.rules.reportEvent, read(kind.information), std::move(detail));
}

void LiveTranscodingAdapter::reportTaskInfo(int event, std::string information, std::string detail) {
    post([this, event, information = std::move(information), detail = std::move(detail)] {
        const requests::Sender user = sender();
        const auto sdkAppId = static_cast<int32_t>(mSdkAppId);  // the low 32 bits
        if (mSdkAppId == 0 || user.userId.empty()) {
            kstf_log(kRefusal, kSourceFile, __LINE__, kInTask, "mSdkAppId:%d, self->mUserId:%s", sdkAppId,
                     user.userId.c_str());
        }
        const std::string roomUser = user.roomId + "_" + user.userId;
        const std::string input = std::string("sdkver:") + kstf_get_sdk_version() + " " + information;
        kstReportAvRoomEvt(sdkAppId, 0, roomUser.c_str(), kRoomEventType, event, input.c_str(), detail.c_str());
    });
}
