// The bounds of the state. Only a large number of requests reaches them.

#include <gtest/gtest.h>

#include <set>

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

int codeOf(const vexalive::Result<std::string, Refusal>& result) {
    return result ? 0 : result.error().code;
}

}  // namespace

TEST(ServiceState, OneRelayTooManyIsRefusedUntilAnotherIsRemoved) {
    ServiceState state;
    for (size_t number = 0; number < ServiceState::kMaxRelays; ++number) {
        ASSERT_EQ(0, codeOf(state.apply(requestFor(AcceptedRequest::Kind::kAddRelay, number))));
    }
    const AcceptedRequest further = requestFor(AcceptedRequest::Kind::kAddRelay, ServiceState::kMaxRelays);

    EXPECT_EQ(Refusal::kFull, codeOf(state.apply(further)));
    EXPECT_EQ(0, codeOf(state.apply(requestFor(AcceptedRequest::Kind::kAddRelay, 5))));  // an existing relay is moved
    EXPECT_EQ(0, codeOf(state.apply(requestFor(AcceptedRequest::Kind::kRemoveRelay, 5))));
    EXPECT_EQ(0, codeOf(state.apply(further)));
}

TEST(ServiceState, TheMixThatWasCancelledFirstIsDroppedForANewOneAndRunningOnesStay) {
    ServiceState state;
    for (size_t number = 0; number < ServiceState::kMaxMixes; ++number) {
        ASSERT_EQ(0, codeOf(state.apply(requestFor(AcceptedRequest::Kind::kStartMix, number))));
    }
    const AcceptedRequest further = requestFor(AcceptedRequest::Kind::kStartMix, ServiceState::kMaxMixes);
    EXPECT_EQ(Refusal::kFull, codeOf(state.apply(further)));

    state.apply(requestFor(AcceptedRequest::Kind::kCancelMix, 9));
    state.apply(requestFor(AcceptedRequest::Kind::kCancelMix, 3));
    EXPECT_EQ(0, codeOf(state.apply(further)));

    std::set<std::string> ids;
    for (const vexalive::MixSnapshot& mix : state.snapshot().mixes) {
        ids.insert(mix.request.streamId);
    }
    EXPECT_EQ(0u, ids.count(streamIdOf(9)));
    EXPECT_EQ(1u, ids.count(streamIdOf(3)));
}

TEST(ServiceState, AMixListsItsLatestUpdatesAndCountsAll) {
    ServiceState state;
    for (size_t time = 0; time < ServiceState::kMaxUpdates + 5; ++time) {
        state.apply(requestFor(AcceptedRequest::Kind::kStartMix, 1));
    }
    const vexalive::MixSnapshot mix = state.snapshot().mixes.at(0);
    EXPECT_EQ(ServiceState::kMaxUpdates + 5, static_cast<size_t>(mix.updates));
    EXPECT_EQ(ServiceState::kMaxUpdates, mix.history.size());
    EXPECT_EQ("update", mix.history.front().operation);
}

TEST(ServiceState, OnlyTheLatestRequestsAreListedAndLongBodiesAreCut) {
    ServiceState state;
    for (size_t number = 0; number < ServiceState::kMaxRequests + 3; ++number) {
        vexalive::RequestRecord record;
        record.response = std::to_string(number);
        record.body = std::string(ServiceState::kMaxBodyBytes + 100, '\xff');  // not UTF-8
        state.record(record);
    }
    const json requests = json(toJson(state.snapshot()))["requests"];
    ASSERT_EQ(ServiceState::kMaxRequests, requests.size());
    EXPECT_EQ("3", requests.front()["response"]);
    EXPECT_EQ(ServiceState::kMaxBodyBytes + 100, requests.front()["body_bytes"]);
}
