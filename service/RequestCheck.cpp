#include "service/RequestCheck.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "service/JsonFields.h"

namespace vexalive {

using nlohmann::json;

namespace {

constexpr int64_t kLowest = std::numeric_limits<int32_t>::min();
constexpr int64_t kHighest = std::numeric_limits<int32_t>::max();
constexpr int64_t kMaxTimestamp = std::numeric_limits<uint32_t>::max() / 1000;  // clients count 32-bit milliseconds
constexpr size_t kMaxUsers = 17;
constexpr size_t kDigestLength = 32;

constexpr int64_t kVideoInput = 0;
constexpr int64_t kCanvasInput = 3;
constexpr int64_t kAudioInput = 4;

bool isLowerHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

bool isHex(char c) {
    return isLowerHex(c) || (c >= 'A' && c <= 'F');
}

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Reads an integer in the form in which printf's %d writes it: no plus sign, no leading zeros, no spaces.
std::optional<int64_t> readDecimal(std::string_view text) {
    int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, value);
    if (failure != std::errc() || stop != end || std::to_string(value) != text) {
        return std::nullopt;
    }
    return value;
}

std::optional<int32_t> readBizId(std::string_view text) {
    const std::optional<int64_t> biz = readDecimal(text);
    if (!biz || *biz == 0 || *biz < kLowest || *biz > kHighest) {
        return std::nullopt;
    }
    return static_cast<int32_t>(*biz);
}

bool isDigest(std::string_view text) {
    return text.size() == kDigestLength && std::all_of(text.begin(), text.end(), isLowerHex);
}

// ---- Query ----------------------------------------------------------------------------------------------------------

struct Parameter {
    std::string_view key;
    std::string_view value;
    bool hasValue;
};

std::vector<Parameter> splitQuery(std::string_view query) {
    std::vector<Parameter> parameters;
    while (!query.empty()) {
        const std::string_view piece = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(piece.size() + 1, query.size()));
        const size_t equals = piece.find('=');
        const bool hasValue = equals != std::string_view::npos;
        parameters.push_back({piece.substr(0, equals), hasValue ? piece.substr(equals + 1) : "", hasValue});
    }
    return parameters;
}

// No message shows the value of a secret or the name of an unknown parameter: if a secret contains an "&", the part
// after the "&" looks like an unknown parameter.
void checkQuery(const std::string& query, Validation& validation) {
    const char* const keys[] = {"sdkappid", "random", "usersig", "parivMapKey"};  // spelling is part of the interface
    std::map<std::string_view, std::string_view> values;
    int number = 0;
    for (const Parameter& parameter : splitQuery(query)) {
        ++number;
        if (!parameter.hasValue || std::find(std::begin(keys), std::end(keys), parameter.key) == std::end(keys)) {
            validation.refuse(
                Refusal::kQuery, "query",
                "found something else as parameter " + std::to_string(number) +
                    ", must be sdkappid, random, usersig and parivMapKey, each with a \"=\"; is there an \"&\" in "
                    "the signature or the map key?");
        }
        if (!values.emplace(parameter.key, parameter.value).second) {
            validation.refuse(Refusal::kQuery, "query: " + std::string(parameter.key),
                              "found it twice, must be there once");
        }
    }
    for (const char* key : keys) {
        if (values.count(key) == 0) {
            validation.refuse(Refusal::kQuery, std::string("query: ") + key, "missing");
        }
    }
    const auto checkInteger = [&](const char* key, int64_t lowest, int64_t highest) {
        const std::optional<int64_t> value = readDecimal(values[key]);
        if (!value || *value < lowest || *value > highest) {
            validation.refuse(Refusal::kQuery, std::string("query: ") + key,
                              "found " + excerpt(values[key]) + ", must be an integer from " + std::to_string(lowest) +
                                  " to " + std::to_string(highest));
        }
    };
    checkInteger("sdkappid", kLowest, kHighest);
    checkInteger("random", 0, 9999);
    if (values["usersig"].empty()) {
        validation.refuse(Refusal::kQuery, "query: usersig", "found it empty, must be the signature of the user");
    }
}

