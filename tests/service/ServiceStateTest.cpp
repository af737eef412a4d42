// The bounds of the state, which only many requests reach.

#include <gtest/gtest.h>

#include "service/ServiceState.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using vexalive::AcceptedRequest;
using vexalive::Refusal;
using vexalive::ServiceState;

namespace {

AcceptedRequest requestFor(AcceptedRequest::Kind kind, size_t number) {
    AcceptedRequest request;
    request.kind = kind;
    request.streamId = streamIdOf(static_cast<int>(number));
    return request;
}

int codeOf(const std::variant<std::string, Refusal>& result) {
    const Refusal* refusal = std::get_if<Refusal>(&result);
    return refusal ? refusal->code : 0;
}

}  // namespace

TEST(ServiceState, OneRelayTooManyIsRefusedUntilAnotherIsRemoved) {
    ServiceState state;
    for (size_t number = 0; number < ServiceState::kMaxRelays; ++number) {
        ASSERT_EQ(0, codeOf(state.apply(requestFor(AcceptedRequest::Kind::kAddRelay, number))));
    }
    const AcceptedRequest further = requestFor(AcceptedRequest::Kind::kAddRelay, ServiceState::kMaxRelays);

    EXPECT_EQ(Refusal::kFull, codeOf(state.apply(further)));
    EXPECT_EQ(0, codeOf(state.apply(requestFor(AcceptedRequest::Kind::kAddRelay, 5))));  // moved, not added
    EXPECT_EQ(0, codeOf(state.apply(requestFor(AcceptedRequest::Kind::kRemoveRelay, 5))));
    EXPECT_EQ(0, codeOf(state.apply(further)));
}

TEST(ServiceState, TheMixThatEndedFirstMakesRoomAndRunningOnesStay) {
    ServiceState state;
    for (size_t number = 0; number < ServiceState::kMaxMixes; ++number) {
        ASSERT_EQ(0, codeOf(state.apply(requestFor(AcceptedRequest::Kind::kStartMix, number))));
    }
    const AcceptedRequest further = requestFor(AcceptedRequest::Kind::kStartMix, ServiceState::kMaxMixes);
    EXPECT_EQ(Refusal::kFull, codeOf(state.apply(further)));

    state.apply(requestFor(AcceptedRequest::Kind::kCancelMix, 9));
    state.apply(requestFor(AcceptedRequest::Kind::kCancelMix, 3));
    EXPECT_EQ(0, codeOf(state.apply(further)));

    const std::string shown = state.toFields().dump();
    EXPECT_EQ(std::string::npos, shown.find(streamIdOf(9)));
    EXPECT_NE(std::string::npos, shown.find(streamIdOf(3)));
}

TEST(ServiceState, AMixRemembersItsLatestUpdatesAndCountsAll) {
    ServiceState state;
    for (size_t time = 0; time < ServiceState::kMaxUpdates + 5; ++time) {
        state.apply(requestFor(AcceptedRequest::Kind::kStartMix, 1));
    }
    const json mix = json(state.toFields())["mixes"][0];
    EXPECT_EQ(ServiceState::kMaxUpdates + 5, mix["updates"]);
    EXPECT_EQ(ServiceState::kMaxUpdates, mix["history"].size());
    EXPECT_EQ("update", mix["history"][0]["operation"]);
}

TEST(ServiceState, OnlyTheLatestRequestsAreRememberedAndLongBodiesAreCut) {
    ServiceState state;
    for (size_t number = 0; number < ServiceState::kMaxRequests + 3; ++number) {
        vexalive::RequestRecord record;
        record.answer = std::to_string(number);
        record.body = std::string(ServiceState::kMaxBodyBytes + 100, '\xff');  // nor UTF-8
        state.remember(record);
    }
    const json requests = json(state.toFields())["requests"];
    ASSERT_EQ(ServiceState::kMaxRequests, requests.size());
    EXPECT_EQ("3", requests.front()["answer"]);
    EXPECT_EQ(ServiceState::kMaxBodyBytes + 100, requests.front()["body_bytes"]);
}
