// The story of a request, in this order: what differs between the kinds (one table), identity and room, the four public
// operations, the engine that sends, receives and retries, the judging of answers, the bodies, and the report.

#include "Com/LiveTranscodingAdapter.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <utility>

#include "base/CVexaHttpSendRecv.h"
#include "base/Clock.h"
#include "base/EventReport.h"
#include "base/Json.h"
#include "base/KstMessageLoop.h"
#include "base/Log.h"
#include "base/Md5.h"
#include "base/RetrySchedule.h"
#include "base/ServiceAddress.h"
#include "base/Version.h"

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaPublishCDNParamInternal;
using kstmedia::VexaTranscodingConfigInternal;

namespace {

constexpr const char* kSourceFile = "LiveTranscodingAdapter.cpp";
constexpr const char* kInTask = "operator()";  // the function name of a line written in a posted task or an answer
constexpr int kProgress = 2;                   // log levels
constexpr int kRefusal = 4;

constexpr int kRoomEventType = 10004;
constexpr const char* kSuccess = "sucess";  // spelling is part of the interface
constexpr const char* kNotInRoom = "not enterRoom status";
constexpr const char* kRelayParamInvalid = "startPublishStreamUrl failure, param is invalid";
constexpr const char* kMixParamInvalid = "setLiveMixTranscoding failure, param is invalid";
constexpr const char* kMixUsersInvalid = "mixUsersArray is invalid";
constexpr const char* kNoRelayToStop =
    "stopPublishStreamUrl error, appid = 0, should call startPublishStreamUrl before";
constexpr const char* kNoMixToStop = "stopLiveMixTranscoding error, appid = 0, should call startMixTranscoding before";

constexpr int32_t kNotSet = -1;          // an output field that is left to the service
constexpr int32_t kAuxiliaryStream = 2;  // VexaMixUserInternal::streamType
constexpr uint32_t kLayers = 17;         // zOrder 0 to 16
constexpr int kCanvasInput = 3;          // "input_type"
constexpr int kAudioInput = 4;           // "input_type"
constexpr int kVideoInput = 0;           // "input_type"

// Made when the program starts, or earlier if an adapter is at work before main. Never destroyed, since a worker may
// still send while the process exits.
const std::string& serverUrl() {
    static const std::string& url =
        *new std::string("https://" + std::string(kstf_get_live_service_host()) + "/v3/liveinterface/");
    return url;
}
const std::string& CGI_VEXALIVE_SERVER = serverUrl();

// printf into a string of at most 4094 characters; the format itself if it cannot be printed.
#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
std::string
VexaFormatString(const char* format, ...) {
    char text[4095];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return length < 0 ? format : text;
}

void forget(VexaTranscodingConfigInternal& config) {
    config.appId = config.bizId = 0;
    config.videoWidth = config.videoHeight = config.videoBitrate = config.videoFramerate = config.videoGOP = 0;
    config.audioSampleRate = config.audioBitrate = config.audioChannels = 0;
    config.mixUsersArray.clear();
}

// All fields for a mix with video, only the ids for one of audio alone. -1 is a value.
bool isComplete(const VexaTranscodingConfigInternal& config, bool bPureAudio) {
    if (config.appId == 0 || config.bizId == 0) {
        return false;
    }
    return bPureAudio || (config.videoWidth != 0 && config.videoHeight != 0 && config.videoBitrate != 0 &&
                          config.videoFramerate != 0 && config.videoGOP != 0 && config.audioSampleRate != 0 &&
                          config.audioBitrate != 0 && config.audioChannels != 0);
}

json::Object mixInput(std::string streamId, json::Object layout) {
    json::Object input;
    input["input_stream_id"] = std::move(streamId);
    input["layout_params"] = std::move(layout);
    return input;
}

}  // namespace

// ---- What differs ---------------------------------------------------------------------------------------------------

// Relay work and mix work.
struct LiveTranscodingAdapter::Family {
    int32_t LiveTranscodingAdapter::*generation;
    int32_t LiveTranscodingAdapter::*startCounter;
    int32_t LiveTranscodingAdapter::*stopCounter;
    int reportEvent;
    int transportError;  // listener codes
    int unreadableError;
    int serverErrorBase;  // a server's code c is told as this less |c|

    static const Family kRelay;
    static const Family kMix;
};

