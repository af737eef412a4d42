// Retries: their number, delays and traces, and the effects of newer operations on them.

#include <tuple>

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class RetryTest : public KindTest {
protected:
    // The counter that the trace prints. Intended: a relay stop prints that of the start, which is 0.
    int traced(int counter) const { return rulesOf(kind()).tracedCounter == kind() ? counter : 0; }
};

INSTANTIATE_TEST_SUITE_P(Kinds, RetryTest, kAllKinds, nameOfKind);

// ---- The schedule ---------------------------------------------------------------------------------------------------

TEST_P(RetryTest, RequestThatFailsElevenTimesEndsWithOneCallAndOneReportOfAllResponses) {
    givenSent(kind());

    std::string trace;
    for (int counter = 10; counter >= 0; --counter) {
        expectNeitherNotifiedNorReported();
        const std::string response = "down " + std::to_string(counter);
        trace += traceSegment(traced(counter), 1, response);
        mPlatform.respond(requests().size() - 1, 1, response);
        EXPECT_EQ(VirtualTime::delayedTasks(), counter > 0 ? 1u : 0u);
        EXPECT_EQ(VirtualTime::queuedTasks(), counter > 0 ? 0u : 1u);  // the task of the report
        VirtualTime::runUntilQuiet();
    }

    EXPECT_THAT(delays(), ElementsAre(1000, 1000, 2000, 2000, 2000, 5000, 5000, 5000, 5000, 5000));
    EXPECT_THAT(notified(), ElementsAre(failedWithRetCode1()));
    ASSERT_THAT(reports(), SizeIs(1));
    EXPECT_EQ(reports()[0].event, rulesOf(kind()).event);
    EXPECT_EQ(reports()[0].information, isStart(kind()) ? startInformation(kind()) : body(0));
    EXPECT_THAT(reports()[0].detail, EndsWith(trace));
}

TEST_P(RetryTest, WorkOfTheOtherFamilyChangesNothing) {
    givenSent(kind());
    respond(1, "");

    begin(startOfTheOtherFamily());
    begin(stopOf(startOfTheOtherFamily()));
    pass(Milliseconds(1000));

    ASSERT_THAT(sent(), ElementsAre(kind(), startOfTheOtherFamily(), stopOf(startOfTheOtherFamily()), kind()));
    respondTo(3, 0, kOk);
    EXPECT_EQ(notified().back(), succeeded());
}

// ---- Superseded -----------------------------------------------------------------------------------------------------

// What supersedes a request: the same operation again, the other operation of the family, a refused start of the
// family, or a reset.
enum class Operation { kSame, kOther, kRefused, kReset };

class SupersededTest : public FlowTest, public ::testing::WithParamInterface<std::tuple<Kind, Operation>> {
protected:
    Kind kind() const { return std::get<0>(GetParam()); }
    Operation operation() const { return std::get<1>(GetParam()); }
    bool isAddRelay() const { return kind() == kAddRelay; }

    // Calls the operation without running its task.
    void callOperation() {
        switch (operation()) {
            case Operation::kSame:
                return call(kind());
            case Operation::kOther:
                return call(isStart(kind()) ? stopOf(kind()) : startOf(kind()));
            case Operation::kRefused:
                return callRefused(startOf(kind()));
            case Operation::kReset:
                return mAdapter->resetInfo();
        }
    }
    void supersede() {
        callOperation();
        run();
        clearAllButRequests();
        mRequestsBefore = requests().size();
    }
    void expectNothingRecorded() const {
        EXPECT_THAT(log(), IsEmpty());
        expectNeitherNotifiedNorReported();
    }

    size_t mRequestsBefore = 0;
};

INSTANTIATE_TEST_SUITE_P(Kinds, SupersededTest,
                         ::testing::Combine(kAllKinds, ::testing::Values(Operation::kSame, Operation::kOther,
                                                                         Operation::kRefused, Operation::kReset)));

TEST_P(SupersededTest, FirstResponseIsDroppedSilentlyFromTheCallOn) {
    givenSent(kind());
    clearAllButRequests();
    callOperation();

    mPlatform.respond(0, 1, "");

    EXPECT_EQ(VirtualTime::delayedTasks(), 0u);
    EXPECT_EQ(VirtualTime::queuedTasks(), 1u);  // the task of the call
    expectNothingRecorded();
}

TEST_P(SupersededTest, WaitingRetryIsSentForARelayStartAndDroppedSilentlyElse) {
    givenSent(kind());
    respond(1, "");
    supersede();

    pass(Milliseconds(1000));

    EXPECT_EQ(VirtualTime::delayedTasks(), 0u);
    EXPECT_THAT(requests(), SizeIs(mRequestsBefore + (isAddRelay() ? 1 : 0)));
    EXPECT_THAT(log(), SizeIs(isAddRelay() ? 1 : 0));
    expectNeitherNotifiedNorReported();
}

TEST_P(SupersededTest, RetrysResponseIsDroppedForARelayStartAndNotifiedAndReportedElse) {
    givenRetrySent(kind());
    supersede();

    respondTo(1, 0, kOk);

    if (isAddRelay()) {
        expectNothingRecorded();
    } else {
        EXPECT_THAT(notified(), ElementsAre(Call{rulesOf(kind()).name, 0, "sucess"}));
        EXPECT_THAT(reports(), SizeIs(1));
        EXPECT_THAT(log(), SizeIs(1));
    }
}

// The call sets both retry counters of the family to 0, before its task runs.
TEST_P(SupersededTest, CallLeavesNoRetryToARetryInFlight) {
    givenRetrySent(kind());
    callOperation();

    mPlatform.respond(1, 1, "");

    EXPECT_EQ(VirtualTime::delayedTasks(), 0u);
    EXPECT_THAT(notified(), SizeIs(isAddRelay() ? 0 : 1));
}

TEST_P(SupersededTest, RetryInFlightMayOnlyUseARetryOfANewRequestOfItsKindAndItsTaskIsThenDropped) {
    givenRetrySent(kind());
    supersede();
    const bool isSame = operation() == Operation::kSame;  // sends a new request, which sets the counter to 10 again

    respondTo(1, 1, "");

    EXPECT_EQ(VirtualTime::delayedTasks(), isSame && !isAddRelay() ? 1u : 0u);
    if (isSame || isAddRelay()) {
        EXPECT_THAT(notified(), IsEmpty());
    } else {
        EXPECT_THAT(notified(), ElementsAre(Call{rulesOf(kind()).name, rulesOf(kind()).transportCode, std::nullopt}));
        EXPECT_THAT(reports(), SizeIs(1));
    }
    VirtualTime::runUntilQuiet();
    EXPECT_THAT(requests(), SizeIs(mRequestsBefore));
    if (isSame) {
        respondToAll(1, "");  // unless it is a relay start, the new request has one retry fewer
        EXPECT_THAT(requests(), SizeIs(mRequestsBefore + (isAddRelay() ? 10 : 9)));
    }
}
