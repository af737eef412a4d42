// The adapter as an object: construction, identity and room, the listener, and the end.

#include <csignal>

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class AdapterTest : public FlowTest {
protected:
    static constexpr const char* kMixInvalid = "setLiveMixTranscoding failure, param is invalid";
    // The text of mix() after it was cleared.
    static constexpr const char* kClearedText =
        "mode:3, appId:0, bizId:0, width:0, height:0, bitrate:0, fps:0, gop:0, audio_samplerate:0, audio_bitrate:0, "
        "audio_channel:0";

    // All operations that post a task; the starts are refused in it.
    std::vector<std::function<void()>> operations() {
        return {[this] { mAdapter->resetInfo(); },
                [this] { mAdapter->updateUserInfo(1, "s", "u"); },
                [this] { mAdapter->updateEnterRoomInfo("r", "k"); },
                [this] { mAdapter->startPublishStreamUrl(relay("")); },
                [this] { mAdapter->stopPublishStreamUrl(); },
                [this] { mAdapter->setLiveMixTranscoding(mix({})); },
                [this] { mAdapter->stopLiveMixTranscoding(); }};
    }
    void expectRequestsSentBy(const std::vector<Kind>& kinds) const {
        ASSERT_EQ(requests().size(), kinds.size());
        for (size_t i = 0; i < kinds.size(); ++i) {
            EXPECT_EQ(request(i).client, kinds[i].client) << i;
        }
    }
};

// ---- Construction and posting ---------------------------------------------------------------------------------------

TEST_F(AdapterTest, ConstructionMakesFourClientsAndDoesNothingElse) {
    EXPECT_THAT(mPlatform.clients, ElementsAre("made 0", "made 1", "made 2", "made 3"));
    EXPECT_EQ(VirtualTime::queuedTasks() + VirtualTime::delayedTasks(), 0u);
    expectNoEffects();
}

TEST_F(AdapterTest, DestructorStopsTheLoopAndThenDestroysTheClientsInReverseOrder) {
    const std::shared_ptr<KstMessageLoop> loop = VirtualTime::newestLoop().shared_from_this();
    std::vector<std::string>& clients = mPlatform.clients;
    clients.clear();
    const auto onDestruction = [&clients](const int*) { clients.push_back("task gone"); };
    loop->PostTask([held = std::shared_ptr<const int>(&kBizId, onDestruction)] { FAIL() << *held; });

    mAdapter.reset();

    EXPECT_THAT(clients, ElementsAre("task gone", "gone 3", "gone 2", "gone 1", "gone 0"));
    EXPECT_FALSE(loop->PostTask([] {}).valid());
}

TEST_F(AdapterTest, OperationsOnAStoppedLoopAreLostSilently) {
    givenSent(kAddRelay);
    stopLoop();
    clearRecords();

    for (const auto& operation : operations()) {
        operation();
    }
    run();

    expectNoEffects();
}