// The first send of a request, or its retries.
struct LiveTranscodingAdapter::Attempt {
    const char* function;   // whose name the send's log line carries
    const char* sendLog;    // shows the index, the tries made and the body
    const char* answerLog;  // shows the index, the return code and the answer
    bool dropsStaleAnswer;  // an answer whose generation is over
};

// One kind of request.
struct LiveTranscodingAdapter::RequestKind {
    int number;
    const Family& family;
    const char* interfaceName;
    std::shared_ptr<CVexaHttpSendRecv> LiveTranscodingAdapter::*client;
    int32_t LiveTranscodingAdapter::*retries;        // left
    int32_t LiveTranscodingAdapter::*tracedCounter;  // the one that the trace prints
    std::string LiveTranscodingAdapter::*information;
    void (ILiveTrancodingDelegate::*listenerCall)(int, std::string);
    bool (*isRetriedCode)(int64_t c);  // of a server's code, without its sign
    std::string (*buildBody)(LiveTranscodingAdapter& self);
    void (LiveTranscodingAdapter::*retryEntry)(int index, std::string trace);
    bool reportsBody;         // the first body becomes the report's information
    bool opensTraceWithBody;  // with the first one
    std::string (LiveTranscodingAdapter::*opensTraceWith)(int index);  // asked when the first answer comes; may be null
    bool dropsStaleRetry;                                              // checks the generation before it sends again
    Attempt first;
    Attempt retry;

    static const RequestKind kAddRelay;
    static const RequestKind kRemoveRelay;
    static const RequestKind kStartMix;
    static const RequestKind kCancelMix;

    static const RequestKind& byNumber(int number);
};

namespace {

using Adapter = LiveTranscodingAdapter;
using Delegate = ILiveTrancodingDelegate;

constexpr bool kReportsParameter = false;
constexpr bool kReportsBody = true;
constexpr bool kTraceOpensEmpty = false;
constexpr bool kBodyOpensTrace = true;
constexpr bool kSendsStaleRetry = false;
constexpr bool kDropsStaleRetry = true;
constexpr bool kJudgesStaleAnswer = false;
constexpr bool kDropsStaleAnswer = true;

}  // namespace

// The one place where the kinds differ. Every unevenness between the rows is meant and part of the contract.
// clang-format off
const Adapter::Family Adapter::Family::kRelay = {
    &Adapter::cdnTaskIndex, &Adapter::retryStartCdnCnt, &Adapter::retryStopCdnCnt, 30, -3321, -3323, -200000};
const Adapter::Family Adapter::Family::kMix = {
    &Adapter::mixTaskIndex, &Adapter::retryStartMixCnt, &Adapter::retryCancelMixCnt, 31, -3322, -3324, -300000};

const Adapter::RequestKind Adapter::RequestKind::kAddRelay = {
    0, Family::kRelay, "add_relay_stream_url",
    &Adapter::mStartCdnHttp, &Adapter::retryStartCdnCnt, /* traced */ &Adapter::retryStartCdnCnt,
    &Adapter::mStartCdnInfo, &Delegate::onStartPublishStreamUrl,
    [](int64_t c) { return c == 1; },
    [](Adapter& self) { return self.getAddPublisherData(self.mPublishCDNParam.url); },
    &Adapter::retryAddPublishUrlInner,
    kReportsParameter, kBodyOpensTrace, nullptr, kSendsStaleRetry,
    {"addPublishUrlInner",
     "addPublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
     "addPublishUrlInner index: %d, ret: %lu, respData: %s",
     kDropsStaleAnswer},
    {kInTask,
     "retryAddPublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
     "retryAddPublishUrlInner index: %d, ret: %lu, respData: %s",
     kDropsStaleAnswer},
};

const Adapter::RequestKind Adapter::RequestKind::kRemoveRelay = {
    1, Family::kRelay, "remove_relay_stream_url",
    &Adapter::mStopCdnHttp, &Adapter::retryStopCdnCnt, /* traced */ &Adapter::retryStartCdnCnt,
    &Adapter::mStopCdnInfo, &Delegate::onStopPublishStreamUrl,
    [](int64_t) { return false; },
    [](Adapter& self) { return self.getRemovePublisherData(); },
    &Adapter::retryRemovePublishUrlInner,
    kReportsBody, kTraceOpensEmpty, nullptr, kDropsStaleRetry,
    {"removePublishUrlInner",
     "removePublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
     "removePublishUrlInner index: %d, ret: %lu, respData: %s",
     kDropsStaleAnswer},
    {kInTask,
     "retryRemovePublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
     "retryRemovePublishUrlInner index: %d, ret: %lu, respData: %s",
     kJudgesStaleAnswer},
};

