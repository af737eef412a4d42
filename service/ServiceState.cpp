#include "service/ServiceState.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "service/JsonFields.h"

namespace vexalive {

namespace {

uint64_t timeNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

template <class Value>
void pushBounded(std::deque<Value>& queue, Value value, size_t max) {
    queue.push_back(std::move(value));
    if (queue.size() > max) {
        queue.pop_front();
    }
}

}  // namespace

Result<std::string, Refusal> ServiceState::apply(const AcceptedRequest& request) {
    KstMutexLock lock(mMutex);
    switch (request.kind) {
        case AcceptedRequest::Kind::kAddRelay:
            return addRelay(request);
        case AcceptedRequest::Kind::kRemoveRelay:
            return removeRelay(request);
        case AcceptedRequest::Kind::kStartMix:
            return startMix(request);
        case AcceptedRequest::Kind::kCancelMix:
            break;
    }
    return cancelMix(request);
}

// A stream has one destination. Another add of the same stream replaces the destination.
Result<std::string, Refusal> ServiceState::addRelay(const AcceptedRequest& request) {
    const auto found = mRelays.find(request.streamId);
    if (found == mRelays.end() && mRelays.size() >= kMaxRelays) {
        return refused(Refusal::kFull, "stream_id",
                       std::to_string(kMaxRelays) + " streams are being relayed, the maximum");
    }
    Relay& relay = mRelays[request.streamId];
    relay.latest = request;
    relay.since = found == mRelays.end() ? timeNow() : relay.since;
    ++relay.requests;
    return "add";
}

Result<std::string, Refusal> ServiceState::removeRelay(const AcceptedRequest& request) {
    if (mRelays.erase(request.streamId) == 0) {
        return refused(Refusal::kNotRunning, "stream_id",
                       "found " + excerpt(request.streamId) + ", which is not being relayed");
    }
    return "remove";
}

Result<std::string, Refusal> ServiceState::startMix(const AcceptedRequest& request) {
    if (mMixes.count(request.streamId) == 0 && !makeSpaceForMix()) {
        return refused(Refusal::kFull, "session_id", std::to_string(kMaxMixes) + " mixes are running, the maximum");
    }
    Mix& mix = mMixes[request.streamId];
    const uint64_t now = timeNow();
    const std::string operation = mix.isRunning ? "update" : "start";
    mix.since = mix.isRunning ? mix.since : now;
    mix.isRunning = true;
    mix.latest = request;
    ++mix.updates;
    pushBounded(mix.history, {now, operation, request.canvas, request.inputs.size()}, kMaxUpdates);
    return operation;
}

Result<std::string, Refusal> ServiceState::cancelMix(const AcceptedRequest& request) {
    const auto found = mMixes.find(request.streamId);
    if (found == mMixes.end() || !found->second.isRunning) {
        return refused(Refusal::kNotRunning, "session_id",
                       "found " + excerpt(request.streamId) + ", which has no running mix to cancel");
    }
    Mix& mix = found->second;
    mix.isRunning = false;
    mix.ended = ++mEndedMixes;
    ++mix.updates;
    pushBounded(mix.history, {timeNow(), "cancel", request.canvas, request.inputs.size()}, kMaxUpdates);
    return "cancel";
}

bool ServiceState::makeSpaceForMix() {
    if (mMixes.size() < kMaxMixes) {
        return true;
    }
    auto oldest = mMixes.end();
    for (auto mix = mMixes.begin(); mix != mMixes.end(); ++mix) {
        if (!mix->second.isRunning && (oldest == mMixes.end() || mix->second.ended < oldest->second.ended)) {
            oldest = mix;
        }
    }
    if (oldest == mMixes.end()) {
        return false;
    }
    mMixes.erase(oldest);
    return true;
}

void ServiceState::record(RequestRecord record) {
    record.time = timeNow();
    record.bodyBytes = record.body.size();
    record.body.resize(std::min(record.bodyBytes, kMaxBodyBytes));
    KstMutexLock lock(mMutex);
    pushBounded(mRequests, std::move(record), kMaxRequests);
}

std::vector<AcceptedRequest> ServiceState::running() const {
    std::vector<AcceptedRequest> requests;
    KstMutexLock lock(mMutex);
    for (const auto& [id, relay] : mRelays) {
        requests.push_back(relay.latest);
    }
    for (const auto& [id, mix] : mMixes) {
        if (mix.isRunning) {
            requests.push_back(mix.latest);
        }
    }
    return requests;
}

ServiceSnapshot ServiceState::snapshot() const {
    ServiceSnapshot snapshot;
    KstMutexLock lock(mMutex);
    for (const auto& [id, relay] : mRelays) {
        snapshot.relays.push_back({relay.latest, relay.since, relay.requests, std::nullopt});
    }
    for (const auto& [id, mix] : mMixes) {
        snapshot.mixes.push_back({mix.latest, mix.isRunning, mix.since, mix.updates,
                                  std::vector<MixUpdate>(mix.history.begin(), mix.history.end()), std::nullopt});
    }
    snapshot.requests.assign(mRequests.begin(), mRequests.end());
    return snapshot;
}

}  // namespace vexalive
