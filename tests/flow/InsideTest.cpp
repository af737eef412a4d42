// What only shows inside: members after construction and reset, and operations with results that no caller reads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "FakePlatform.h"
#include "base/Json.h"
#include "base/KstMessageLoop.h"
#include "base/Mutex.h"

#define private public
#include "Com/LiveTranscodingAdapter.h"
#undef private

#include "FlowTest.h"

using kstmedia::VexaTranscodingConfigInternal;

class InsideTest : public FlowTest {
protected:
    VexaTranscodingConfigInternal storedConfig() {
        KstMutexLock lock(mAdapter->mMutex);
        return mAdapter->mTranscodingConfig;
    }

    void expectConfiguration(int mode, int ids, int media) {
        const VexaTranscodingConfigInternal config = storedConfig();
        EXPECT_EQ(config.mode, mode);
        EXPECT_EQ(config.appId, ids);
        EXPECT_EQ(config.bizId, ids);
        EXPECT_EQ(config.videoWidth, media);
        EXPECT_EQ(config.videoHeight, media);
        EXPECT_EQ(config.videoBitrate, media);
        EXPECT_EQ(config.videoFramerate, media);
        EXPECT_EQ(config.videoGOP, media);
        EXPECT_EQ(config.audioSampleRate, media);
        EXPECT_EQ(config.audioBitrate, media);
        EXPECT_EQ(config.audioChannels, media);
        EXPECT_TRUE(config.mixUsersArray.empty());
    }
};

TEST_F(InsideTest, MembersAfterConstruction) {
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();

    EXPECT_TRUE(adapter->mStartCdnHttp && adapter->mStopCdnHttp && adapter->mStartMixHttp && adapter->mCancelMixHttp);
    EXPECT_TRUE(adapter->mMessageLoop);
    EXPECT_EQ(adapter->mSdkAppId, 0);
    EXPECT_EQ(adapter->mAppId, 0);
    EXPECT_EQ(adapter->mUserSig, "");
    EXPECT_EQ(adapter->mPrivateMapKey, "");
    EXPECT_EQ(adapter->mPublishCDNParam.appId, 0);
    EXPECT_EQ(adapter->mPublishCDNParam.bizId, 0);
    EXPECT_EQ(adapter->mPublishCDNParam.url, "");
    EXPECT_FALSE(adapter->mIsEnterRoom);
    EXPECT_FALSE(adapter->mPendingMix);
    EXPECT_FALSE(adapter->mPendingCdn);
    KstMutexLock lock(adapter->mMutex);
    EXPECT_EQ(adapter->mRoomId, "");
    EXPECT_EQ(adapter->mUserId, "");
    EXPECT_EQ(adapter->mBizId, 0);
    EXPECT_TRUE(adapter->mDelegate.expired());
    EXPECT_EQ(adapter->retryStartCdnCnt, 0);
    EXPECT_EQ(adapter->retryStartMixCnt, 0);
    EXPECT_EQ(adapter->retryStopCdnCnt, 0);
    EXPECT_EQ(adapter->retryCancelMixCnt, 0);
    EXPECT_EQ(adapter->mixTaskIndex, 0);
    EXPECT_EQ(adapter->cdnTaskIndex, 0);
    EXPECT_EQ(adapter->mStartMixInfo, "");
    EXPECT_EQ(adapter->mStartCdnInfo, "");
    EXPECT_EQ(adapter->mCancelMixInfo, "");
    EXPECT_EQ(adapter->mStopCdnInfo, "");
}

TEST_F(InsideTest, StoredConfigurationAfterConstructionHasItsMediaUnset) {
    expectConfiguration(0, 0, -1);
}

TEST_F(InsideTest, ResetSetsTheMediaToZeroAndKeepsTheMode) {
    givenInRoom();
    startRelay();
    startMix();

    reset();

    expectConfiguration(3, 0, 0);
    EXPECT_EQ(mAdapter->mPublishCDNParam.appId, 0);
    EXPECT_EQ(mAdapter->mPublishCDNParam.bizId, 0);
    EXPECT_EQ(mAdapter->mPublishCDNParam.url, "");
    EXPECT_FALSE(mAdapter->mIsEnterRoom || mAdapter->mPendingMix || mAdapter->mPendingCdn);
}

TEST_F(InsideTest, ResetOfAFreshAdapterSetsTheMediaToZeroToo) {
    reset();

    expectConfiguration(0, 0, 0);
}