const Adapter::RequestKind Adapter::RequestKind::kStartMix = {
    2, Family::kMix, "set_live_mix_transcoding",
    &Adapter::mStartMixHttp, &Adapter::retryStartMixCnt, /* traced */ &Adapter::retryStartMixCnt,
    &Adapter::mStartMixInfo, &Delegate::onSetLiveMixTranscoding,
    [](int64_t c) { return c == 3 || c == 505 || c == 10017; },
    [](Adapter& self) { return self.getMixPostData(); },
    &Adapter::retryStartMixStream,
    kReportsParameter, kTraceOpensEmpty, &Adapter::getReportMixPostData, kDropsStaleRetry,
    {"startMixStream",
     "startMixStream index: %d, retryStartMixCnt:%d, jsonStr: %s",
     "startMixStream index: %d, ret: %lu, respData: %s",
     kDropsStaleAnswer},
    {kInTask,
     "retryStartMixStream index: %d, retryStartMixCnt:%d, jsonStr: %s",
     "retryStartMixStream index: %d, ret: %lu, respData: %s",
     kJudgesStaleAnswer},
};

const Adapter::RequestKind Adapter::RequestKind::kCancelMix = {
    3, Family::kMix, "set_live_mix_transcoding",
    &Adapter::mCancelMixHttp, &Adapter::retryCancelMixCnt, /* traced */ &Adapter::retryCancelMixCnt,
    &Adapter::mCancelMixInfo, &Delegate::onStopLiveMixTranscoding,
    [](int64_t) { return false; },
    [](Adapter& self) { return self.getCancelMixPostData(); },
    &Adapter::retryCancelMixStream,
    kReportsBody, kTraceOpensEmpty, nullptr, kDropsStaleRetry,
    {"cancelMixStream",
     "index: %d, retryCancelMixCnt:%d, jsonStr: %s",
     "index: %d, ret: %lu, respData: %s",
     kDropsStaleAnswer},
    {kInTask,
     "index: %d, retryStartMixCnt:%d, jsonStr: %s",
     "index: %d, ret: %lu, respData: %s",
     kJudgesStaleAnswer},
};
// clang-format on

const LiveTranscodingAdapter::RequestKind& LiveTranscodingAdapter::RequestKind::byNumber(int number) {
    static constexpr const RequestKind* kKinds[] = {&kAddRelay, &kRemoveRelay, &kStartMix, &kCancelMix};
    return *kKinds[number];
}

// ---- Posting and notifying ------------------------------------------------------------------------------------------

// `work` for another thread and a later time: it does nothing once the adapter is gone, and never keeps it alive.
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
            setLiveMixTranscoding(storedConfig());
        }
    });
}

void LiveTranscodingAdapter::setLiveTranscodingDelegate(std::weak_ptr<ILiveTrancodingDelegate> delegate) {
    KstMutexLock lock(mMutex);
    mDelegate.swap(delegate);
}

