#include <nlohmann/json.hpp>
#include <utility>

#include "common/Text.h"
#include "service/ServiceSnapshot.h"

namespace vexalive {

using nlohmann::ordered_json;

namespace {

ordered_json canvasJson(const std::optional<MixCanvas>& canvas) {
    if (!canvas) {
        return nullptr;
    }
    return {{"width", canvas->width}, {"height", canvas->height}, {"color", canvas->color}};
}

ordered_json inputsJson(const std::vector<MixInput>& inputs) {
    ordered_json list = ordered_json::array();
    for (const MixInput& input : inputs) {
        list.push_back({{"stream_id", input.streamId},
                        {"type", input.isAudio ? "audio" : "video"},
                        {"layer", input.layer},
                        {"x", input.x},
                        {"y", input.y},
                        {"width", input.width},
                        {"height", input.height}});
    }
    return list;
}

// `addressKey` is the key under which the address is added: "address", "source" or "play".
void addMedia(ordered_json& object, const std::optional<MediaSnapshot>& media, const char* addressKey) {
    if (!media) {
        object["media"] = nullptr;
        return;
    }
    object[addressKey] = media->address;
    object["media"] = toJson(media->process.worker);
    object["media"]["restarts"] = media->process.restarts;
}

ordered_json originJson(const std::optional<MediaSnapshot>& origin) {
    if (!origin) {
        return nullptr;
    }
    const StreamStatus& status = origin->process.worker.output;
    return {{"address", origin->address},
            {"state", nameOf(status.state)},
            {"error", status.error},
            {"restarts", origin->process.restarts}};
}

ordered_json relayJson(const RelaySnapshot& relay) {
    ordered_json object = {{"stream_id", relay.request.streamId},
                           {"dest_stream_url", relay.request.destination},
                           {"appid", relay.request.appId},
                           {"since", isoTime(relay.since)},
                           {"requests", relay.requests}};
    addMedia(object, relay.media, "source");
    return object;
}

ordered_json mixJson(const MixSnapshot& mix) {
    ordered_json history = ordered_json::array();
    for (const MixUpdate& update : mix.history) {
        history.push_back({{"time", isoTime(update.time)},
                           {"operation", update.operation},
                           {"canvas", canvasJson(update.canvas)},
                           {"inputs", update.inputs}});
    }
    ordered_json object = {{"output_stream_id", mix.request.streamId},
                           {"running", mix.isRunning},
                           {"appid", mix.request.appId},
                           {"since", isoTime(mix.since)},
                           {"updates", mix.updates},
                           {"canvas", canvasJson(mix.request.canvas)},
                           {"inputs", inputsJson(mix.request.inputs)},
                           {"output", mix.request.output},
                           {"output_sei", mix.request.sei},
                           {"history", std::move(history)}};
    addMedia(object, mix.media, "play");
    return object;
}

ordered_json requestJson(const RequestRecord& request) {
    return {
        {"time", isoTime(request.time)}, {"interface", request.interfaceName},    {"query", request.query},
        {"body", request.body},          {"body_bytes", request.bodyBytes},       {"http_status", request.httpStatus},
        {"response", request.response},  {"refused_field", request.refusedField}, {"fault", request.fault}};
}

template <class Value>
ordered_json listJson(const std::vector<Value>& values, ordered_json (*toObject)(const Value&)) {
    ordered_json list = ordered_json::array();
    for (const Value& value : values) {
        list.push_back(toObject(value));
    }
    return list;
}

}  // namespace

ordered_json toJson(const ServiceSnapshot& snapshot) {
    return {{"service", {{"media", snapshot.origin.has_value()}, {"origin", originJson(snapshot.origin)}}},
            {"relays", listJson(snapshot.relays, relayJson)},
            {"mixes", listJson(snapshot.mixes, mixJson)},
            {"requests", listJson(snapshot.requests, requestJson)}};
}

}  // namespace vexalive
