#include "service/MediaRules.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/Url.h"
#include "service/JsonFields.h"

namespace vexalive {

using nlohmann::ordered_json;

namespace {

const std::string kRtmpPort = "1935";

// Serializes to one line: replaces invalid UTF-8 and escapes line breaks.
std::string asLine(const ordered_json& value) {
    return value.dump(-1, ' ', true, ordered_json::error_handler_t::replace);
}

// The value of the first parameter with this name in a form-encoded body.
std::string formValue(const std::string& form, const std::string& name) {
    const std::string whole = "&" + form;
    const size_t start = whole.find("&" + name + "=");
    if (start == std::string::npos) {
        return "";
    }
    const size_t value = start + name.size() + 2;
    return whole.substr(value, whole.find('&', value) - value);
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

// Returns the same name for all names and addresses of loopback.
std::string canonicalHost(const std::string& host) {
    const std::string name = lowerCase(host);
    return name == "localhost" || name == "::1" || name == "0.0.0.0" ? "127.0.0.1" : name;
}

}  // namespace

std::string relayConfiguration(const AcceptedRequest& request, const std::string& origin) {
    return asLine(
        {{"relay", {{"source", origin + "/live/" + request.streamId}, {"destination", request.destination}}}});
}

std::string mixConfiguration(const AcceptedRequest& request, const std::string& origin) {
    ordered_json canvas;
    if (request.canvas) {
        canvas = {
            {"width", request.canvas->width}, {"height", request.canvas->height}, {"color", request.canvas->color}};
    }
    ordered_json inputs = ordered_json::array();
    for (const MixInput& input : request.inputs) {
        inputs.push_back({{"stream_id", input.streamId},
                          {"source", origin + "/live/" + input.streamId},
                          {"audio_only", input.isAudio},
                          {"layer", input.layer},
                          {"x", input.x},
                          {"y", input.y},
                          {"width", input.width},
                          {"height", input.height}});
    }
    ordered_json output = ordered_json::object();
    for (const auto& [key, value] : request.output) {
        output[key] = value;
    }
    return asLine({{"mix",
                    {{"destination", origin + "/mix/" + request.streamId},
                     {"crop_center", request.cropsCenter},
                     {"canvas", canvas},
                     {"inputs", inputs},
                     {"output", output}}}});
}

Result<void> checkDestination(const std::string& destination, const OriginAddress& origin) {
    const std::string scheme = destination.substr(0, destination.find("://"));
    if (scheme != "rtmp") {
        return failure("the scheme " + excerpt(scheme));  // shows only the scheme: the rest may contain a secret key
    }
    const std::optional<Url> url = parseUrl(destination);
    if (!url || url->port == "0") {
        return failure("no host, or an invalid port");
    }
    const std::string& path = url->path;
    const size_t mark = path.rfind('/');
    if (mark <= 1 || path[1] == '/' || mark + 1 == path.size()) {
        return failure("no application, or no name of a stream behind it");
    }
    const std::string application = path.substr(1, path.find('/', 1) - 1);
    const std::string port = url->port.empty() ? kRtmpPort : url->port;
    const bool isOrigin = canonicalHost(url->host) == canonicalHost(origin.host) && port == origin.port;
    if (isOrigin && (application == "live" || application == "mix")) {
        return failure("the origin's own \"" + application + "\"");
    }
    return {};
}

// The name is not decoded, since form encoding does not change a stream id.
std::string publishedName(const std::string& form) {
    return formValue(form, "name");
}

Result<void> checkPublishedName(const std::string& name) {
    if (isStreamId(name)) {
        return {};
    }
    return failure("found " + excerpt(name) +
                   " as the name of the stream, must be a member's stream id: the biz id, \"_\" and 32 lower-case hex "
                   "digits");
}

}  // namespace vexalive