void LiveTranscodingAdapter::clear() {
    KstMutexLock lock(mMutex);
    forget(mTranscodingConfig);
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
        // The parameter is judged before the generation: a bad one is told and reported even when superseded.
        if (param.url.empty() || param.appId == 0 || param.bizId == 0) {
            kstf_log(kRefusal, kSourceFile, __LINE__, kInTask, "error: url invalid url = %s, appId:%d, bizId:%d",
                     param.url.c_str(), param.appId, param.bizId);
            notify(&ILiveTrancodingDelegate::onStartPublishStreamUrl, Family::kRelay.unreadableError,
                   kRelayParamInvalid);
            report(RequestKind::kAddRelay, kRelayParamInvalid);
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
            kstf_log(kProgress, kSourceFile, __LINE__, kInTask, kNoRelayToStop);
            notify(&ILiveTrancodingDelegate::onStopLiveMixTranscoding, Family::kRelay.unreadableError, kNoRelayToStop);
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
        const auto refuse = [this](const char* message) {
            notify(&ILiveTrancodingDelegate::onStartPublishStreamUrl, Family::kMix.unreadableError, message);
            report(RequestKind::kStartMix, message);
        };
        const bool bPureAudio = isPureAudioStream(config.mixUsersArray);
        kstf_log(kProgress, kSourceFile, __LINE__, kInTask, "bPureAudio:%d", bPureAudio);
        // As for a relay, the fields are judged before the generation; the users after it.
        if (!isComplete(config, bPureAudio)) {
            kstf_log(kRefusal, kSourceFile, __LINE__, kInTask,
                     "setLiveMixTranscoding error: param invalid, appId:%d, bizId:%d, videoWidth:%d, videoHeight:%d, "
                     "videoBitrate:%d, videoFramerate:%d, videoGOP:%d,                 audioSampleRate:%d, "
                     "audioBitrate:%d, audioChannels:%d,",
                     config.appId, config.bizId, config.videoWidth, config.videoHeight, config.videoBitrate,
                     config.videoFramerate, config.videoGOP, config.audioSampleRate, config.audioBitrate,
                     config.audioChannels);
            refuse(kMixParamInvalid);
            return;
        }
        if (dropStale(Family::kMix, index)) {
            return;
        }
        if (checkMixConfig(config.mixUsersArray, bPureAudio) != 0) {
            kstf_log(kRefusal, kSourceFile, __LINE__, kInTask, "error: checkMixConfig ret invalid cnt:%d",
                     static_cast<int>(config.mixUsersArray.size()));
            refuse(kMixUsersInvalid);
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
            kstf_log(kProgress, kSourceFile, __LINE__, kInTask, kNoMixToStop);
            notify(&ILiveTrancodingDelegate::onStopLiveMixTranscoding, Family::kMix.unreadableError, kNoMixToStop);
            return;
        }
        clear();
        cancelMixStream(index);
    });
}

bool LiveTranscodingAdapter::isPureAudioStream(std::vector<VexaMixUserInternal> users) {
    return std::all_of(users.begin(), users.end(), [](const VexaMixUserInternal& user) { return user.pureAudio; });
}

int32_t LiveTranscodingAdapter::checkMixConfig(std::vector<VexaMixUserInternal> users, bool bPureAudio) {
    if (users.empty()) {
        kstf_log(kRefusal, kSourceFile, __LINE__, __func__, "error: config or config.mixUser can't be null");
        return -1;
    }
    if (bPureAudio) {
        return 0;
    }
    bool used[kLayers] = {};
    for (const VexaMixUserInternal& user : users) {
        const auto layer = static_cast<uint32_t>(user.zOrder);
        if (layer >= kLayers) {
            // Layer 0 passes although the text says 1.
            kstf_log(kRefusal, kSourceFile, __LINE__, __func__,
                     "error : zOrder invalid!zOrder = %d.must between 1 and 16!", user.zOrder);
            return -1;
        }
        if (used[layer]) {
            kstf_log(kRefusal, kSourceFile, __LINE__, __func__, "error : zOrder can't be the same! zOrder = %d",
                     user.zOrder);
            return -1;
        }
        used[layer] = true;
    }
    return 0;
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

// Makes all earlier work of the family stale and ends its retries; returns the number of the new generation.
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
    // The label says cdnTaskIndex for mix work, too.
    kstf_log(kProgress, kSourceFile, __LINE__, kInTask, "index:%d, cdnTaskIndex:%d", index, current);
    return true;
}

// ---- The engine -----------------------------------------------------------------------------------------------------

void LiveTranscodingAdapter::sendFirst(const RequestKind& kind, int32_t index) {
    {
        KstMutexLock lock(mMutex);
        guarded(kind.retries) = kRetryBudget;
    }
    const std::string url = getServerUrl(kind.interfaceName);
    const std::string body = kind.buildBody(*this);
    if (kind.reportsBody) {
        KstMutexLock lock(mMutex);
        guarded(kind.information) = body;
    }
    send(kind, kind.first, index, url, body, kind.opensTraceWithBody ? body : std::string());
}

void LiveTranscodingAdapter::send(const RequestKind& kind, const Attempt& attempt, int32_t index,
                                  const std::string& url, const std::string& body, std::string trace) {
    kstf_log(kProgress, kSourceFile, __LINE__, attempt.function, attempt.sendLog, index,
             kRetryBudget - read(kind.retries), body.c_str());
    KstCopyOnWriteBuffer buffer(reinterpret_cast<const uint8_t*>(body.data()), body.size());
    (this->*kind.client)
        ->sendHttpsRequest(buffer, url,
                           whileAlive([this, &kind, &attempt, index, trace = std::move(trace)](
                                          int retCode, KstCopyOnWriteBuffer& response) mutable {
                               receive(kind, attempt, index, std::move(trace), retCode, response);
                           }));
}

