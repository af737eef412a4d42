#include "FlowTest.h"

#include <algorithm>
#include <utility>

#include "base/Md5.h"

// For this suite, the platform's getMD5 is compiled as platformMD5. This getMD5 runs the hook of a test before it.
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

// ---- The kinds ------------------------------------------------------------------------------------------------------

std::string nameOfKind(const ::testing::TestParamInfo<Kind>& kind) {
    return rulesOf(kind.param).name;
}

namespace {

struct LogNames {
    const char* function;  // function that logs the first send
    const char* first;     // start of the lines of the first send
    const char* retry;     // start of the lines of retries
    const char* counter;   // name of the counter in the line of the first send
    const char* retryCounter;
};
constexpr LogNames kLogNames[] = {
    {"addPublishUrlInner", "addPublishUrlInner ", "retryAddPublishUrlInner ", "retryStartCdnCnt", "retryStartCdnCnt"},
    {"removePublishUrlInner", "removePublishUrlInner ", "retryRemovePublishUrlInner ", "retryStartCdnCnt",
     "retryStartCdnCnt"},
    {"startMixStream", "startMixStream ", "retryStartMixStream ", "retryStartMixCnt", "retryStartMixCnt"},
    {"cancelMixStream", "", "", "retryCancelMixCnt", "retryStartMixCnt"},
};

}  // namespace

Logged sendLog(Kind kind, int index, int retries, const std::string& body) {
    const LogNames& names = kLogNames[kind];
    const bool isRetry = retries > 0;
    return {2, isRetry ? "operator()" : names.function,
            (isRetry ? names.retry : names.first) + ("index: " + std::to_string(index)) + ", " +
                (isRetry ? names.retryCounter : names.counter) + ":" + std::to_string(retries) + ", jsonStr: " + body};
}

Logged responseLog(Kind kind, int index, bool isRetry, const std::string& retCode, const std::string& response) {
    return {2, "operator()",
            (isRetry ? kLogNames[kind].retry : kLogNames[kind].first) + ("index: " + std::to_string(index)) +
                ", ret: " + retCode + ", respData: " + response};
}

// ---- Given ----------------------------------------------------------------------------------------------------------

FlowTest::FlowTest() {
    mPlatform.reset();
    mListener->during = [this](const Call& call) {
        mPlatform.order.push_back(call.operation);
        mNotified.push_back(call);
        if (onCall) {
            onCall();
        }
    };
    makeAdapter();
}

void FlowTest::makeAdapter() {
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

// A stop is only sent if there was a start before it.
void FlowTest::givenSent(Kind kind) {
    givenInRoom();
    if (!isStart(kind)) {
        begin(startOf(kind));
        respondOk();
        clearRecords();
    }
    begin(kind);
    ASSERT_EQ(requests().size(), 1u);
}

void FlowTest::givenRetrySent(Kind kind) {
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
    for (const Call& call : mNotified) {
        expectNoSecretIn(*call.message);
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

// ---- When -----------------------------------------------------------------------------------------------------------

void FlowTest::startRelay(const VexaPublishCDNParamInternal& param) {
    mAdapter->startPublishStreamUrl(param);
    run();
}

void FlowTest::startMix(const VexaTranscodingConfigInternal& config) {
    mAdapter->setLiveMixTranscoding(config);
    run();
}

void FlowTest::call(Kind kind) {
    switch (kind) {
        case kAddRelay:
            return mAdapter->startPublishStreamUrl(relay());
        case kRemoveRelay:
            return mAdapter->stopPublishStreamUrl();
        case kStartMix:
            return static_cast<void>(mAdapter->setLiveMixTranscoding(mix()));
        case kCancelMix:
            return mAdapter->stopLiveMixTranscoding();
    }
}

void FlowTest::callOther(Kind start) {
    if (isRelay(start)) {
        mAdapter->startPublishStreamUrl(relay(kOtherUrl));
    } else {
        mAdapter->setLiveMixTranscoding(mix({user("bob", 1)}));
    }
}

void FlowTest::callRefused(Kind start) {
    if (isRelay(start)) {
        mAdapter->startPublishStreamUrl(relay(""));
    } else {
        VexaTranscodingConfigInternal incomplete = mix();
        incomplete.videoWidth = 0;
        mAdapter->setLiveMixTranscoding(incomplete);
    }
}

void FlowTest::begin(Kind kind) {
    call(kind);
    run();
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

std::vector<Kind> FlowTest::sent() const {
    std::vector<Kind> kinds;
    for (const FakePlatform::Request& request : requests()) {
        kinds.push_back(static_cast<Kind>(request.client));
    }
    return kinds;
}

bool FlowTest::hasOpenRequest() const {
    return oldestOpenRequest() != requests().size();
}

void FlowTest::respond(int retCode, const std::string& body) {
    ASSERT_TRUE(hasOpenRequest());
    respondTo(oldestOpenRequest(), retCode, body);
}

void FlowTest::respondTo(size_t request, int retCode, const std::string& body) {
    ASSERT_LT(request, requests().size());
    mPlatform.respond(request, retCode, body);
    run();
}

void FlowTest::failAndWaitForRetry() {
    respond(kRetryable, "");
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

std::vector<int64_t> FlowTest::delays() const {
    std::vector<int64_t> all;
    for (size_t i = 1; i < requests().size(); ++i) {
        const auto pause = request(i).sentAt - request(i - 1).sentAt;
        all.push_back(std::chrono::duration_cast<Milliseconds>(pause).count());
    }
    return all;
}

void FlowTest::expectNeitherNotifiedNorReported() const {
    EXPECT_THAT(notified(), ::testing::IsEmpty());
    EXPECT_THAT(reports(), ::testing::IsEmpty());
}

void FlowTest::expectNoEffects() const {
    expectNeitherNotifiedNorReported();
    EXPECT_THAT(log(), ::testing::IsEmpty());
    EXPECT_THAT(requests(), ::testing::SizeIs(0));
}