TEST_F(InsideTest, ResetKeepsIdentityIdsAndReportTexts) {
    givenInRoom();
    startRelay();
    startMix();
    stopRelay();
    cancelMix();

    reset();

    EXPECT_EQ(mAdapter->mSdkAppId, kSdkAppId);
    EXPECT_EQ(mAdapter->mUserSig, kUserSig);
    EXPECT_EQ(mAdapter->mPrivateMapKey, kMapKey);
    EXPECT_EQ(mAdapter->mAppId, kAppId);
    KstMutexLock lock(mAdapter->mMutex);
    EXPECT_EQ(mAdapter->mUserId, "alice");
    EXPECT_EQ(mAdapter->mRoomId, "room7");
    EXPECT_EQ(mAdapter->mBizId, kBizId);
    EXPECT_EQ(mAdapter->mStartCdnInfo, kRelayText);
    EXPECT_EQ(mAdapter->mStartMixInfo, mixText());
    EXPECT_EQ(mAdapter->mStopCdnInfo, body(2));
    EXPECT_EQ(mAdapter->mCancelMixInfo, body(3));
}

TEST_F(InsideTest, ResetZeroesAllCountersAndRaisesBothGenerationsInTheCall) {
    givenInRoom();
    startRelay();
    startMix();

    mAdapter->resetInfo();

    KstMutexLock lock(mAdapter->mMutex);
    EXPECT_EQ(mAdapter->retryStartCdnCnt, 0);
    EXPECT_EQ(mAdapter->retryStartMixCnt, 0);
    EXPECT_EQ(mAdapter->retryStopCdnCnt, 0);
    EXPECT_EQ(mAdapter->retryCancelMixCnt, 0);
    EXPECT_EQ(mAdapter->cdnTaskIndex, 2);
    EXPECT_EQ(mAdapter->mixTaskIndex, 2);
}

TEST_F(InsideTest, EachRelayOperationZeroesBothRelayCountersInTheCall) {
    givenInRoom();
    for (const bool start : {true, false}) {
        {
            KstMutexLock lock(mAdapter->mMutex);
            mAdapter->retryStartCdnCnt = mAdapter->retryStopCdnCnt = 7;
            mAdapter->retryStartMixCnt = mAdapter->retryCancelMixCnt = 7;
        }

        start ? mAdapter->startPublishStreamUrl(relay()) : mAdapter->stopPublishStreamUrl();

        KstMutexLock lock(mAdapter->mMutex);
        EXPECT_EQ(mAdapter->retryStartCdnCnt, 0);
        EXPECT_EQ(mAdapter->retryStopCdnCnt, 0);
        EXPECT_EQ(mAdapter->retryStartMixCnt, 7);
        EXPECT_EQ(mAdapter->retryCancelMixCnt, 7);
        EXPECT_EQ(mAdapter->cdnTaskIndex, start ? 1 : 2);
        EXPECT_EQ(mAdapter->mixTaskIndex, 0);
    }
}

TEST_F(InsideTest, EachMixOperationZeroesBothMixCountersInTheCall) {
    givenInRoom();
    for (const bool start : {true, false}) {
        {
            KstMutexLock lock(mAdapter->mMutex);
            mAdapter->retryStartCdnCnt = mAdapter->retryStopCdnCnt = 7;
            mAdapter->retryStartMixCnt = mAdapter->retryCancelMixCnt = 7;
        }

        start ? static_cast<void>(mAdapter->setLiveMixTranscoding(mix())) : mAdapter->stopLiveMixTranscoding();

        KstMutexLock lock(mAdapter->mMutex);
        EXPECT_EQ(mAdapter->retryStartCdnCnt, 7);
        EXPECT_EQ(mAdapter->retryStopCdnCnt, 7);
        EXPECT_EQ(mAdapter->retryStartMixCnt, 0);
        EXPECT_EQ(mAdapter->retryCancelMixCnt, 0);
        EXPECT_EQ(mAdapter->cdnTaskIndex, 0);
        EXPECT_EQ(mAdapter->mixTaskIndex, start ? 1 : 2);
    }
}

TEST_F(InsideTest, FirstSendSetsOnlyTheKindsOwnCounter) {
    givenInRoom();
    startRelay();
    startMix();
    {
        KstMutexLock lock(mAdapter->mMutex);
        EXPECT_EQ(mAdapter->retryStartCdnCnt, 10);
        EXPECT_EQ(mAdapter->retryStopCdnCnt, 0);
        EXPECT_EQ(mAdapter->retryStartMixCnt, 10);
        EXPECT_EQ(mAdapter->retryCancelMixCnt, 0);
    }

    stopRelay();
    cancelMix();

    KstMutexLock lock(mAdapter->mMutex);
    EXPECT_EQ(mAdapter->retryStartCdnCnt, 0);
    EXPECT_EQ(mAdapter->retryStopCdnCnt, 10);
    EXPECT_EQ(mAdapter->retryStartMixCnt, 0);
    EXPECT_EQ(mAdapter->retryCancelMixCnt, 10);
}

