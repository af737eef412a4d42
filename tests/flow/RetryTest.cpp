// Sending again: budget, pauses, traces, and which work a newer operation stops.

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class RetryTest : public FlowTest, public ::testing::WithParamInterface<Kind> {
protected:
    // What the trace opens with, before any response.
    std::string opening() const {
        if (GetParam().client == kAddRelay.client) {
            return body(0);
        }
        if (GetParam().client == kStartMix.client) {
            return std::string("task_id:1, pureAudioOutputStream:0, stream: ") +
                   R"({"input_stream_list":[{"input_stream_id":"canvas1","layout_params":{"image_layer":1,)"
                   R"("input_type":3}},{"input_stream_id":"8888_fcbd0847daa9c600a757e0d48049b252","layout_params":)"
                   R"({"image_layer":2,"input_type":0}}],"output_param":{"output_stream_id":)"
                   R"("8888_fcbd0847daa9c600a757e0d48049b252","output_stream_type":0},)"
                   R"("session_id":"8888_fcbd0847daa9c600a757e0d48049b252"})";
        }
        return "";
    }

    // The report's information.
    std::string information() const {
        return !GetParam().isStart ? body(0) : GetParam().isRelay ? kRelayText : mixText();
    }

    // The counter that stands in a trace where the kind's own has this value: a relay stop shows that of the start.
    static int traced(int counter) { return GetParam().client == kRemoveRelay.client ? 0 : counter; }

    static bool isAddRelay() { return GetParam().client == kAddRelay.client; }

    void supersedeByTheSame() { begin(GetParam()); }
    void supersedeByTheOther() {
        const Kind& kind = GetParam();
        begin(kind.isRelay ? (kind.isStart ? kRemoveRelay : kAddRelay) : (kind.isStart ? kCancelMix : kStartMix));
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, RetryTest, ::testing::Values(kAddRelay, kRemoveRelay, kStartMix, kCancelMix),
                         nameOfKind);

// ---- The schedule ---------------------------------------------------------------------------------------------------

TEST_P(RetryTest, RequestThatFailsElevenTimesEndsWithOneCallAndOneReportOfAllResponses) {
    const Kind& kind = GetParam();
    givenSent(kind);

    std::string trace = opening();
    for (int counter = 10; counter >= 0; --counter) {
        const std::string reply = "down " + std::to_string(counter);
        trace += traceSegment(traced(counter), 1, reply);
        EXPECT_THAT(notified(), IsEmpty());
        EXPECT_THAT(reports(), IsEmpty());
        respond(1, reply);
        VirtualTime::runUntilQuiet();
    }

    EXPECT_THAT(delays(), ElementsAre(1000, 1000, 2000, 2000, 2000, 5000, 5000, 5000, 5000, 5000));
    EXPECT_THAT(notified(), ElementsAre(Notified{kind.operation, kind.transportCode,
                                                 "http post return error\xef\xbc\x8c retcode:1"}));
    EXPECT_THAT(reports(), ElementsAre(Reported{kind.event, information(), trace}));
}

TEST_P(RetryTest, EveryRetryIsLoggedWithTheRetriesMade) {
    const Kind& kind = GetParam();
    givenSent(kind);

    respondToAll(1, "");

    std::vector<std::string> sends;
    for (const Logged& line : log()) {
        if (line.text.find("jsonStr") != std::string::npos) {
            sends.push_back(line.text);
        }
    }
    ASSERT_THAT(sends, SizeIs(11));
    const std::string index = kind.isStart ? "1" : "2";
    EXPECT_EQ(sends[0], filled(kind.sendLog, {index, "0", body(0)}));
    for (size_t retry = 1; retry <= 10; ++retry) {
        EXPECT_EQ(sends[retry], filled(kind.retrySendLog, {index, std::to_string(retry), body(retry)}));
    }
}

TEST_P(RetryTest, RetryIsSentWhenItsDelayIsOverAndNotBefore) {
    givenSent(GetParam());

    respond(1, "");

    pass(Milliseconds(999));
    EXPECT_THAT(requests(), SizeIs(1));
    pass(Milliseconds(1));
    EXPECT_THAT(requests(), SizeIs(2));
}

TEST_P(RetryTest, ResponseThatIsRetriedPostsOneDelayedTaskAndNothingElse) {
    givenSent(GetParam());

    mPlatform.respond(0, 1, "");

    EXPECT_EQ(VirtualTime::delayedTasks(), 1u);
    EXPECT_EQ(VirtualTime::queuedTasks(), 0u);
    EXPECT_THAT(notified(), IsEmpty());
}

TEST_P(RetryTest, LastOfElevenResponsesMaySucceed) {
    givenSent(GetParam());
    for (int i = 0; i < 10; ++i) {
        failAndWaitForRetry();
    }

    respondOk();

    EXPECT_THAT(requests(), SizeIs(11));
    EXPECT_THAT(notified(), ElementsAre(Notified{GetParam().operation, 0, "sucess"}));
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_THAT(reports()[0].detail, HasSubstr(traceSegment(traced(0), 0, kOk)));
}

TEST_P(RetryTest, SuccessAfterTwoRetriesReportsThreeResponsesOnce) {
    givenSent(GetParam());

    failAndWaitForRetry();
    failAndWaitForRetry();
    respondOk();

    EXPECT_THAT(reports(), ElementsAre(Reported{GetParam().event, information(),
                                                opening() + traceSegment(traced(10), 1, "") +
                                                    traceSegment(traced(9), 1, "") + traceSegment(traced(8), 0, kOk)}));
}

TEST_P(RetryTest, NextRequestOfTheKindHasTheWholeBudgetAgain) {
    givenSent(GetParam());
    respondToAll(1, "");
    clearRecords();

    begin(GetParam());
    respondToAll(1, "");

    EXPECT_THAT(requests(), SizeIs(11));
}

// ---- Superseded -----------------------------------------------------------------------------------------------------

TEST_P(RetryTest, FirstResponseOfSupersededWorkIsDroppedSilently) {
    givenSent(GetParam());
    supersedeByTheOther();
    clearAllButRequests();

    respondTo(0, 1, "");
    EXPECT_EQ(VirtualTime::delayedTasks(), 0u);
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_P(RetryTest, FirstResponseIsDroppedWhenTheSameOperationWasCalledAgain) {
    givenSent(GetParam());
    supersedeByTheSame();
    clearAllButRequests();

    respondTo(0, 0, kOk);

    EXPECT_THAT(log(), IsEmpty());
    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_P(RetryTest, WaitingRetryOfSupersededWorkIsSentForARelayStartAndDroppedSilentlyElse) {
    givenSent(GetParam());
    respond(1, "");
    supersedeByTheOther();
    clearAllButRequests();
    const size_t before = requests().size();

    pass(Milliseconds(1000));

    EXPECT_EQ(VirtualTime::delayedTasks(), 0u);
    EXPECT_THAT(requests(), SizeIs(before + (isAddRelay() ? 1 : 0)));
    EXPECT_THAT(log(), SizeIs(isAddRelay() ? 1 : 0));
    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_P(RetryTest, WaitingRetryIsTreatedTheSameWhenTheSameOperationWasCalledAgain) {
    givenSent(GetParam());
    respond(1, "");
    supersedeByTheSame();
    clearAllButRequests();
    const size_t before = requests().size();

    pass(Milliseconds(1000));

    EXPECT_THAT(requests(), SizeIs(before + (isAddRelay() ? 1 : 0)));
}

TEST_P(RetryTest, RetrysResponseOfSupersededWorkIsDroppedForARelayStartAndNotifiedAndReportedElse) {
    const Kind& kind = GetParam();
    givenRetrySent(kind);
    supersedeByTheOther();
    clearAllButRequests();

    respondTo(1, 0, kOk);

    if (isAddRelay()) {
        EXPECT_THAT(notified(), IsEmpty());
        EXPECT_THAT(reports(), IsEmpty());
        EXPECT_THAT(log(), IsEmpty());
    } else {
        EXPECT_THAT(notified(), ElementsAre(Notified{kind.operation, 0, "sucess"}));
        EXPECT_THAT(reports(), SizeIs(1));
        EXPECT_THAT(log(), SizeIs(1));
    }
}

TEST_P(RetryTest, OtherOperationOfTheFamilyLeavesASupersededRetryNoFurtherRetry) {
    const Kind& kind = GetParam();
    givenRetrySent(kind);
    supersedeByTheOther();
    clearAllButRequests();

    respondTo(1, 1, "");

    EXPECT_EQ(VirtualTime::delayedTasks(), 0u);
    if (!isAddRelay()) {
        EXPECT_THAT(notified(), ElementsAre(Notified{kind.operation, kind.transportCode,
                                                     "http post return error\xef\xbc\x8c retcode:1"}));
        EXPECT_THAT(reports(), SizeIs(1));
    }
}

TEST_P(RetryTest, SupersededRetryMayUseARetryOfTheNewRequestAndItsTaskIsThenDropped) {
    givenRetrySent(GetParam());
    supersedeByTheSame();  // sends, so the counter is 10 again
    clearAllButRequests();
    const size_t before = requests().size();

    respondTo(1, 1, "");

    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_EQ(VirtualTime::delayedTasks(), isAddRelay() ? 0u : 1u);
    VirtualTime::runUntilQuiet();
    EXPECT_THAT(requests(), SizeIs(before));
    // One try fewer is left to the new request.
    respondToAll(1, "");
    EXPECT_THAT(requests(), SizeIs(before + (isAddRelay() ? 10 : 9)));
}

// The call itself zeroes both counters of the family, before its task runs.
TEST_P(RetryTest, CallOfEitherOperationOrResetLeavesNoRetryToARetryUnderWay) {
    const Kind& kind = GetParam();
    const Kind& other = kind.isRelay   ? (kind.isStart ? kRemoveRelay : kAddRelay)
                        : kind.isStart ? kCancelMix
                                       : kStartMix;
    const std::function<void()> operations[] = {[&] { call(kind); }, [&] { call(other); },
                                                [this] { mAdapter->resetInfo(); }};
    for (const auto& operation : operations) {
        clearRecords();
        reset();
        clearRecords();
        givenRetrySent(kind);
        operation();

        mPlatform.respond(1, 1, "");

        EXPECT_EQ(VirtualTime::delayedTasks(), 0u);
        EXPECT_THAT(notified(), SizeIs(isAddRelay() ? 0 : 1));
        run();
    }
}

TEST_P(RetryTest, ResetDropsTheFirstResponse) {
    givenSent(GetParam());
    reset();
    clearAllButRequests();

    respondTo(0, 1, "");

    EXPECT_EQ(VirtualTime::delayedTasks(), 0u);
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_P(RetryTest, ResetStopsAWaitingRetryUnlessItIsARelayStarts) {
    givenSent(GetParam());
    respond(1, "");
    reset();

    pass(Milliseconds(1000));

    EXPECT_THAT(requests(), SizeIs(isAddRelay() ? 2 : 1));
}

TEST_P(RetryTest, WorkOfTheOtherFamilyChangesNothing) {
    const Kind& kind = GetParam();
    givenSent(kind);
    respond(1, "");

    begin(kind.isRelay ? kStartMix : kAddRelay);
    begin(kind.isRelay ? kCancelMix : kRemoveRelay);
    pass(Milliseconds(1000));

    ASSERT_THAT(requests(), SizeIs(4));
    EXPECT_EQ(request(3).client, kind.client);
    respondTo(3, 0, kOk);
    EXPECT_EQ(notified().back(), (Notified{kind.operation, 0, "sucess"}));
}

// ---- Several at once ------------------------------------------------------------------------------------------------

class TwoFamiliesTest : public FlowTest {};

TEST_F(TwoFamiliesTest, RelayAndMixAreRetriedEachOnItsOwnBudgetAndSchedule) {
    givenInRoom();
    startRelay();
    startMix();

    respondTo(0, 1, "");
    pass(Milliseconds(1000));  // request 2: relay, second try
    respondTo(2, 1, "");
    pass(Milliseconds(1000));  // request 3: relay, third try
    respondTo(1, 1, "");
    pass(Milliseconds(1000));  // request 4: mix, second try
    respondTo(3, 0, kOk);
    respondTo(4, 0, kOk);

    EXPECT_THAT(delays(), ElementsAre(0, 1000, 1000, 1000));
    EXPECT_THAT(notified(), ElementsAre(Notified{"onStartPublishStreamUrl", 0, "sucess"},
                                        Notified{"onSetLiveMixTranscoding", 0, "sucess"}));
    ASSERT_THAT(reports(), SizeIs(2));
    EXPECT_THAT(reports()[0].detail,
                testing::EndsWith(traceSegment(10, 1, "") + traceSegment(9, 1, "") + traceSegment(8, 0, kOk)));
    EXPECT_THAT(reports()[1].detail, testing::EndsWith(traceSegment(10, 1, "") + traceSegment(9, 0, kOk)));
}
