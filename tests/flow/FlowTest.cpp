#include "FlowTest.h"

#include <algorithm>
#include <utility>

#include "base/Md5.h"

// The digests of the platform, whose definition is renamed for this suite; a test may act in between.
struct DigestHook : FlowTest {
    using FlowTest::onDigest;
};

namespace kstmedia {
std::string platformMD5(const std::string& text);

std::string getMD5(const std::string& text) {
    if (const auto hook = std::exchange(DigestHook::onDigest, nullptr)) {
        hook();
    }
    return platformMD5(text);
}
}  // namespace kstmedia

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaPublishCDNParamInternal;
using kstmedia::VexaTranscodingConfigInternal;

// ---- What is seen ---------------------------------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& out, const Kind& kind) {
    return out << kind.name;
}

std::string nameOfKind(const ::testing::TestParamInfo<Kind>& kind) {
    return kind.param.name;
}

std::string filled(std::string format, const std::vector<std::string>& texts) {
    size_t from = 0;
    for (const std::string& text : texts) {
        const size_t field = format.find('%', from);
        const size_t end = format.find_first_of("dsu", field);
        format.replace(field, end + 1 - field, text);
        from = field + text.size();
    }
    return format;
}

void RecordingListener::add(const char* operation, int code, const std::string& text) {
    FakePlatform::instance().order.push_back(operation);
    mNotified.push_back({operation, code, text});
    if (onCall) {
        onCall();
    }
}

// ---- The four kinds -------------------------------------------------------------------------------------------------

// clang-format off
const Kind kAddRelay = {
    "AddRelay", true, true, 0, "add_relay_stream_url", "onStartPublishStreamUrl",
    -3321, -3323, -200000, 30, "addPublishUrlInner",
    "addPublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
    "addPublishUrlInner index: %d, ret: %lu, respData: %s",
    "retryAddPublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
    "retryAddPublishUrlInner index: %d, ret: %lu, respData: %s"};

const Kind kRemoveRelay = {
    "RemoveRelay", true, false, 1, "remove_relay_stream_url", "onStopPublishStreamUrl",
    -3321, -3323, -200000, 30, "removePublishUrlInner",
    "removePublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
    "removePublishUrlInner index: %d, ret: %lu, respData: %s",
    "retryRemovePublishUrlInner index: %d, retryStartCdnCnt:%d, jsonStr: %s",
    "retryRemovePublishUrlInner index: %d, ret: %lu, respData: %s"};

const Kind kStartMix = {
    "StartMix", false, true, 2, "set_live_mix_transcoding", "onSetLiveMixTranscoding",
    -3322, -3324, -300000, 31, "startMixStream",
    "startMixStream index: %d, retryStartMixCnt:%d, jsonStr: %s",
    "startMixStream index: %d, ret: %lu, respData: %s",
    "retryStartMixStream index: %d, retryStartMixCnt:%d, jsonStr: %s",
    "retryStartMixStream index: %d, ret: %lu, respData: %s"};

const Kind kCancelMix = {
    "CancelMix", false, false, 3, "set_live_mix_transcoding", "onStopLiveMixTranscoding",
    -3322, -3324, -300000, 31, "cancelMixStream",
    "index: %d, retryCancelMixCnt:%d, jsonStr: %s",
    "index: %d, ret: %lu, respData: %s",
    "index: %d, retryStartMixCnt:%d, jsonStr: %s",
    "index: %d, ret: %lu, respData: %s"};

// clang-format on

// ---- Given ----------------------------------------------------------------------------------------------------------

FlowTest::FlowTest() {
    mPlatform.reset();
    mAdapter = std::make_shared<LiveTranscodingAdapter>();
    mAdapter->setLiveTranscodingDelegate(mListener);
}

FlowTest::~FlowTest() {
    onDigest = nullptr;
    checkInvariants();
    mAdapter.reset();
    EXPECT_EQ(VirtualTime::queuedTasks() + VirtualTime::delayedTasks(), 0u) << "tasks outlive the adapter";
}

void FlowTest::givenUser() {
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, "alice");
    run();
}