// ---- The fields that all bodies share -------------------------------------------------------------------------------

void expectText(Fields& fields, const char* key, const std::string& expected) {
    const std::string found = fields.text(key);
    if (found != expected) {
        fields.refuse(Refusal::kValue, key, "found " + excerpt(found) + ", must be " + excerpt(expected));
    }
}

int32_t integer32(Fields& fields, const char* key, int64_t lowest = kLowest, int64_t highest = kHighest) {
    return static_cast<int32_t>(fields.integer(key, lowest, highest));
}

int32_t nonZero(Fields& fields, const char* key) {
    const int32_t value = integer32(fields, key);
    if (value == 0) {
        fields.refuse(Refusal::kValue, key, "found 0, must not be 0");
    }
    return value;
}

// Reads "domain", which must be "BIZID.SUFFIX", and returns BIZID.
int32_t readDomain(Fields& fields, const std::string& suffix) {
    const std::string domain = fields.text("domain");
    const size_t dot = std::min(domain.find('.'), domain.size());
    const std::optional<int32_t> biz = readBizId(std::string_view(domain).substr(0, dot));
    if (!biz || domain.compare(dot, std::string::npos, "." + suffix) != 0) {
        fields.refuse(Refusal::kValue, "domain",
                      "found " + excerpt(domain) + ", must be the biz id, a 32-bit integer other than 0, and \"." +
                          suffix + "\"");
    }
    return biz.value_or(0);
}

void checkCommon(Fields& body, const std::string& interfaceName, const std::string& suffix, AcceptedRequest& request) {
    expectText(body, "interface", interfaceName);
    body.integer("timestamp", 0, kMaxTimestamp);
    nonZero(body, "event_id");
    request.appId = nonZero(body, "appid");
    expectText(body, "path", "live");
    request.bizId = readDomain(body, suffix);
}

// Reads a stream id, whose biz id must be that of "domain".
std::string streamId(Fields& fields, const char* key, int32_t bizId) {
    std::string id = fields.text(key);
    const std::string head = std::to_string(bizId) + "_";
    if (id.compare(0, head.size(), head) != 0 || !isDigest(std::string_view(id).substr(head.size()))) {
        fields.refuse(Refusal::kValue, key,
                      "found " + excerpt(id) + ", must be \"" + head + "\" and 32 lower-case hex digits");
    }
    return id;
}

// ---- Relay ----------------------------------------------------------------------------------------------------------

// Whether `url` is a scheme, "://" and at least one more character, without spaces and control characters.
bool isUrl(std::string_view url) {
    const size_t colon = url.find("://");
    if (colon == std::string_view::npos || colon == 0 || colon + 3 == url.size() || !isLetter(url[0])) {
        return false;
    }
    return std::all_of(url.begin(), url.begin() + static_cast<std::ptrdiff_t>(colon),
                       [](char c) { return isLetter(c) || isDigit(c) || c == '+' || c == '-' || c == '.'; }) &&
           std::all_of(url.begin(), url.end(), [](char c) { return static_cast<unsigned char>(c) > ' ' && c != 0x7f; });
}

void checkAddRelay(Fields& body, AcceptedRequest& request) {
    request.streamId = streamId(body, "stream_id", request.bizId);
    request.destination = body.text("dest_stream_url");
    if (!isUrl(request.destination)) {
        body.refuse(
            Refusal::kValue, "dest_stream_url",
            "found " + excerpt(request.destination) + ", must be an address such as \"rtmp://host/app/stream\"");
    }
    request.cropsCenter = body.integer("use_mix_crop_center", 0, 1) == 1;
}

void checkRemoveRelay(Fields& body, AcceptedRequest& request) {
    request.streamId = streamId(body, "stream_id", request.bizId);
}

// ---- Mix ------------------------------------------------------------------------------------------------------------

std::string inputPath(size_t index) {
    return "input_stream_list[" + std::to_string(index) + "]";
}

