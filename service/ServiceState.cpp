#include "service/ServiceState.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

namespace vexalive {

using nlohmann::ordered_json;

namespace {

// UTC, as in 2024-01-31T12:00:00.000Z.
std::string timeNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03dZ", static_cast<int>(milliseconds % 1000));
    return std::string(date) + fraction;
}

ordered_json showCanvas(const std::optional<MixCanvas>& canvas) {
    if (!canvas) {
        return nullptr;
    }
    return {{"width", canvas->width}, {"height", canvas->height}, {"color", canvas->color}};
}

ordered_json showInputs(const std::vector<MixInput>& inputs) {
    ordered_json shown = ordered_json::array();
    for (const MixInput& input : inputs) {
        shown.push_back({{"stream_id", input.streamId},
                         {"type", input.isAudio ? "audio" : "video"},
                         {"layer", input.layer},
                         {"x", input.x},
                         {"y", input.y},
                         {"width", input.width},
                         {"height", input.height}});
    }
    return shown;
}

}  // namespace

std::variant<std::string, Refusal> ServiceState::apply(const AcceptedRequest& request) {
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

// A stream has one destination; another add moves it there.
std::variant<std::string, Refusal> ServiceState::addRelay(const AcceptedRequest& request) {
    const auto found = mRelays.find(request.streamId);
    if (found == mRelays.end() && mRelays.size() >= kMaxRelays) {
        return Refusal{
            Refusal::kFull, "stream_id",
            "stream_id: " + std::to_string(kMaxRelays) + " streams are being relayed, the most that is held"};
    }
    Relay& relay = mRelays[request.streamId];
    relay.latest = request;
    relay.since = found == mRelays.end() ? timeNow() : relay.since;
    ++relay.requests;
    return "add";
}

std::variant<std::string, Refusal> ServiceState::removeRelay(const AcceptedRequest& request) {
    if (mRelays.erase(request.streamId) == 0) {
        return Refusal{Refusal::kNotRunning, "stream_id",
                       "stream_id: found " + excerpt(request.streamId) + ", which is not being relayed"};
    }
    return "remove";
}

std::variant<std::string, Refusal> ServiceState::startMix(const AcceptedRequest& request) {
    if (mMixes.count(request.streamId) == 0 && !makeRoomForMix()) {
        return Refusal{Refusal::kFull, "session_id",
                       "session_id: " + std::to_string(kMaxMixes) + " mixes are running, the most that is held"};
    }
    Mix& mix = mMixes[request.streamId];
    const std::string now = timeNow();
    const std::string operation = mix.isRunning ? "update" : "start";
    mix.since = mix.isRunning ? mix.since : now;
    mix.isRunning = true;
    mix.latest = request;
    ++mix.updates;
    mix.history.push_back({now, operation, request});
    if (mix.history.size() > kMaxUpdates) {
        mix.history.pop_front();
    }
    return operation;
}

std::variant<std::string, Refusal> ServiceState::cancelMix(const AcceptedRequest& request) {
    const auto found = mMixes.find(request.streamId);
    if (found == mMixes.end() || !found->second.isRunning) {
        return Refusal{Refusal::kNotRunning, "session_id",
                       "session_id: found " + excerpt(request.streamId) + ", which has no running mix to cancel"};
    }
    Mix& mix = found->second;
    mix.isRunning = false;
    mix.ended = ++mEndedMixes;
    ++mix.updates;
    mix.history.push_back({timeNow(), "cancel", request});
    if (mix.history.size() > kMaxUpdates) {
        mix.history.pop_front();
    }
    return "cancel";
}

bool ServiceState::makeRoomForMix() {
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

void ServiceState::remember(RequestRecord record) {
    const size_t bodyBytes = record.body.size();
    record.body.resize(std::min(bodyBytes, kMaxBodyBytes));
    KstMutexLock lock(mMutex);
    mRequests.push_back({timeNow(), bodyBytes, std::move(record)});
    if (mRequests.size() > kMaxRequests) {
        mRequests.pop_front();
    }
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

ordered_json ServiceState::toFields() const {
    ordered_json relays = ordered_json::array();
    ordered_json mixes = ordered_json::array();
    ordered_json requests = ordered_json::array();
    KstMutexLock lock(mMutex);
    for (const auto& [id, relay] : mRelays) {
        relays.push_back({{"stream_id", id},
                          {"dest_stream_url", relay.latest.destination},
                          {"appid", relay.latest.appId},
                          {"since", relay.since},
                          {"requests", relay.requests}});
    }
    for (const auto& [id, mix] : mMixes) {
        ordered_json history = ordered_json::array();
        for (const Update& update : mix.history) {
            history.push_back({{"time", update.time},
                               {"operation", update.operation},
                               {"canvas", showCanvas(update.request.canvas)},
                               {"inputs", update.request.inputs.size()}});
        }
        mixes.push_back({{"output_stream_id", id},
                         {"running", mix.isRunning},
                         {"appid", mix.latest.appId},
                         {"since", mix.since},
                         {"updates", mix.updates},
                         {"canvas", showCanvas(mix.latest.canvas)},
                         {"inputs", showInputs(mix.latest.inputs)},
                         {"output", mix.latest.output},
                         {"output_sei", mix.latest.sei},
                         {"history", history}});
    }
    for (const Remembered& each : mRequests) {
        requests.push_back({{"time", each.time},
                            {"interface", each.record.interfaceName},
                            {"query", each.record.query},
                            {"body", each.record.body},
                            {"body_bytes", each.bodyBytes},
                            {"http_status", each.record.httpStatus},
                            {"answer", each.record.answer},
                            {"refused_field", each.record.refusedField},
                            {"fault", each.record.fault}});
    }
    return {{"relays", relays}, {"mixes", mixes}, {"requests", requests}};
}

}  // namespace vexalive