TEST_F(InsideTest, AcceptedMixIsStoredWholeAndSorted) {
    givenInRoom();
    startMix(mix({user("bob", 3), user("carol", 1), user("alice", 2)}));

    const VexaTranscodingConfigInternal stored = storedConfig();
    EXPECT_EQ(stored.to_string(), mix({user("carol", 1), user("alice", 2), user("bob", 3)}).to_string());
}

TEST_F(InsideTest, ClearEmptiesTheStoredConfigurationButItsMode) {
    givenInRoom();
    startMix();

    mAdapter->clear();

    expectConfiguration(3, 0, 0);
    KstMutexLock lock(mAdapter->mMutex);
    EXPECT_EQ(mAdapter->mixTaskIndex, 1);
    EXPECT_EQ(mAdapter->retryStartMixCnt, 10);
}

TEST_F(InsideTest, CancelThatIsSentClearsTheStoredConfiguration) {
    givenInRoom();
    startMix();

    cancelMix();

    expectConfiguration(3, 0, 0);
}

TEST_F(InsideTest, CancelThatIsRefusedOrSupersededClearsNothing) {
    cancelMix();
    expectConfiguration(0, 0, -1);

    givenInRoom();
    startMix();
    mAdapter->stopLiveMixTranscoding();
    mAdapter->stopLiveMixTranscoding();
    run();
    startMix();
    EXPECT_EQ(storedConfig().mixUsersArray.size(), 1u);
}

TEST_F(InsideTest, StopKeepsTheStoredRelayParameter) {
    givenInRoom();
    startRelay();

    stopRelay();

    EXPECT_EQ(mAdapter->mPublishCDNParam.to_string(), kRelayText);
    EXPECT_EQ(mAdapter->mAppId, kAppId);
}

TEST_F(InsideTest, OperationsOnAStoppedLoopAreLostSilently) {
    givenSent(kAddRelay);
    mAdapter->mMessageLoop->stop();
    forgetTheStorySoFar();

    mAdapter->resetInfo();
    mAdapter->updateUserInfo(1, "s", "u");
    mAdapter->updateEnterRoomInfo("r", "k");
    mAdapter->startPublishStreamUrl(relay());
    mAdapter->stopPublishStreamUrl();
    EXPECT_EQ(mAdapter->setLiveMixTranscoding(mix()), 0);
    mAdapter->stopLiveMixTranscoding();
    run();

    expectNothingHappens();
    EXPECT_EQ(mAdapter->mSdkAppId, kSdkAppId);
    KstMutexLock lock(mAdapter->mMutex);
    EXPECT_EQ(mAdapter->cdnTaskIndex, 4);  // the parts that run in the call do
    EXPECT_EQ(mAdapter->mixTaskIndex, 3);
}

TEST_F(InsideTest, DestructorStopsTheLoopBeforeAMemberGoes) {
    const std::shared_ptr<KstMessageLoop> loop = mAdapter->mMessageLoop;
    std::vector<std::string>& clients = mPlatform.clients;
    clients.clear();
    const auto taskGoes = [&clients](const int*) { clients.push_back("task gone"); };
    loop->PostTask([held = std::shared_ptr<const int>(&kBizId, taskGoes)] { FAIL() << *held; });

    mAdapter.reset();

    EXPECT_EQ(clients, (std::vector<std::string>{"task gone", "gone 3", "gone 2", "gone 1", "gone 0"}));
    EXPECT_FALSE(loop->PostTask([] {}).valid());
}

TEST_F(InsideTest, AnswerOnAStoppedLoopIsToldAndItsReportIsLost) {
    givenSent(kAddRelay);
    mAdapter->mMessageLoop->stop();

    answerOk();

    EXPECT_EQ(told().size(), 1u);
    EXPECT_TRUE(reports().empty());
}

// ---- Operations -----------------------------------------------------------------------------------------------------

TEST_F(InsideTest, DelayTimeOfAnyNumber) {
    EXPECT_EQ(mAdapter->getDelayTime(-1), 5000);
    EXPECT_EQ(mAdapter->getDelayTime(0), 1000);
    EXPECT_EQ(mAdapter->getDelayTime(1), 1000);
    EXPECT_EQ(mAdapter->getDelayTime(2), 1000);
    EXPECT_EQ(mAdapter->getDelayTime(3), 2000);
    EXPECT_EQ(mAdapter->getDelayTime(4), 2000);
    EXPECT_EQ(mAdapter->getDelayTime(5), 2000);
    EXPECT_EQ(mAdapter->getDelayTime(6), 5000);
    EXPECT_EQ(mAdapter->getDelayTime(std::numeric_limits<int>::max()), 5000);
    EXPECT_EQ(mAdapter->getDelayTime(std::numeric_limits<int>::min()), 5000);
}