// On the delivery thread: another try, or the end.
void LiveTranscodingAdapter::receive(const RequestKind& kind, const Attempt& attempt, int32_t index, std::string trace,
                                     int retCode, const KstCopyOnWriteBuffer& response) {
    if (attempt.dropsStaleAnswer && isStale(kind.family, index)) {
        return;
    }
    std::string respData(reinterpret_cast<const char*>(response.cdata()), response.size());
    if (kind.opensTraceWith && &attempt == &kind.first) {
        trace = (this->*kind.opensTraceWith)(index);
    }
    char head[260] = {};
    std::snprintf(head, sizeof head, " [tryHttp:cnt-%d]retCode:%d, respData:", read(kind.tracedCounter), retCode);
    trace += head;
    trace += respData;
    kstf_log(kProgress, kSourceFile, __LINE__, kInTask, attempt.answerLog, index,
             static_cast<unsigned long>(static_cast<uint32_t>(retCode)), respData.c_str());
    if (isRetryRequest(retCode, respData, kind.number) && takeRetry(kind)) {
        (this->*kind.retryEntry)(index, std::move(trace));
        return;
    }
    responeRequest(retCode, std::move(respData), kind.number);
    report(kind, std::move(trace));
}

bool LiveTranscodingAdapter::takeRetry(const RequestKind& kind) {
    KstMutexLock lock(mMutex);
    if (guarded(kind.retries) <= 0) {
        return false;
    }
    --guarded(kind.retries);
    return true;
}