void FlowTest::givenInRoom() {
    givenUser();
    enterRoom();
}

// A stop is only sent when something was started before.
void FlowTest::givenSent(const Kind& kind) {
    givenInRoom();
    if (!kind.isStart) {
        begin(kind.isRelay ? kAddRelay : kStartMix);
        respondOk();
        clearRecords();
    }
    begin(kind);
    ASSERT_EQ(requests().size(), 1u);
}

void FlowTest::givenRetrySent(const Kind& kind) {
    givenSent(kind);
    failAndWaitForRetry();
    ASSERT_EQ(requests().size(), 2u);
}

void FlowTest::clearRecords() {
    checkInvariants();
    clearAllButRequests();
    mPlatform.requests.clear();
    mPlatform.order.clear();
}

void FlowTest::clearAllButRequests() {
    mPlatform.log.clear();
    mPlatform.reports.clear();
    mNotified.clear();
}

void FlowTest::checkInvariants() const {
    const auto expectNoSecretIn = [this](const std::string& text) {
        for (const std::string& secret : mSecrets) {
            EXPECT_EQ(text.find(secret), std::string::npos) << text;
        }
    };
    for (const FakePlatform::LogLine& line : mPlatform.log) {
        EXPECT_EQ(line.file, "LiveTranscodingAdapter.cpp");
        EXPECT_GT(line.line, 0);
        expectNoSecretIn(line.text);
    }
    for (const FakePlatform::Report& report : mPlatform.reports) {
        EXPECT_EQ(report.reserved, 0u);
        EXPECT_EQ(report.eventType, 10004);
        EXPECT_EQ(report.information.rfind("sdkver:9.8.7 ", 0), 0u) << report.information;
        expectNoSecretIn(report.roomUser + report.information + report.detail);
    }
    for (const Notified& call : mNotified) {
        expectNoSecretIn(call.message);
    }
    for (const FakePlatform::Request& request : mPlatform.requests) {
        expectNoSecretIn(request.body);
    }
}

// ---- Records --------------------------------------------------------------------------------------------------------

VexaPublishCDNParamInternal FlowTest::relay(const std::string& url) {
    VexaPublishCDNParamInternal param;
    param.appId = kAppId;
    param.bizId = kBizId;
    param.url = url;
    return param;
}

VexaMixUserInternal FlowTest::user(const std::string& userId, int zOrder) {
    VexaMixUserInternal user;
    user.userId = userId;
    user.rect = {0, 0, 720, 1280};
    user.zOrder = zOrder;
    return user;
}

VexaMixUserInternal FlowTest::audioUser(const std::string& userId) {
    VexaMixUserInternal audio = user(userId, 1);
    audio.pureAudio = true;
    return audio;
}

VexaTranscodingConfigInternal FlowTest::mix(std::vector<VexaMixUserInternal> users) {
    VexaTranscodingConfigInternal config;
    config.mode = 3;
    config.appId = kAppId;
    config.bizId = kBizId;
    config.videoWidth = 720;
    config.videoHeight = 1280;
    config.videoBitrate = 1500;
    config.videoFramerate = 20;
    config.videoGOP = 2;
    config.audioSampleRate = 48000;
    config.audioBitrate = 64;
    config.audioChannels = 2;
    config.mixUsersArray = std::move(users);
    return config;
}

std::string FlowTest::mixText(const std::string& users) {
    return "mode:3, appId:12345, bizId:8888, width:720, height:1280, bitrate:1500, fps:20, gop:2, "
           "audio_samplerate:48000, audio_bitrate:64, audio_channel:2" +
           users;
}

std::string FlowTest::mixText() {
    return mixText(
        " mixUser1:[userId:alice, roomId:, rect:(x:0-y:0-w:720-h:1280), zOrder:1, pureAudio:0, streamType:0]");
}

// ---- When -----------------------------------------------------------------------------------------------------------

void FlowTest::startRelay(const VexaPublishCDNParamInternal& param) {
    mAdapter->startPublishStreamUrl(param);
    run();
}

