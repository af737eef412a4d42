// The adapter as an object: construction, identity and room, reset and clear, listener, and destruction.

#include <csignal>

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class AdapterTest : public FlowTest {
protected:
    static constexpr const char* kMixInvalid = "setLiveMixTranscoding failure, param is invalid";

    // All operations that post a task. The tasks of the two starts refuse them.
    std::vector<std::function<void()>> operations() {
        return {[this] { mAdapter->resetInfo(); },
                [this] { mAdapter->updateUserInfo(1, "s", "u"); },
                [this] { mAdapter->updateEnterRoomInfo("r", "k"); },
                [this] { mAdapter->startPublishStreamUrl(relay("")); },
                [this] { mAdapter->stopPublishStreamUrl(); },
                [this] { mAdapter->setLiveMixTranscoding(mix({})); },
                [this] { mAdapter->stopLiveMixTranscoding(); }};
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

TEST_F(AdapterTest, StoppedLoopDropsReportsAndOperationsButNotListenerCalls) {
    givenSent(kAddRelay);
    VirtualTime::newestLoop().stop();

    respondOk();

    EXPECT_THAT(notified(), SizeIs(1));
    EXPECT_THAT(reports(), IsEmpty());
    clearRecords();
    for (const auto& operation : operations()) {
        operation();
    }
    run();
    expectNoEffects();
}

TEST_F(AdapterTest, EveryOperationPostsOneTaskWithoutDelayAndDoesNothingInTheCall) {
    mAdapter->clear();  // clear() and the next operation post no task
    mAdapter->setLiveTranscodingDelegate(mListener);
    size_t posted = 0;
    for (const auto& operation : operations()) {
        EXPECT_EQ(VirtualTime::queuedTasks(), posted++);

        operation();

        EXPECT_EQ(VirtualTime::queuedTasks(), posted);
        EXPECT_EQ(VirtualTime::delayedTasks(), 0u);
        expectNoEffects();
    }
}

TEST_F(AdapterTest, OperationsOnAnAdapterWithoutASharedOwnerAbort) {
    LiveTranscodingAdapter unowned;

    EXPECT_EXIT([&]() noexcept { unowned.stopPublishStreamUrl(); }(), ::testing::KilledBySignal(SIGABRT), "");
}

// ---- Identity and room ----------------------------------------------------------------------------------------------

TEST_F(AdapterTest, UserInfoIsStoredAsATask) {
    givenInRoom();
    expectNoEffects();
    mAdapter->startPublishStreamUrl(relay());
    mAdapter->updateUserInfo(99, "later", "bob");
    mAdapter->setLiveMixTranscoding(mix());
    run();

    EXPECT_THAT(sent(), ElementsAre(kAddRelay, kStartMix));
    EXPECT_THAT(request(0).url, HasSubstr("sdkappid=1400123&"));
    EXPECT_THAT(body(0), HasSubstr(kAliceMain));
    EXPECT_THAT(request(1).url, HasSubstr("sdkappid=99&"));
    EXPECT_THAT(request(1).url, HasSubstr("&usersig=later&parivMapKey=map-key-of-room7"));
    EXPECT_THAT(body(1), HasSubstr(member("session_id", kBobMain)));
}

TEST_F(AdapterTest, IdentityAndRoomMayBeEmpty) {
    givenUser();
    mAdapter->updateUserInfo(0, "", "");
    enterRoom("", "");
    expectNoEffects();

    startRelay();

    EXPECT_THAT(request(0).url, HasSubstr("sdkappid=0&"));
    EXPECT_THAT(request(0).url, testing::EndsWith("&usersig=&parivMapKey="));
    EXPECT_THAT(body(0), HasSubstr(R"("stream_id":"8888_b0cf36cc0b98861197cc79eb9e758305",)"));  // MD5 of __main
}

TEST_F(AdapterTest, RoomEntryRepeatsNoStartThatWasSent) {
    givenInRoom();
    startRelay();
    startMix();

    enterRoom("room9", "another-key");

    EXPECT_THAT(sent(), ElementsAre(kAddRelay, kStartMix));
}

TEST_F(AdapterTest, RoomEntrySendsTheWaitingRelayBeforeTheWaitingMix) {
    givenUser();
    startMix();
    startRelay();
    clearRecords();

    enterRoom();

    EXPECT_THAT(sent(), ElementsAre(kAddRelay, kStartMix));
    EXPECT_EQ(log().at(0), sendLog(kAddRelay, 2, 0, body(0)));
    EXPECT_EQ(log().at(2), sendLog(kStartMix, 2, 0, body(1)));
}

TEST_F(AdapterTest, ReissuedStartIsPostedBehindTheTasksThatAreQueued) {
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

    // Both entries re-issue the starts: a start stops being deferred only when the re-issued start runs.
    EXPECT_THAT(requests(), SizeIs(2));
    EXPECT_EQ(log().at(0), (Logged{2, "operator()", "index:2, cdnTaskIndex:3"}));
    EXPECT_EQ(log().at(2), (Logged{2, "operator()", "index:2, cdnTaskIndex:3"}));
}

// ---- Reset ----------------------------------------------------------------------------------------------------------

TEST_F(AdapterTest, ResetRightAfterAnOperationMakesItStale) {
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

        ASSERT_THAT(log(), SizeIs(kind == kStartMix ? 2 : 1));
        EXPECT_EQ(log().back(), (Logged{2, "operator()", line}));
        EXPECT_THAT(requests(), IsEmpty());
        expectNeitherNotifiedNorReported();
        enterRoom();
    }
}

TEST_F(AdapterTest, ResetLeavesTheRoomAndDropsTheDeferredStarts) {
    givenUser();
    startRelay();
    startMix();
    reset();
    clearRecords();
    enterRoom();
    expectNoEffects();

    reset();
    startRelay();
    startMix();

    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_THAT(reports(), ElementsAre(Reported{30, relay().to_string(), kNotInRoom},
                                       Reported{31, mix().to_string(), kNotInRoom}));
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
    EXPECT_THAT(notified(), ElementsAre(Call{"stopRelay", 0, "sucess"}));
    EXPECT_EQ(mPlatform.reports.at(0).roomUser, "room7_alice");
}

TEST_F(AdapterTest, ResetKeepsTheInformationOfARetryInFlight) {
    givenRetrySent(kStartMix);

    reset();
    respondOk();

    EXPECT_EQ(reports().at(0).information, mix().to_string());
}

TEST_F(AdapterTest, ResetClearsTheRelaysAddressAndCounter) {
    givenSent(kAddRelay);
    respond(kRetryable, "");
    reset();

    pass(Milliseconds(1000));  // intended: the retry of a relay start is sent even if it is superseded

    ASSERT_THAT(requests(), SizeIs(2));
    EXPECT_THAT(body(1), HasSubstr(member("dest_stream_url", "")));
    EXPECT_EQ(log().back(), sendLog(kAddRelay, 1, 10, body(1)));
}

TEST_F(AdapterTest, ResetClearsTheMixInATaskSoThatAnEarlierRoomEntryReissuesTheWholeMix) {
    givenUser();
    startMix();
    clearRecords();

    mAdapter->updateEnterRoomInfo("room7", kMapKey);
    mAdapter->resetInfo();
    run();

    // Order of the tasks: entry, reset, re-issued mix. So the re-issued mix finds the user outside of the room again.
    EXPECT_THAT(reports(), ElementsAre(Reported{31, mix().to_string(), kNotInRoom}));
    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(AdapterTest, ResetSupersedesAtOnceAndStoresAsATask) {
    givenInRoom();
    mAdapter->resetInfo();
    mAdapter->startPublishStreamUrl(relay());
    mAdapter->updateEnterRoomInfo("room9", "another-key");

    run();

    // Order of the tasks: reset (leaves the room), start (deferred: outside of the room), entry (re-issues the start),
    // re-issued start. So only the re-issued start sends a request.
    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(log().back(), sendLog(kAddRelay, 3, 0, body(0)));
}

// ---- Clear ----------------------------------------------------------------------------------------------------------

TEST_F(AdapterTest, ClearEmptiesADeferredMixExceptItsModeAndKeepsADeferredRelay) {
    givenUser();
    startMix();
    startRelay();
    clearRecords();

    mAdapter->clear();
    enterRoom();

    // An empty list counts as pure audio, so that only the missing ids are an error.
    const char* const cleared =
        "mode:3, appId:0, bizId:0, width:0, height:0, bitrate:0, fps:0, gop:0, audio_samplerate:0, audio_bitrate:0, "
        "audio_channel:0";
    EXPECT_THAT(notified(), ElementsAre(Call{"startRelay", -3324, kMixInvalid}));
    EXPECT_THAT(reports(), ElementsAre(Reported{31, cleared, kMixInvalid}));
    ASSERT_THAT(sent(), ElementsAre(kAddRelay));
    EXPECT_THAT(body(0), HasSubstr(kUrl));
}

TEST_F(AdapterTest, ClearKeepsRoomIdsGenerationsAndCounters) {
    givenRetrySent(kStartMix);
    mAdapter->clear();

    failAndWaitForRetry();
    respondOk();

    ASSERT_THAT(requests(), SizeIs(3));
    EXPECT_THAT(body(2), HasSubstr(R"({"appid":12345,"domain":"8888.push.test",)"));
    EXPECT_THAT(body(2), HasSubstr(kAliceMain));
    EXPECT_THAT(notified(), ElementsAre(Call{"setMix", 0, "sucess"}));
    EXPECT_THAT(reports().at(0).detail,
                testing::EndsWith(traceSegment(10, 1, "") + traceSegment(9, 1, "") + traceSegment(8, 0, kOk)));
    EXPECT_EQ(reports()[0].information, mix().to_string());
}

// ---- Listener -------------------------------------------------------------------------------------------------------

TEST_F(AdapterTest, RefusalsAreLoggedAndReportedWithoutAListener) {
    givenInRoom();
    givenNoListener();

    callRefused(kAddRelay);
    begin(kRemoveRelay);
    callRefused(kStartMix);
    startMix(mix({}));
    begin(kCancelMix);

    EXPECT_THAT(reports(), SizeIs(3));
    EXPECT_THAT(log(), SizeIs(8));
    EXPECT_THAT(notified(), IsEmpty());
}

TEST_F(AdapterTest, ListenerIsHeldWeakly) {
    EXPECT_EQ(mListener.use_count(), 1);
}

TEST_F(AdapterTest, ListenerSetAtAnyTimeTakesEffectAtOnce) {
    const auto other = std::make_shared<Listener>();
    givenSent(kCancelMix);
    onCall = [&] { mAdapter->setLiveTranscodingDelegate(other); };
    other->during = [&](const Call&) { mAdapter->setLiveTranscodingDelegate({}); };

    respondToAll(0, "");  // the final empty response leads to two listener calls
    begin(kCancelMix);
    respondOk();

    EXPECT_THAT(notified(), ElementsAre(Call{"stopMix", -3324, "recv message nil"}));
    EXPECT_THAT(other->calls.all(), ElementsAre(Call{"stopMix", -3324, "recv message can't parse"}));
    EXPECT_THAT(reports(), SizeIs(2));
}

TEST_F(AdapterTest, ListenerMayCallEveryOperation) {
    givenSent(kAddRelay);
    onCall = [this] {
        onCall = nullptr;
        mAdapter->clear();
        mAdapter->setLiveTranscodingDelegate(mListener);
        mAdapter->resetInfo();
        mAdapter->updateUserInfo(kSdkAppId, kUserSig, "bob");
        mAdapter->updateEnterRoomInfo("room7", kMapKey);
        for (const Kind kind : {kRemoveRelay, kAddRelay, kCancelMix, kStartMix}) {
            call(kind);
        }
    };

    respondOk();

    EXPECT_THAT(sent(), ElementsAre(kAddRelay, kAddRelay, kStartMix));
}

class CallTest : public KindTest {};

INSTANTIATE_TEST_SUITE_P(Kinds, CallTest, kAllKinds, nameOfKind);

TEST_P(CallTest, OperationCalledBehindARoomEntryIsSupersededByTheReissuedStart) {
    givenUser();
    begin(start());
    clearRecords();

    mAdapter->updateEnterRoomInfo("room7", kMapKey);
    call(kind());
    run();

    EXPECT_EQ(log().at(kind() == kStartMix ? 1 : 0), (Logged{2, "operator()", "index:2, cdnTaskIndex:3"}));
    ASSERT_THAT(sent(), ElementsAre(start()));
    EXPECT_EQ(log().back(), sendLog(start(), 3, 0, body(0)));
}

TEST_P(CallTest, RequestIsRetriedAndReportedAfterTheListenerIsDestroyed) {
    givenSent(kind());

    givenNoListener();
    respondToAll(0, "");

    EXPECT_THAT(requests(), SizeIs(11));
    EXPECT_THAT(reports(), SizeIs(1));
    EXPECT_THAT(notified(), IsEmpty());
}

// ---- Two adapters ---------------------------------------------------------------------------------------------------

TEST_F(AdapterTest, AdaptersAreIndependentOfEachOther) {
    const auto otherListener = std::make_shared<Listener>();
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
    EXPECT_THAT(otherListener->calls.all(), ElementsAre(Call{"startRelay", 0, "sucess"}));
    EXPECT_EQ(request(1).client, 4u + kAddRelay);
    EXPECT_THAT(body(1), HasSubstr(kBobMain));
    EXPECT_EQ(mPlatform.reports.at(0).roomUser, "room7_bob");
}

// ---- Destruction ----------------------------------------------------------------------------------------------------

// Each test also checks that queued tasks do not own the adapter.
class EndTest : public KindTest {
protected:
    void destroyAdapter() {
        const std::weak_ptr<LiveTranscodingAdapter> adapter = mAdapter;
        clearRecords();
        mAdapter.reset();
        EXPECT_TRUE(adapter.expired());
    }
    void expectSilence() {
        run();
        VirtualTime::runUntilQuiet();
        EXPECT_EQ(VirtualTime::queuedTasks() + VirtualTime::delayedTasks(), 0u);
        expectNoEffects();
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, EndTest, kAllKinds, nameOfKind);

TEST_P(EndTest, QueuedTaskIsDropped) {
    givenSent(kind());
    respond(kRetryable, "");
    call(kind());
    callRefused(start());
    mAdapter->resetInfo();

    destroyAdapter();

    expectSilence();
}

TEST_P(EndTest, LateResponseDoesNothing) {
    for (const size_t retries : {0u, 1u}) {
        for (const int retCode : {0, kRetryable}) {
            makeAdapter();
            clearRecords();
            retries == 0 ? givenSent(kind()) : givenRetrySent(kind());
            const CVexaHttpSendRecv::Callback callback = request(retries).callback;
            destroyAdapter();

            KstCopyOnWriteBuffer response;
            callback(retCode, response);

            expectSilence();
        }
    }
}

TEST_P(EndTest, WaitingRetryAndReportAreDropped) {
    for (const int retCode : {kRetryable, 0}) {
        makeAdapter();
        givenSent(kind());
        mPlatform.respond(0, retCode, kOk);

        destroyAdapter();

        expectSilence();
    }
}

TEST_P(EndTest, AdapterMayBeDroppedInTheFirstOfTwoCallsAndTheSecondIsStillMade) {
    givenSent(kind());
    const std::weak_ptr<LiveTranscodingAdapter> adapter = mAdapter;
    onCall = [this] { mAdapter.reset(); };

    respondToAll(0, "");

    EXPECT_TRUE(adapter.expired());
    EXPECT_THAT(notified(), SizeIs(2));
    clearRecords();
    expectSilence();
}

TEST_F(AdapterTest, AdapterMayBeDroppedInsideATask) {
    const std::weak_ptr<LiveTranscodingAdapter> adapter = mAdapter;
    onCall = [this] { mAdapter.reset(); };
    callRefused(kAddRelay);
    callRefused(kAddRelay);

    run();

    EXPECT_TRUE(adapter.expired());
    EXPECT_THAT(notified(), SizeIs(1));
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_EQ(VirtualTime::queuedTasks(), 0u);
}

TEST_F(AdapterTest, ListenerMayOwnTheAdapterAndBeDestroyedWithIt) {
    // During the call, the listener is owned only by the call, and the adapter only by the listener.
    givenSent(kAddRelay);
    const std::weak_ptr<LiveTranscodingAdapter> adapter = mAdapter;
    int calls = 0;
    mListener->during = [this, &calls, owned = mAdapter](const Call&) {
        ++calls;
        mListener.reset();
    };
    mAdapter.reset();

    respond(0, kOk);

    EXPECT_TRUE(adapter.expired());
    EXPECT_EQ(calls, 1);
}