TEST_F(InsideTest, StreamIdIsTheBizIdAndTheDigestOfRoomUserAndKind) {
    {
        KstMutexLock lock(mAdapter->mMutex);
        mAdapter->mBizId = 8888;
    }
    EXPECT_EQ(mAdapter->getStreamId("r1", "u1", false), "8888_1c55b79b354e05d157fe243e37be6d04");
    EXPECT_EQ(mAdapter->getStreamId("room7", "alice", true), kAliceMain);
}

TEST_F(InsideTest, DigestIsLowerCaseAndItsFlagChangesNothing) {
    EXPECT_EQ(mAdapter->getMD5("", false), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(mAdapter->getMD5("abc", true), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(mAdapter->getMD5("abc", false), "900150983cd24fb0d6963f7d28e17f72");
}

TEST_F(InsideTest, JudgingReturnsMinusOneForTransportErrorsAndUnreadableAnswersOnly) {
    for (const int kind : {0, 1, 2, 3}) {
        EXPECT_EQ(mAdapter->responeRequest(1, "", kind), -1);
        EXPECT_EQ(mAdapter->responeRequest(-5, R"({"code":0})", kind), -1);
        EXPECT_EQ(mAdapter->responeRequest(0, "", kind), -1);
        EXPECT_EQ(mAdapter->responeRequest(0, "not json", kind), -1);
        EXPECT_EQ(mAdapter->responeRequest(0, R"({"code":0})", kind), 0);
        EXPECT_EQ(mAdapter->responeRequest(0, R"({"code":505})", kind), 0);
        EXPECT_EQ(mAdapter->responeRequest(0, R"({"ErrorCode":0})", kind), 0);
        EXPECT_EQ(mAdapter->responeRequest(0, R"({"ErrorCode":9})", kind), 0);
        EXPECT_EQ(mAdapter->responeRequest(0, "{}", kind), 0);
        EXPECT_EQ(mAdapter->responeRequest(0, "5", kind), 0);
    }
}

TEST_F(InsideTest, ChecksOfAnEmptyListFailWhateverTheMixKind) {
    EXPECT_TRUE(mAdapter->isPureAudioStream({}));
    EXPECT_EQ(mAdapter->checkMixConfig({}, true), -1);
    EXPECT_EQ(mAdapter->checkMixConfig({}, false), -1);
    EXPECT_EQ(log(), (std::vector<Logged>(2, {4, "checkMixConfig", "error: config or config.mixUser can't be null"})));
}

TEST_F(InsideTest, ChecksOfTheSameListDependOnTheMixKind) {
    EXPECT_EQ(mAdapter->checkMixConfig({user("a", 1), user("b", 1)}, true), 0);
    EXPECT_EQ(mAdapter->checkMixConfig({user("a", 1), user("b", 1)}, false), -1);
    EXPECT_EQ(mAdapter->checkMixConfig({user("a", 1), user("b", 2)}, false), 0);
}

TEST_F(InsideTest, DescriptionOfAnyIndexIsWhole) {
    const std::string description = mAdapter->getReportMixPostData(std::numeric_limits<int>::min());

    EXPECT_EQ(description.find("task_id:-2147483648, pureAudioOutputStream:1, stream: {\"input_stream_list\":[],"), 0u);
}

TEST_F(InsideTest, MembersStandInTheOrderOfTheirLives) {
    const auto* adapter = mAdapter.get();
    const std::vector<const void*> members = {
        &adapter->mStartCdnHttp,     &adapter->mStopCdnHttp,     &adapter->mStartMixHttp,
        &adapter->mCancelMixHttp,    &adapter->mRoomId,          &adapter->mUserId,
        &adapter->mSdkAppId,         &adapter->mBizId,           &adapter->mAppId,
        &adapter->mUserSig,          &adapter->mPrivateMapKey,   &adapter->mTranscodingConfig,
        &adapter->mPublishCDNParam,  &adapter->mDelegate,        &adapter->mMessageLoop,
        &adapter->mIsEnterRoom,      &adapter->mPendingMix,      &adapter->mPendingCdn,
        &adapter->retryStartCdnCnt,  &adapter->retryStartMixCnt, &adapter->retryStopCdnCnt,
        &adapter->retryCancelMixCnt, &adapter->mixTaskIndex,     &adapter->cdnTaskIndex,
        &adapter->mStartMixInfo,     &adapter->mStartCdnInfo,    &adapter->mCancelMixInfo,
        &adapter->mStopCdnInfo};
    EXPECT_TRUE(std::is_sorted(members.begin(), members.end(), std::less<const void*>()));
}