// The "input_type" of an input that was not checked yet; -1 if the input has none.
int64_t peekInputType(const json& input) {
    if (!input.is_object() || !input.contains("layout_params") || !input["layout_params"].is_object()) {
        return -1;
    }
    const json& layout = input["layout_params"];
    const auto type = layout.find("input_type");
    return type != layout.end() && type->is_number_integer() ? type->get<int64_t>() : -1;
}

// The first input must be a canvas if the mix has video, and must not be one if it has not.
void checkCanvasPresence(const json& inputs, Validation& validation) {
    const bool hasCanvas = !inputs.empty() && peekInputType(inputs[0]) == kCanvasInput;
    const bool hasVideo = std::any_of(inputs.begin(), inputs.end(),
                                      [](const json& input) { return peekInputType(input) == kVideoInput; });
    if (hasVideo && !hasCanvas) {
        validation.refuse(
            Refusal::kValue, inputPath(0),
            "found an input other than the canvas (input_type 3), must be the canvas since there is a video input");
    }
    if (hasCanvas && !hasVideo) {
        validation.refuse(Refusal::kValue, inputPath(0),
                          "found a canvas, must be absent since there is no video input");
    }
}

MixCanvas checkCanvas(Fields& input, Fields& layout) {
    expectText(input, "input_stream_id", "canvas1");
    MixCanvas canvas;
    layout.integer("image_layer", 1, 1);
    canvas.width = integer32(layout, "image_width", 1);
    canvas.height = integer32(layout, "image_height", 1);
    layout.integer("location_x", 0, 0);
    layout.integer("location_y", 0, 0);
    canvas.color = layout.text("color");
    const std::string& color = canvas.color;
    if (color.size() != 8 || color.compare(0, 2, "0x") != 0 || !std::all_of(color.begin() + 2, color.end(), isHex)) {
        layout.refuse(Refusal::kValue, "color", "found " + excerpt(color) + ", must be \"0x\" and six hex digits");
    }
    return canvas;
}

MixInput checkUser(Fields& input, Fields& layout, int64_t type, int64_t layer, int32_t bizId) {
    MixInput user;
    user.streamId = streamId(input, "input_stream_id", bizId);
    user.isAudio = type == kAudioInput;
    user.layer = integer32(layout, "image_layer", layer, layer);
    user.width = integer32(layout, "image_width", 0);
    user.height = integer32(layout, "image_height", 0);
    user.x = integer32(layout, "location_x");
    user.y = integer32(layout, "location_y");
    return user;
}

// The layers of the inputs must be 1, 2, 3 and so on, in the order of the list, the canvas included.
void checkInputs(const json& inputs, AcceptedRequest& request, Validation& validation) {
    checkCanvasPresence(inputs, validation);
    for (size_t index = 0; index < inputs.size() && !validation.hasFailed(); ++index) {
        Fields input(inputs[index], inputPath(index), validation);
        Fields layout = input.object("layout_params");
        const int64_t type = layout.integer("input_type", kLowest, kHighest);
        if (type == kCanvasInput && index == 0) {
            request.canvas = checkCanvas(input, layout);
        } else if (type == kVideoInput || type == kAudioInput) {
            const auto layer = static_cast<int64_t>(index) + 1;
            request.inputs.push_back(checkUser(input, layout, type, layer, request.bizId));
        } else {
            layout.refuse(Refusal::kValue, "input_type",
                          "found " + std::to_string(type) +
                              ", must be 0 (video), 4 (audio) or, of the first input only, 3 " + "(canvas)");
        }
        if (request.inputs.size() > kMaxUsers) {
            validation.refuse(Refusal::kValue, "input_stream_list",
                              "found more than " + std::to_string(kMaxUsers) + " inputs of users, the maximum");
        }
        layout.refuseOthers();
        input.refuseOthers();
    }
    if (request.inputs.empty()) {
        validation.refuse(Refusal::kValue, "input_stream_list",
                          "found no user's input, must be 1 to " + std::to_string(kMaxUsers));
    }
}