void FlowTest::startMix(const VexaTranscodingConfigInternal& config) {
    mAdapter->setLiveMixTranscoding(config);
    run();
}

void FlowTest::call(const Kind& kind) {
    if (kind.isRelay) {
        kind.isStart ? mAdapter->startPublishStreamUrl(relay()) : mAdapter->stopPublishStreamUrl();
    } else {
        kind.isStart ? static_cast<void>(mAdapter->setLiveMixTranscoding(mix())) : mAdapter->stopLiveMixTranscoding();
    }
}

void FlowTest::callRefused(const Kind& start) {
    if (start.isRelay) {
        mAdapter->startPublishStreamUrl(relay(""));
    } else {
        VexaTranscodingConfigInternal incomplete = mix();
        incomplete.videoWidth = 0;
        mAdapter->setLiveMixTranscoding(incomplete);
    }
}

void FlowTest::begin(const Kind& kind) {
    call(kind);
    run();
}

void FlowTest::stopLoop() {
    VirtualTime::newestLoop().stop();
}

void FlowTest::enterRoom(const std::string& roomId, const std::string& mapKey) {
    mAdapter->updateEnterRoomInfo(roomId, mapKey);
    run();
}

void FlowTest::reset() {
    mAdapter->resetInfo();
    run();
}

size_t FlowTest::oldestOpenRequest() const {
    const auto& all = requests();
    const auto open =
        std::find_if(all.begin(), all.end(), [](const auto& request) { return request.callback != nullptr; });
    return static_cast<size_t>(open - all.begin());
}

bool FlowTest::hasOpenRequest() const {
    return oldestOpenRequest() != requests().size();
}

void FlowTest::respond(int retCode, const std::string& body) {
    ASSERT_TRUE(hasOpenRequest()) << "there is no open request";
    respondTo(oldestOpenRequest(), retCode, body);
}

void FlowTest::respondTo(size_t request, int retCode, const std::string& body) {
    ASSERT_LT(request, requests().size());
    mPlatform.respond(request, retCode, body);
    run();
}

void FlowTest::failAndWaitForRetry() {
    respond(kTryAgain, "");
    VirtualTime::runUntilQuiet();
}

void FlowTest::respondToAll(int retCode, const std::string& body) {
    while (hasOpenRequest()) {
        respond(retCode, body);
        VirtualTime::runUntilQuiet();
        ASSERT_LT(requests().size(), 100u) << "the retries do not end";
    }
}

// ---- Then -----------------------------------------------------------------------------------------------------------

std::vector<Reported> FlowTest::reports() const {
    std::vector<Reported> all;
    for (const FakePlatform::Report& report : mPlatform.reports) {
        all.push_back({report.event, report.information.substr(sizeof "sdkver:9.8.7 " - 1), report.detail});
    }
    return all;
}

std::vector<Logged> FlowTest::log() const {
    std::vector<Logged> all;
    for (const FakePlatform::LogLine& line : mPlatform.log) {
        all.push_back({line.level, line.function, line.text});
    }
    return all;
}

int FlowTest::eventId(size_t request) const {
    return kFirstEventId + mPlatform.requestsEver - static_cast<int>(requests().size() - request);
}

std::string FlowTest::traceSegment(int counter, int retCode, const std::string& response) {
    return " [tryHttp:cnt-" + std::to_string(counter) + "]retCode:" + std::to_string(retCode) +
           ", respData:" + response;
}

std::vector<int64_t> FlowTest::delays() const {
    std::vector<int64_t> all;
    for (size_t i = 1; i < requests().size(); ++i) {
        const auto pause = request(i).sentAt - request(i - 1).sentAt;
        all.push_back(std::chrono::duration_cast<Milliseconds>(pause).count());
    }
    return all;
}

void FlowTest::expectNoEffects() const {
    EXPECT_THAT(notified(), ::testing::IsEmpty());
    EXPECT_THAT(reports(), ::testing::IsEmpty());
    EXPECT_THAT(log(), ::testing::IsEmpty());
    EXPECT_THAT(requests(), ::testing::SizeIs(0));
}