TEST_F(AdapterTest, ResponseOnAStoppedLoopIsNotifiedAndItsReportIsLost) {
    givenSent(kAddRelay);
    stopLoop();

    respondOk();

    EXPECT_THAT(notified(), SizeIs(1));
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(AdapterTest, EveryOperationPostsOneTaskWithoutDelayAndDoesNothingInTheCall) {
    size_t posted = 0;
    for (const auto& operation : operations()) {
        operation();

        EXPECT_EQ(VirtualTime::queuedTasks(), ++posted);
        EXPECT_EQ(VirtualTime::delayedTasks(), 0u);
        expectNoEffects();
    }
}

TEST_F(AdapterTest, ClearAndTheListenersOperationPostNothing) {
    mAdapter->clear();
    mAdapter->setLiveTranscodingDelegate(mListener);

    EXPECT_EQ(VirtualTime::queuedTasks() + VirtualTime::delayedTasks(), 0u);
    expectNoEffects();
}

TEST_F(AdapterTest, OperationsOnAnAdapterWithoutASharedOwnerAbort) {
    LiveTranscodingAdapter unowned;

    EXPECT_EXIT([&]() noexcept { unowned.stopPublishStreamUrl(); }(), ::testing::KilledBySignal(SIGABRT), "");
}

// ---- Identity -------------------------------------------------------------------------------------------------------

TEST_F(AdapterTest, UserInfoIsStoredAsATaskAndNothingElseHappens) {
    givenInRoom();
    mAdapter->startPublishStreamUrl(relay());
    mAdapter->updateUserInfo(99, "later", "bob");
    mAdapter->setLiveMixTranscoding(mix());
    run();

    EXPECT_THAT(request(0).url, HasSubstr("sdkappid=1400123&"));
    EXPECT_THAT(body(0), HasSubstr(kAliceMain));
    EXPECT_THAT(request(1).url, HasSubstr("sdkappid=99&"));
    EXPECT_THAT(request(1).url, HasSubstr("&usersig=later&"));
    EXPECT_THAT(body(1), HasSubstr(std::string(R"("session_id":")") + kBobMain));
    EXPECT_THAT(requests(), SizeIs(2));
}

TEST_F(AdapterTest, IdentityAloneDoesNothingVisibleAndMayBeEmpty) {
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, "alice");
    mAdapter->updateUserInfo(0, "", "");
    enterRoom("", "");
    expectNoEffects();
    EXPECT_EQ(VirtualTime::delayedTasks(), 0u);

    startRelay();

    EXPECT_THAT(request(0).url, HasSubstr("sdkappid=0&"));
    EXPECT_THAT(request(0).url, testing::EndsWith("&usersig=&parivMapKey="));
    EXPECT_THAT(body(0), HasSubstr(R"("stream_id":"8888_b0cf36cc0b98861197cc79eb9e758305",)"));  // of __main
}

// ---- Room -----------------------------------------------------------------------------------------------------------

TEST_F(AdapterTest, RoomEntryWithNothingWaitingOnlyStores) {
    givenUser();

    enterRoom();

    expectNoEffects();
    startRelay();
    EXPECT_THAT(request(0).url, HasSubstr(std::string("&parivMapKey=") + kMapKey));
    EXPECT_THAT(body(0), HasSubstr(kAliceMain));
    startMix();
    respondOk();
    respondOk();
    enterRoom("room9", "another-key");
    EXPECT_THAT(requests(), SizeIs(2));
}

TEST_F(AdapterTest, RoomEntrySendsTheWaitingRelayBeforeTheWaitingMix) {
    givenUser();
    startMix();
    startRelay();
    clearRecords();

    enterRoom();

    expectRequestsSentBy({kAddRelay, kStartMix});
    EXPECT_THAT(log().at(0).text, HasSubstr("addPublishUrlInner index: 2, "));
    EXPECT_THAT(log().at(2).text, HasSubstr("startMixStream index: 2, "));
}

TEST_F(AdapterTest, ReissuedStartIsPostedBehindWhatWaitsAlready) {
    givenUser();
    startRelay();
    clearRecords();
    mAdapter->updateEnterRoomInfo("room7", kMapKey);
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, "bob");

    run();

    EXPECT_THAT(body(0), HasSubstr(kBobMain));
}

TEST_F(AdapterTest, SecondRoomEntryBeforeTheReissuedStartsRanSupersedesThem) {
    givenUser();
    startRelay();
    startMix();
    clearRecords();

    mAdapter->updateEnterRoomInfo("room7", kMapKey);
    mAdapter->updateEnterRoomInfo("room7", kMapKey);
    run();

    // What waits is cleared by the re-issued starts, not by the entry.
    EXPECT_THAT(requests(), SizeIs(2));
    EXPECT_EQ(log().at(0), (Logged{2, "operator()", "index:2, cdnTaskIndex:3"}));
    EXPECT_EQ(log().at(2), (Logged{2, "operator()", "index:2, cdnTaskIndex:3"}));
}

// ---- Reset ----------------------------------------------------------------------------------------------------------

TEST_F(AdapterTest, ResetRightAfterAnOperationLeavesItStale) {
    givenInRoom();
    startRelay();
    respondOk();
    const std::pair<Kind, const char*> cases[] = {{kAddRelay, "index:2, cdnTaskIndex:3"},
                                                  {kRemoveRelay, "index:4, cdnTaskIndex:5"},
                                                  {kStartMix, "index:3, cdnTaskIndex:4"},
                                                  {kCancelMix, "index:5, cdnTaskIndex:6"}};
    for (const auto& [kind, line] : cases) {
        clearRecords();

        call(kind);
        mAdapter->resetInfo();
        run();

        ASSERT_THAT(log(), SizeIs(kind.client == kStartMix.client ? 2 : 1));
        EXPECT_EQ(log().back(), (Logged{2, "operator()", line}));
        EXPECT_THAT(requests(), IsEmpty());
        EXPECT_THAT(notified(), IsEmpty());
        EXPECT_THAT(reports(), IsEmpty());
        enterRoom();
    }
}

TEST_F(AdapterTest, ResetLeavesTheRoom) {
    givenInRoom();
    reset();

    startRelay();
    startMix();

    EXPECT_THAT(requests(), IsEmpty());
    ASSERT_THAT(reports(), SizeIs(2));
    EXPECT_EQ(reports()[0].detail, "not enterRoom status");
    EXPECT_EQ(reports()[1].detail, "not enterRoom status");
}

TEST_F(AdapterTest, ResetForgetsWhatWaitsForTheRoom) {
    givenUser();
    startRelay();
    startMix();
    reset();
    clearRecords();

    enterRoom();

    expectNoEffects();
}

TEST_F(AdapterTest, ResetKeepsIdentityRoomIdsAndListener) {
    givenInRoom();
    startRelay();
    respondOk();
    reset();
    clearRecords();

    begin(kRemoveRelay);
    respondOk();

    EXPECT_THAT(request(0).url, HasSubstr("sdkappid=1400123&"));
    EXPECT_THAT(request(0).url, HasSubstr("&usersig=signature-of-alice&parivMapKey=map-key-of-room7"));
    EXPECT_THAT(body(0), HasSubstr(R"({"appid":12345,"domain":"8888.push.test",)"));
    EXPECT_THAT(body(0), HasSubstr(kAliceMain));
    EXPECT_THAT(notified(), ElementsAre(Notified{"onStopPublishStreamUrl", 0, "sucess"}));
    EXPECT_EQ(mPlatform.reports.at(0).roomUser, "room7_alice");
}

TEST_F(AdapterTest, ResetKeepsTheInformationOfARetryUnderWay) {
    givenRetrySent(kStartMix);

    reset();
    respondOk();

    EXPECT_EQ(reports().at(0).information, mixText());
}

TEST_F(AdapterTest, ResetClearsTheRelaysAddressAndCounter) {
    givenInRoom();
    startRelay();
    respond(kTryAgain, "");
    reset();

    pass(Milliseconds(1000));  // the retry of a relay start is sent even when superseded

    ASSERT_THAT(requests(), SizeIs(2));
    EXPECT_THAT(body(1), HasSubstr(R"("dest_stream_url":"",)"));
    EXPECT_THAT(log().back().text, HasSubstr("retryAddPublishUrlInner index: 1, retryStartCdnCnt:10, jsonStr: "));
}

TEST_F(AdapterTest, ResetForgetsTheMixAsATaskSoThatARoomEntryCalledBeforeReissuesItWhole) {
    givenUser();
    startMix();
    clearRecords();

    mAdapter->updateEnterRoomInfo("room7", kMapKey);
    mAdapter->resetInfo();
    run();

    // Entry, reset, and then the re-issued mix, outside the room again.
    EXPECT_THAT(reports(), ElementsAre(Reported{31, mixText(), "not enterRoom status"}));
    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(AdapterTest, ResetSupersedesAtOnceAndStoresAsATask) {
    givenInRoom();
    mAdapter->resetInfo();
    mAdapter->startPublishStreamUrl(relay());
    mAdapter->updateEnterRoomInfo("room9", "another-key");

    run();

    // Reset, start outside the room, entry, re-issued start.
    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_THAT(log().back().text, HasSubstr("addPublishUrlInner index: 3, "));
}

// ---- Clear ----------------------------------------------------------------------------------------------------------

TEST_F(AdapterTest, ClearEmptiesAWaitingConfigurationButItsMode) {
    givenUser();
    startMix();
    clearRecords();

    mAdapter->clear();
    enterRoom();

    // The empty list counts as pure audio; the ids are missing.
    EXPECT_THAT(notified(), ElementsAre(Notified{"onStartPublishStreamUrl", -3324, kMixInvalid}));
    EXPECT_THAT(reports(), ElementsAre(Reported{31, kClearedText, kMixInvalid}));
}

TEST_F(AdapterTest, ClearKeepsRoomIdsGenerationsAndCounters) {
    givenRetrySent(kStartMix);
    mAdapter->clear();

    failAndWaitForRetry();
    respondOk();

    ASSERT_THAT(requests(), SizeIs(3));
    EXPECT_THAT(body(2), HasSubstr(R"({"appid":12345,"domain":"8888.push.test",)"));
    EXPECT_THAT(body(2), HasSubstr(kAliceMain));
    EXPECT_THAT(notified(), ElementsAre(Notified{"onSetLiveMixTranscoding", 0, "sucess"}));
    EXPECT_THAT(reports().at(0).detail,
                testing::EndsWith(traceSegment(10, 1, "") + traceSegment(9, 1, "") + traceSegment(8, 0, kOk)));
    EXPECT_EQ(reports()[0].information, mixText());
}

TEST_F(AdapterTest, ClearLeavesAWaitingRelayAlone) {
    givenUser();
    startRelay();

    mAdapter->clear();
    enterRoom();

    EXPECT_THAT(body(0), HasSubstr(kUrl));
}

// ---- Listener -------------------------------------------------------------------------------------------------------

TEST_F(AdapterTest, RefusedCallsAreRoutedThisWayAndTheStartsAreReportedWithoutAListenerToo) {
    givenInRoom();
    const auto callAll = [this] {
        callRefused(kAddRelay);
        begin(kRemoveRelay);
        callRefused(kStartMix);
        startMix(mix({}));
        begin(kCancelMix);
    };
    callAll();

    EXPECT_THAT(
        notified(),
        ElementsAre(Notified{"onStartPublishStreamUrl", -3323, "startPublishStreamUrl failure, param is invalid"},
                    Notified{"onStopLiveMixTranscoding", -3323,
                             "stopPublishStreamUrl error, appid = 0, should call startPublishStreamUrl before"},
                    Notified{"onStartPublishStreamUrl", -3324, kMixInvalid},
                    Notified{"onStartPublishStreamUrl", -3324, "mixUsersArray is invalid"},
                    Notified{"onStopLiveMixTranscoding", -3324,
                             "stopLiveMixTranscoding error, appid = 0, should call startMixTranscoding before"}));
    clearRecords();
    givenNoListener();
    callAll();

    EXPECT_THAT(reports(), SizeIs(3));
    EXPECT_THAT(log(), SizeIs(8));
    EXPECT_THAT(notified(), IsEmpty());
}

TEST_F(AdapterTest, ListenerIsHeldWeakly) {
    EXPECT_EQ(mListener.use_count(), 1);
}

TEST_F(AdapterTest, ListenerSetAtAnyTimeTakesEffectAtOnce) {
    std::vector<Notified> notifiedOther;
    const auto other = std::make_shared<RecordingListener>(notifiedOther);
    givenSent(kCancelMix);
    mListener->onCall = [&] { mAdapter->setLiveTranscodingDelegate(other); };
    other->onCall = [&] { mAdapter->setLiveTranscodingDelegate({}); };

    respondToAll(0, "");  // ends with two calls
    begin(kCancelMix);
    respondOk();

    EXPECT_THAT(notified(), ElementsAre(Notified{"onStopLiveMixTranscoding", -3324, "recv message nil"}));
    EXPECT_THAT(notifiedOther, ElementsAre(Notified{"onStopLiveMixTranscoding", -3324, "recv message can't parse"}));
    EXPECT_THAT(reports(), SizeIs(2));
}

TEST_F(AdapterTest, SecondCallOfAnEmptyResponseIsSkippedWhenTheListenerWentInTheFirst) {
    givenSent(kRemoveRelay);
    mListener->onCall = [&] { mListener.reset(); };

    respondToAll(0, "");

    EXPECT_THAT(notified(), ElementsAre(Notified{"onStopPublishStreamUrl", -3323, "recv message nil"}));
    EXPECT_THAT(reports(), SizeIs(1));
}

TEST_F(AdapterTest, ListenerMayCallEveryOperation) {
    givenSent(kAddRelay);
    mListener->onCall = [this] {
        mListener->onCall = nullptr;
        mAdapter->clear();
        mAdapter->setLiveTranscodingDelegate(mListener);
        mAdapter->resetInfo();
        mAdapter->updateUserInfo(kSdkAppId, kUserSig, "bob");
        mAdapter->updateEnterRoomInfo("room7", kMapKey);
        mAdapter->stopPublishStreamUrl();
        mAdapter->startPublishStreamUrl(relay());
        mAdapter->stopLiveMixTranscoding();
        mAdapter->setLiveMixTranscoding(mix());
    };

    respondOk();

    expectRequestsSentBy({kAddRelay, kAddRelay, kStartMix});
}

class NoListenerTest : public FlowTest, public ::testing::WithParamInterface<Kind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, NoListenerTest, ::testing::Values(kAddRelay, kRemoveRelay, kStartMix, kCancelMix),
                         nameOfKind);

TEST_P(NoListenerTest, EveryFlowRunsToItsEndAndReports) {
    givenNoListener();
    givenSent(GetParam());

    failAndWaitForRetry();
    respond(0, R"({"code":7})");

    EXPECT_THAT(reports(), SizeIs(1));
    EXPECT_THAT(notified(), IsEmpty());
}

TEST_P(NoListenerTest, ListenerThatWentWhileTheRequestWasUnderWayIsSkipped) {
    givenSent(GetParam());

    givenNoListener();
    respondToAll(0, "");

    EXPECT_THAT(requests(), SizeIs(11));
    EXPECT_THAT(reports(), SizeIs(1));
    EXPECT_THAT(notified(), IsEmpty());
}

// ---- Two adapters ---------------------------------------------------------------------------------------------------

TEST_F(AdapterTest, AdaptersAreIndependentOfEachOther) {
    std::vector<Notified> notifiedOther;
    const auto otherListener = std::make_shared<RecordingListener>(notifiedOther);
    const auto other = std::make_shared<LiveTranscodingAdapter>();
    other->setLiveTranscodingDelegate(otherListener);
    other->updateUserInfo(55, "signature-of-bob", "bob");
    other->updateEnterRoomInfo("room7", "key");
    mSecrets.push_back("signature-of-bob");
    givenInRoom();

    startRelay();
    other->startPublishStreamUrl(relay());
    other->startPublishStreamUrl(relay());
    run();
    mAdapter->resetInfo();
    run();
    ASSERT_THAT(requests(), SizeIs(2));
    respondTo(0, 0, kOk);
    respondTo(1, 0, kOk);

    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(notifiedOther, ElementsAre(Notified{"onStartPublishStreamUrl", 0, "sucess"}));
    EXPECT_EQ(request(1).client, 4u + kAddRelay.client);
    EXPECT_THAT(body(1), HasSubstr(kBobMain));
    EXPECT_EQ(mPlatform.reports.at(0).roomUser, "room7_bob");
}

// ---- The end --------------------------------------------------------------------------------------------------------

class EndTest : public AdapterTest {
protected:
    void expectSilence() {
        run();
        VirtualTime::runUntilQuiet();
        EXPECT_EQ(VirtualTime::queuedTasks() + VirtualTime::delayedTasks(), 0u);
        expectNoEffects();
    }
};

TEST_F(EndTest, TasksDoNotKeepTheAdapterAlive) {
    const std::weak_ptr<LiveTranscodingAdapter> adapter = mAdapter;
    givenInRoom();
    startRelay();
    respond(kTryAgain, "");
    startMix();
    mAdapter->resetInfo();

    mAdapter.reset();

    EXPECT_TRUE(adapter.expired());
}

TEST_F(EndTest, NothingHappensOnceTheAdapterIsGoneWithTasksQueued) {
    for (const auto& operation : operations()) {
        operation();
    }

    mAdapter.reset();

    expectSilence();
}

class EndOfEveryKindTest : public EndTest, public ::testing::WithParamInterface<Kind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, EndOfEveryKindTest, ::testing::Values(kAddRelay, kRemoveRelay, kStartMix, kCancelMix),
                         nameOfKind);

