// Fuzzes the requests to the local service: their validation, and the masking of secrets in queries.
//
// The first line of an input is the interface, the second line the query. The rest is the body.

#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "Fuzzing.h"
#include "service/RequestCheck.h"

namespace {

using namespace fuzzing;
using namespace vexalive;
using Json = nlohmann::json;

constexpr const char* kSuffix = "push.test";
constexpr const char* kGoodQuery = "sdkappid=1400&random=42&usersig=signature-of-alice&parivMapKey=map-key-of-room7";
constexpr const char* kGoodBody =
    R"({"interface":"remove_relay_stream_url","timestamp":1000,"event_id":7,"appid":12345,"path":"live",)"
    R"("domain":"8888.push.test","stream_id":"8888_0123456789abcdef0123456789abcdef"})";
constexpr size_t kMaxMessage = 16 << 10;  // bytes; a field's path may have 16 names of 48 escaped characters
constexpr size_t kMinSecret = 12;         // bytes; a shorter secret could be part of a message by chance

std::string_view takeLine(std::string_view& input) {
    const std::string_view line = input.substr(0, input.find('\n'));
    input.remove_prefix(std::min(line.size() + 1, input.size()));
    return line;
}

// ---- Queries --------------------------------------------------------------------------------------------------------

std::vector<std::string_view> piecesOf(std::string_view query) {
    std::vector<std::string_view> pieces;
    while (!query.empty()) {
        pieces.push_back(query.substr(0, query.find('&')));
        query.remove_prefix(std::min(pieces.back().size() + 1, query.size()));
    }
    return pieces;
}

// Requires that each parameter of the masked query is masked, unless it is a number and not secret.
void requireMasked(const std::string& query) {
    const std::string masked = maskQuery(query);
    const std::vector<std::string_view> given = piecesOf(query);
    const std::vector<std::string_view> shown = piecesOf(masked);
    require(given.size() == shown.size(), "each parameter is shown", masked);
    std::set<std::string_view> seen;
    for (size_t i = 0; i < given.size(); ++i) {
        const std::string_view key = given[i].substr(0, given[i].find('='));
        const bool isPlain = key == "sdkappid" || key == "random";
        const bool isSecret = key == "usersig" || key == "parivMapKey";
        const bool isFirst = seen.insert(key).second;
        const bool isNumber = given[i].size() > key.size() + 1 &&
                              given[i].find_first_not_of("0123456789-", key.size() + 1) == std::string_view::npos;
        const bool isMasked = (isPlain || isSecret)
                                  ? shown[i] == std::string(key) + "=" || shown[i] == std::string(key) + "=***"
                                  : shown[i] == "***";
        require(isMasked || (isPlain && isFirst && isNumber && shown[i] == given[i]), "a query shows no secret",
                masked);
    }
}

std::vector<std::string> secretsOf(const std::string& query) {
    std::vector<std::string> secrets;
    for (const std::string_view piece : piecesOf(query)) {
        const std::string_view key = piece.substr(0, piece.find('='));
        if ((key == "usersig" || key == "parivMapKey") && piece.size() > key.size() + kMinSecret) {
            secrets.emplace_back(piece.substr(key.size() + 1));
        }
    }
    return secrets;
}

void requireGoodQuery(const std::string& query) {
    std::set<std::string_view> keys;
    for (const std::string_view piece : piecesOf(query)) {
        const std::string_view key = piece.substr(0, piece.find('='));
        require(keys.insert(key).second, "a parameter is given once", query);
        const int64_t number = parseNumber<int64_t>(piece.substr(std::min(key.size() + 1, piece.size())));
        require(key != "random" || (number >= 0 && number <= 9999), "the range of random", query);
        require(key != "sdkappid" || number == static_cast<int32_t>(number), "the range of sdkappid", query);
        require(key != "usersig" || piece.size() > sizeof "usersig=" - 1, "there is a signature", query);
    }
    require(keys == std::set<std::string_view>{"sdkappid", "random", "usersig", "parivMapKey"}, "the four parameters",
            query);
}

// ---- Requests -------------------------------------------------------------------------------------------------------

void requireRefusal(const Refusal& refusal, const std::string& query, std::string_view body) {
    require(refusal.code >= Refusal::kQuery && refusal.code <= Refusal::kValue, "a refusal's code", refusal.message);
    require(!refusal.field.empty(), "a refusal names a field", refusal.message);
    require(startsWith(refusal.message, refusal.field + ": ") && refusal.message.size() > refusal.field.size() + 2,
            "a refusal gives a reason", refusal.message);
    require(isPlainAscii(refusal.message), "a refusal is printable", refusal.message);
    require(refusal.message.size() <= kMaxMessage, "a refusal is short", refusal.message);
    for (const std::string& secret : secretsOf(query)) {
        // If the body or another parameter contains the same string, the message may show it.
        const bool isElsewhere = body.find(secret) != std::string_view::npos ||
                                 query.find(secret) != query.rfind(secret) ||
                                 refusal.message.find("\"" + secret) == std::string::npos;
        require(isElsewhere, "a refusal shows no secret", refusal.message);
    }
}

bool isStreamId(const std::string& id, int32_t bizId) {
    const std::string head = std::to_string(bizId) + "_";
    return startsWith(id, head) && id.size() == head.size() + 32 &&
           id.find_first_not_of("0123456789abcdef", head.size()) == std::string::npos;
}

void requireStartMix(const AcceptedRequest& request, const Json& body) {
    const size_t canvas = request.canvas ? 1 : 0;
    require(!request.inputs.empty() && request.inputs.size() <= 17, "1 to 17 inputs");
    require(body["input_stream_list"].size() == request.inputs.size() + canvas, "each input is accepted");
    bool hasVideo = false;
    for (size_t i = 0; i < request.inputs.size(); ++i) {
        const MixInput& input = request.inputs[i];
        hasVideo = hasVideo || !input.isAudio;
        require(isStreamId(input.streamId, request.bizId), "an input's stream id", input.streamId);
        require(static_cast<size_t>(input.layer) == i + canvas + 1, "layers count up from 1");
        require(input.width >= 0 && input.height >= 0, "an input's size");
        require(body["input_stream_list"][i + canvas]["layout_params"]["location_x"] == input.x, "an input's position");
    }
    require(hasVideo == request.canvas.has_value(), "there is a canvas if and only if there is video");
    if (request.canvas) {
        const std::string& colour = request.canvas->color;
        require(request.canvas->width >= 1 && request.canvas->height >= 1, "the canvas's size");
        require(startsWith(colour, "0x") && colour.size() == 8 &&
                    colour.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos,
                "the canvas's colour", colour);
    }
    for (const auto& [key, number] : request.output) {
        require(body["output_param"][key] == number, "an output number", key);
    }
    require(body["output_param"].size() == request.output.size() + 3, "each output number is accepted");
}

void requireAccepted(const AcceptedRequest& request, const std::string& interfaceName, const std::string& query,
                     const std::string& text) {
    using Kind = AcceptedRequest::Kind;
    requireGoodQuery(query);
    const Json body = Json::parse(text, nullptr, false);
    require(body.is_object(), "an accepted body is JSON", text);
    const bool isMix = request.kind == Kind::kStartMix || request.kind == Kind::kCancelMix;
    const char* const expected = request.kind == Kind::kAddRelay      ? kAddRelayInterface
                                 : request.kind == Kind::kRemoveRelay ? kRemoveRelayInterface
                                                                      : kSetMixInterface;
    require(interfaceName == expected && body["interface"] == expected, "the interface", text);
    require(request.appId != 0 && body["appid"] == request.appId, "the application id", text);
    require(request.bizId != 0 && body["domain"] == std::to_string(request.bizId) + "." + kSuffix, "the domain", text);
    require(body["path"] == "live" && body["event_id"] != 0 && body["timestamp"] >= 0, "the common fields", text);
    require(isStreamId(request.streamId, request.bizId), "the stream id", text);
    require(body[isMix ? "session_id" : "stream_id"] == request.streamId, "the stream id is the body's", text);
    if (request.kind == Kind::kAddRelay) {
        require(request.destination.find("://") != std::string::npos && body["dest_stream_url"] == request.destination,
                "the destination", text);
    } else if (request.kind == Kind::kStartMix) {
        requireStartMix(request, body);
    } else if (request.kind == Kind::kCancelMix) {
        require(body["output_param"].size() == 1 && body["input_stream_list"].size() == 1, "a cancel", text);
    }
}

void requireChecked(const std::string& interfaceName, const std::string& query, const std::string& body) {
    const auto result = checkRequest(interfaceName, query, body, kSuffix);
    if (!result) {
        requireRefusal(result.error(), query, body);
    } else {
        requireAccepted(*result, interfaceName, query, body);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string interfaceName(takeLine(input));
    const std::string query(takeLine(input));
    const std::string body(input);

    requireMasked(query);
    if (!isInterface(interfaceName)) {
        return 0;  // without any check, the service responds with 404
    }
    requireChecked(interfaceName, query, body);
    // With a valid query, only the body can be wrong; with a valid body, only the query.
    requireChecked(interfaceName, kGoodQuery, body);
    requireChecked(kRemoveRelayInterface, query, kGoodBody);
    return 0;
}