void checkStartMix(Fields& body, Fields& output, const json& inputs, AcceptedRequest& request, Validation& validation) {
    output.integer("output_stream_type", 0, 0);
    for (const char* key : {"output_stream_bitrate", "output_stream_gop", "output_stream_frame_rate",
                            "output_audio_sample_rate", "output_audio_bitrate", "output_audio_channels"}) {
        if (output.has(key)) {
            request.output[key] = integer32(output, key);
        }
    }
    request.sei = output.text("output_sei");
    checkInputs(inputs, request, validation);
    request.cropsCenter = body.integer("use_mix_crop_center", 0, 1) == 1;
}

// A cancel must list one input: the output stream of the mix, on layer 1.
void checkCancelMix(const json& inputs, const AcceptedRequest& request, Validation& validation) {
    if (inputs.size() != 1) {
        validation.refuse(Refusal::kValue, "input_stream_list",
                          "found " + std::to_string(inputs.size()) +
                              " inputs, must be the session's own stream alone, since " +
                              "output_param with output_stream_id alone means cancel");
        return;
    }
    Fields input(inputs[0], inputPath(0), validation);
    expectText(input, "input_stream_id", request.streamId);
    Fields layout = input.object("layout_params");
    layout.integer("image_layer", 1, 1);
    layout.refuseOthers();
    input.refuseOthers();
}

// The same interface starts, updates and cancels a mix. A request is a cancel if "output_param" has only one key and
// "use_mix_crop_center" is missing.
void checkMix(Fields& body, AcceptedRequest& request, Validation& validation) {
    request.streamId = streamId(body, "session_id", request.bizId);
    Fields output = body.object("output_param");
    expectText(output, "output_stream_id", request.streamId);
    const json& inputs = body.array("input_stream_list");
    if (output.count() == 1 && !body.has("use_mix_crop_center")) {
        request.kind = AcceptedRequest::Kind::kCancelMix;
        checkCancelMix(inputs, request, validation);
    } else {
        request.kind = AcceptedRequest::Kind::kStartMix;
        checkStartMix(body, output, inputs, request, validation);
    }
    output.refuseOthers();
}

}  // namespace

bool isStreamId(const std::string& text) {
    const size_t mark = text.find('_');
    return mark != std::string::npos && readBizId(text.substr(0, mark)) && isDigest(text.substr(mark + 1));
}

bool isInterface(const std::string& name) {
    return std::find(std::begin(kInterfaces), std::end(kInterfaces), name) != std::end(kInterfaces);
}

Result<AcceptedRequest, Refusal> checkRequest(const std::string& interfaceName, const std::string& query,
                                              const std::string& body, const std::string& pushDomainSuffix) {
    Validation validation;
    checkQuery(query, validation);
    const json object = readObject(body, validation);
    Fields fields(object, "", validation);
    AcceptedRequest request;
    checkCommon(fields, interfaceName, pushDomainSuffix, request);
    if (interfaceName == kAddRelayInterface) {
        request.kind = AcceptedRequest::Kind::kAddRelay;
        checkAddRelay(fields, request);
    } else if (interfaceName == kRemoveRelayInterface) {
        request.kind = AcceptedRequest::Kind::kRemoveRelay;
        checkRemoveRelay(fields, request);
    } else {
        checkMix(fields, request, validation);
    }
    fields.refuseOthers();
    if (validation.hasFailed()) {
        return tl::unexpected(*validation.refusal());
    }
    return request;
}

std::string maskQuery(const std::string& query) {
    std::string masked;
    std::map<std::string_view, int> occurrences;
    for (const Parameter& parameter : splitQuery(query)) {
        masked += masked.empty() ? "" : "&";
        const bool isFirst = occurrences[parameter.key]++ == 0;
        const bool isPlain = parameter.key == "sdkappid" || parameter.key == "random";
        const bool isSecret = parameter.key == "usersig" || parameter.key == "parivMapKey";
        if (isPlain && isFirst && readDecimal(parameter.value)) {
            masked += std::string(parameter.key) + "=" + std::string(parameter.value);
        } else if (isPlain || isSecret) {
            masked += std::string(parameter.key) + (parameter.value.empty() ? "=" : "=***");
        } else {
            masked += "***";
        }
    }
    return masked;
}

}  // namespace vexalive