// After the pause, with an address and a body built anew.
void LiveTranscodingAdapter::retry(const RequestKind& kind, int32_t index, std::string trace) {
    const std::chrono::milliseconds delay(getDelayTime(kRetryBudget - read(kind.retries)));
    mMessageLoop->DelayPostTask(delay, whileAlive([this, &kind, index, trace = std::move(trace)]() mutable {
                                    if (kind.dropsStaleRetry && isStale(kind.family, index)) {
                                        return;
                                    }
                                    const std::string url = getServerUrl(kind.interfaceName);
                                    send(kind, kind.retry, index, url, kind.buildBody(*this), std::move(trace));
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

// ---- Judging answers ------------------------------------------------------------------------------------------------

bool LiveTranscodingAdapter::isRetryRequest(int retCode, std::string respData, int kind) {
    if (retCode == CVexaHttpSendRecv::kTryAgain) {
        return true;
    }
    if (respData.empty()) {
        return true;
    }
    const json::Value answer = json::Deserialize(respData);
    if (answer.isNull()) {
        return true;
    }
    const char* key = answer.HasKey("code") ? "code" : "ErrorCode";
    if (!answer.HasKey(key)) {
        return false;
    }
    return RequestKind::byNumber(kind).isRetriedCode(std::abs(int64_t{answer[key].ToInt()}));
}

int LiveTranscodingAdapter::responeRequest(int retCode, std::string respData, int kind) {
    const RequestKind& request = RequestKind::byNumber(kind);
    const Family& family = request.family;
    const auto tell = [this, &request](int code, std::string message) {
        notify(request.listenerCall, code, std::move(message));
    };
    const auto tellServerError = [&tell, &family](int c, std::string message) {
        const int64_t code = family.serverErrorBase - std::abs(int64_t{c});
        tell(static_cast<int>(std::max<int64_t>(code, std::numeric_limits<int>::min())), std::move(message));
    };

    if (retCode != CVexaHttpSendRecv::kAnswered) {
        tell(family.transportError, VexaFormatString("http post return error， retcode:%d", retCode));
        return -1;
    }
    if (respData.empty()) {
        // Goes on: an empty answer is told twice.
        tell(family.unreadableError, "recv message nil");
    }
    const json::Value answer = json::Deserialize(respData);
    if (answer.isNull()) {
        tell(family.unreadableError, "recv message can't parse");
        return -1;
    }
    if (answer.HasKeys({"code"})) {
        const int c = answer["code"].ToInt();
        if (c != 0) {
            tellServerError(c, answer["message"].ToString());
        } else {
            tell(0, kSuccess);
        }
    } else if (answer.HasKeys({"ErrorCode"})) {
        const int c = answer["ErrorCode"].ToInt();
        if (c != 0) {
            tellServerError(c, answer["ErrorInfo"].ToString());
        } else {
            tell(0, std::string());  // without the word of success
        }
    }
    return 0;
}

// ---- What every request shares --------------------------------------------------------------------------------------

std::string LiveTranscodingAdapter::getServerUrl(std::string interfaceName) {
    const int random = std::rand() % 10000;
    return VexaFormatString("%s%s?sdkappid=%d&random=%d&usersig=%s&parivMapKey=%s", serverUrl().c_str(),
                            interfaceName.c_str(), static_cast<int32_t>(mSdkAppId), random, mUserSig.c_str(),
                            mPrivateMapKey.c_str());
}

json::Object LiveTranscodingAdapter::commonFields(const char* interfaceName) {
    json::Object fields;
    fields["interface"] = interfaceName;
    fields["timestamp"] = static_cast<int>(getCurrentSec());
    fields["event_id"] = getEventIdSeq();
    fields["appid"] = mAppId;
    fields["path"] = "live";
    fields["domain"] = VexaFormatString("%d.%s", read(&LiveTranscodingAdapter::mBizId), kstf_get_push_domain_suffix());
    return fields;
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
    const std::string name = VexaFormatString("%s_%s_%s", roomId.c_str(), userId.c_str(), isMain ? "main" : "aux");
    return VexaFormatString("%d_%s", read(&LiveTranscodingAdapter::mBizId), getMD5(name, false).c_str());
}

std::string LiveTranscodingAdapter::getMD5(std::string text, bool /*flag*/) {
    return kstmedia::getMD5(text);
}

std::string LiveTranscodingAdapter::getLocalStreamId() {
    std::string roomId;
    std::string userId;
    {
        KstMutexLock lock(mMutex);
        roomId = mRoomId;
        userId = mUserId;
    }
    return getStreamId(std::move(roomId), std::move(userId), true);
}

// ---- Bodies ---------------------------------------------------------------------------------------------------------

std::string LiveTranscodingAdapter::getAddPublisherData(std::string destUrl) {
    json::Object body = commonFields(RequestKind::kAddRelay.interfaceName);
    body["stream_id"] = getLocalStreamId();
    body["dest_stream_url"] = std::move(destUrl);
    body["use_mix_crop_center"] = 1;
    return json::Serialize(std::move(body));
}

std::string LiveTranscodingAdapter::getRemovePublisherData() {
    json::Object body = commonFields(RequestKind::kRemoveRelay.interfaceName);
    body["stream_id"] = getLocalStreamId();
    return json::Serialize(std::move(body));
}

std::string LiveTranscodingAdapter::getMixPostData() {
    const VexaTranscodingConfigInternal config = storedConfig();
    const std::string localStreamId = getLocalStreamId();

    json::Object output;
    output["output_stream_id"] = localStreamId;
    output["output_stream_type"] = 0;
    const std::pair<const char*, int32_t> settings[] = {
        {"output_stream_bitrate", config.videoBitrate},      {"output_stream_gop", config.videoGOP},
        {"output_stream_frame_rate", config.videoFramerate}, {"output_audio_sample_rate", config.audioSampleRate},
        {"output_audio_bitrate", config.audioBitrate},       {"output_audio_channels", config.audioChannels},
    };
    for (const auto& [key, value] : settings) {
        if (value != kNotSet) {
            output[key] = value;
        }
    }
    output["output_sei"] = "{}";

    json::Array inputs;
    int layer = 1;
    if (!isPureAudioStream(config.mixUsersArray)) {
        json::Object layout;
        layout["image_layer"] = layer++;
        layout["input_type"] = kCanvasInput;
        layout["image_width"] = config.videoWidth;
        layout["image_height"] = config.videoHeight;
        layout["location_x"] = 0;
        layout["location_y"] = 0;
        layout["color"] = "0x000000";
        inputs.push_back(mixInput("canvas1", std::move(layout)));
    }
    for (const VexaMixUserInternal& user : config.mixUsersArray) {
        json::Object layout;
        layout["input_type"] = user.pureAudio ? kAudioInput : kVideoInput;
        layout["image_layer"] = layer++;
        layout["image_width"] = user.rect.w;
        layout["image_height"] = user.rect.h;
        layout["location_x"] = user.rect.x;
        layout["location_y"] = user.rect.y;
        inputs.push_back(mixInput(getInputStreamId(user), std::move(layout)));
    }

    json::Object body = commonFields(RequestKind::kStartMix.interfaceName);
    body["session_id"] = localStreamId;
    body["output_param"] = std::move(output);
    body["input_stream_list"] = std::move(inputs);
    body["use_mix_crop_center"] = 1;
    return json::Serialize(std::move(body));
}

// The mix as a trace opens with it: shorter than the body, and with running layers.
std::string LiveTranscodingAdapter::getReportMixPostData(int index) {
    const VexaTranscodingConfigInternal config = storedConfig();
    const bool pure = isPureAudioStream(config.mixUsersArray);
    const std::string localStreamId = getLocalStreamId();

    json::Object output;
    output["output_stream_id"] = localStreamId;
    output["output_stream_type"] = 0;

    json::Array inputs;
    int layer = 1;
    if (!pure) {
        json::Object layout;
        layout["image_layer"] = layer++;
        layout["input_type"] = kCanvasInput;
        inputs.push_back(mixInput("canvas1", std::move(layout)));
    }
    for (const VexaMixUserInternal& user : config.mixUsersArray) {
        json::Object layout;
        layout["input_type"] = user.pureAudio ? kAudioInput : kVideoInput;
        layout["image_layer"] = layer++;
        inputs.push_back(mixInput(getInputStreamId(user), std::move(layout)));
    }

    json::Object description;
    description["session_id"] = localStreamId;
    description["output_param"] = std::move(output);
    description["input_stream_list"] = std::move(inputs);

    char head[260] = {};
    std::snprintf(head, sizeof head, "task_id:%d, pureAudioOutputStream:%d, stream: ", index, pure);
    return head + json::Serialize(std::move(description));
}

std::string LiveTranscodingAdapter::getCancelMixPostData() {
    const std::string localStreamId = getLocalStreamId();

    json::Object output;
    output["output_stream_id"] = localStreamId;

    json::Object layout;
    layout["image_layer"] = 1;
    json::Array inputs;
    inputs.push_back(mixInput(localStreamId, std::move(layout)));

    json::Object body = commonFields(RequestKind::kCancelMix.interfaceName);
    body["session_id"] = localStreamId;
    body["output_param"] = std::move(output);
    body["input_stream_list"] = std::move(inputs);
    return json::Serialize(std::move(body));
}

VexaTranscodingConfigInternal LiveTranscodingAdapter::storedConfig() {
    KstMutexLock lock(mMutex);
    return mTranscodingConfig;
}

// An empty room means the local one.
std::string LiveTranscodingAdapter::getInputStreamId(const VexaMixUserInternal& user) {
    std::string roomId = user.roomId;
    if (roomId.empty()) {
        KstMutexLock lock(mMutex);
        roomId = mRoomId;
    }
    return getStreamId(std::move(roomId), user.userId, user.streamType != kAuxiliaryStream);
}

// ---- The report -----------------------------------------------------------------------------------------------------

// The information is the kind's text as it stands now.
void LiveTranscodingAdapter::report(const RequestKind& kind, std::string detail) {
    reportTaskInfo(kind.family.reportEvent, read(kind.information), std::move(detail));
}

void LiveTranscodingAdapter::reportTaskInfo(int event, std::string information, std::string detail) {
    post([this, event, information = std::move(information), detail = std::move(detail)] {
        std::string roomId;
        std::string userId;
        {
            KstMutexLock lock(mMutex);
            roomId = mRoomId;
            userId = mUserId;
        }
        const auto sdkAppId = static_cast<int32_t>(mSdkAppId);  // the low 32 bits
        if (mSdkAppId == 0 || userId.empty()) {
            kstf_log(kRefusal, kSourceFile, __LINE__, kInTask, "mSdkAppId:%d, self->mUserId:%s", sdkAppId,
                     userId.c_str());
        }
        const std::string roomUser = roomId + "_" + userId;
        const std::string text = std::string("sdkver:") + kstf_get_sdk_version() + " " + information;
        kstReportAvRoomEvt(sdkAppId, 0, roomUser.c_str(), kRoomEventType, event, text.c_str(), detail.c_str());
    });
}