TEST_P(EndOfEveryKindTest, ResponseAfterTheEndDoesNothing) {
    for (const size_t retries : {0u, 1u}) {
        for (const int retCode : {0, 1}) {
            mAdapter = std::make_shared<LiveTranscodingAdapter>();
            mAdapter->setLiveTranscodingDelegate(mListener);
            clearRecords();
            retries == 0 ? givenSent(GetParam()) : givenRetrySent(GetParam());
            const CVexaHttpSendRecv::Callback callback = request(retries).callback;
            clearRecords();
            mAdapter.reset();

            KstCopyOnWriteBuffer response;
            callback(retCode, response);

            expectSilence();
        }
    }
}

TEST_P(EndOfEveryKindTest, WaitingRetryAndReportAreDropped) {
    for (const int retCode : {kTryAgain, 0}) {
        mAdapter = std::make_shared<LiveTranscodingAdapter>();
        mAdapter->setLiveTranscodingDelegate(mListener);
        givenSent(GetParam());
        mPlatform.respond(0, retCode, kOk);
        clearRecords();

        mAdapter.reset();

        expectSilence();
    }
}

TEST_P(EndOfEveryKindTest, AdapterMayBeDroppedInTheFirstOfTwoCallsAndTheSecondComesStill) {
    givenSent(GetParam());
    const std::weak_ptr<LiveTranscodingAdapter> adapter = mAdapter;
    mListener->onCall = [this] { mAdapter.reset(); };

    respondToAll(0, "");

    EXPECT_TRUE(adapter.expired());
    EXPECT_THAT(notified(), SizeIs(2));
    clearRecords();
    expectSilence();
}

TEST_F(EndTest, AdapterMayBeDroppedInsideATask) {
    const std::weak_ptr<LiveTranscodingAdapter> adapter = mAdapter;
    mListener->onCall = [this] { mAdapter.reset(); };
    mAdapter->startPublishStreamUrl(relay(""));
    mAdapter->startPublishStreamUrl(relay(""));

    run();

    EXPECT_TRUE(adapter.expired());
    EXPECT_THAT(notified(), SizeIs(1));
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_EQ(VirtualTime::queuedTasks(), 0u);
}

TEST_F(EndTest, ListenerMayOwnTheAdapterAndGoWithIt) {
    // The listener's last owner is the call itself; the adapter's is the listener.
    givenSent(kAddRelay);
    const std::weak_ptr<LiveTranscodingAdapter> adapter = mAdapter;
    mListener->onCall = [this, owned = mAdapter] { mListener.reset(); };
    mAdapter.reset();

    respond(0, kOk);

    EXPECT_TRUE(adapter.expired());
    EXPECT_THAT(notified(), SizeIs(1));
}
