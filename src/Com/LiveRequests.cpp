#include "Com/LiveRequests.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <utility>

#include "base/CVexaHttpSendRecv.h"
#include "base/Json.h"
#include "base/Md5.h"
#include "base/ServiceAddress.h"

namespace vexalive::requests {
namespace {

using kstmedia::VexaMixUserInternal;
using kstmedia::VexaPublishCDNParamInternal;
using kstmedia::VexaTranscodingConfigInternal;
using Delegate = ILiveTrancodingDelegate;

// The values of "input_type".
constexpr int kVideoInput = 0;
constexpr int kCanvasInput = 3;
constexpr int kAudioInput = 4;

// Formats as printf does; truncates the result to 4094 characters. Returns `format` itself if vsnprintf() fails.
#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
std::string
VexaFormatString(const char* format, ...) {
    char buffer[4095];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return length < 0 ? format : buffer;
}

constexpr bool retriesNoCode(int64_t) {
    return false;
}
constexpr bool retriesRelayCode(int64_t code) {
    return code == 1;
}
constexpr bool retriesMixCode(int64_t code) {
    return code == 3 || code == 505 || code == 10017;
}

constexpr KindRules kRules[] = {
    {kRelay, "add_relay_stream_url", &Delegate::onStartPublishStreamUrl, retriesRelayCode},
    {kRelay, "remove_relay_stream_url", &Delegate::onStopPublishStreamUrl, retriesNoCode},
    {kMix, "set_live_mix_transcoding", &Delegate::onSetLiveMixTranscoding, retriesMixCode},
    {kMix, "set_live_mix_transcoding", &Delegate::onStopLiveMixTranscoding, retriesNoCode},
};

// The fields that all bodies share.
json::Object commonFields(Kind kind, const Envelope& envelope, const Sender& sender) {
    json::Object fields;
    fields["interface"] = rulesOf(kind).interfaceName;
    fields["timestamp"] = static_cast<int>(envelope.timestamp);
    fields["event_id"] = envelope.eventId;
    fields["appid"] = envelope.appId;
    fields["path"] = "live";
    fields["domain"] = VexaFormatString("%d.%s", sender.bizId, kstf_get_push_domain_suffix());
    return fields;
}

json::Object mixInput(std::string streamId, json::Object layout) {
    json::Object input;
    input["input_stream_id"] = std::move(streamId);
    input["layout_params"] = std::move(layout);
    return input;
}

// Builds "input_stream_list": the canvas if there is video, then the users in their order. A body has sizes, a
// mixDescription() has none.
json::Array mixInputs(const Sender& sender, const VexaTranscodingConfigInternal& config, bool hasSizes) {
    const bool pure = isPureAudio(config.mixUsersArray);
    json::Array inputs;
    if (!pure) {
        json::Object layout;
        layout["image_layer"] = 1;
        layout["input_type"] = kCanvasInput;
        if (hasSizes) {
            layout["image_width"] = config.videoWidth;
            layout["image_height"] = config.videoHeight;
            layout["location_x"] = 0;
            layout["location_y"] = 0;
            layout["color"] = "0x000000";
        }
        inputs.push_back(mixInput("canvas1", std::move(layout)));
    }
    int layer = firstUserLayer(pure);
    for (const VexaMixUserInternal& user : config.mixUsersArray) {
        json::Object layout;
        layout["input_type"] = user.pureAudio ? kAudioInput : kVideoInput;
        layout["image_layer"] = layer++;
        if (hasSizes) {
            layout["image_width"] = user.rect.w;
            layout["image_height"] = user.rect.h;
            layout["location_x"] = user.rect.x;
            layout["location_y"] = user.rect.y;
        }
        inputs.push_back(mixInput(streamId(sender, user), std::move(layout)));
    }
    return inputs;
}

}  // namespace

const KindRules& rulesOf(int kind) {
    return kRules[kind >= kAddRelay && kind <= kCancelMix ? kind : kRemoveRelay];
}

// ---- Refusals -------------------------------------------------------------------------------------------------------

const Refusal kInvalidRelay = {&Delegate::onStartPublishStreamUrl, kRelay.codes.unreadableError,
                               "startPublishStreamUrl failure, param is invalid"};
const Refusal kInvalidMix = {&Delegate::onStartPublishStreamUrl, kMix.codes.unreadableError,
                             "setLiveMixTranscoding failure, param is invalid"};
const Refusal kInvalidMixUsers = {&Delegate::onStartPublishStreamUrl, kMix.codes.unreadableError,
                                  "mixUsersArray is invalid"};
const Refusal kNoRelayToStop = {&Delegate::onStopLiveMixTranscoding, kRelay.codes.unreadableError,
                                "stopPublishStreamUrl error, appid = 0, should call startPublishStreamUrl before"};
const Refusal kNoMixToStop = {&Delegate::onStopLiveMixTranscoding, kMix.codes.unreadableError,
                              "stopLiveMixTranscoding error, appid = 0, should call startMixTranscoding before"};

bool isComplete(const VexaPublishCDNParamInternal& param) {
    return !param.url.empty() && param.appId != 0 && param.bizId != 0;
}

bool isComplete(const VexaTranscodingConfigInternal& config, bool isPureAudio) {
    return std::all_of(std::begin(kConfigFields), std::end(kConfigFields), [&](const ConfigField& field) {
        return config.*field.value != 0 || (isPureAudio && field.use != ConfigField::kId);
    });
}

bool isPureAudio(const std::vector<VexaMixUserInternal>& users) {
    return std::all_of(users.begin(), users.end(), [](const VexaMixUserInternal& user) { return user.pureAudio; });
}

MixUsersCheck checkMixUsers(const std::vector<VexaMixUserInternal>& users, bool isPureAudio) {
    if (users.empty()) {
        return {MixUsersError::kNoUsers, 0};
    }
    if (isPureAudio) {
        return {};
    }
    bool used[kMaxLayer + 1] = {};
    for (const VexaMixUserInternal& user : users) {
        if (user.zOrder < 0 || user.zOrder > kMaxLayer) {
            return {MixUsersError::kLayerOutOfRange, user.zOrder};
        }
        if (std::exchange(used[user.zOrder], true)) {
            return {MixUsersError::kLayerNotUnique, user.zOrder};
        }
    }
    return {};
}

void clear(VexaTranscodingConfigInternal& config) {
    for (const ConfigField& field : kConfigFields) {
        config.*field.value = 0;
    }
    config.mixUsersArray.clear();
}

// ---- Requests -------------------------------------------------------------------------------------------------------

std::string requestUrl(const std::string& baseUrl, const std::string& interfaceName, const Query& query) {
    return VexaFormatString("%s%s?sdkappid=%d&random=%d&usersig=%s&parivMapKey=%s", baseUrl.c_str(),
                            interfaceName.c_str(), static_cast<int32_t>(query.sdkAppId), query.random,
                            query.userSig.c_str(), query.privateMapKey.c_str());
}

std::string streamId(int32_t bizId, const std::string& roomId, const std::string& userId, bool isMain) {
    const std::string name = VexaFormatString("%s_%s_%s", roomId.c_str(), userId.c_str(), isMain ? "main" : "aux");
    return VexaFormatString("%d_%s", bizId, kstmedia::getMD5(name).c_str());
}

std::string streamId(const Sender& sender, const VexaMixUserInternal& user) {
    return streamId(sender.bizId, user.roomId.empty() ? sender.roomId : user.roomId, user.userId,
                    user.streamType != kAuxiliaryStream);
}

std::string streamId(const Sender& sender) {
    return streamId(sender.bizId, sender.roomId, sender.userId, true);
}

std::string addRelayBody(const Envelope& envelope, const Sender& sender, const std::string& destUrl) {
    json::Object body = commonFields(kAddRelay, envelope, sender);
    body["stream_id"] = streamId(sender);
    body["dest_stream_url"] = destUrl;
    body["use_mix_crop_center"] = 1;
    return json::Serialize(std::move(body));
}

std::string removeRelayBody(const Envelope& envelope, const Sender& sender) {
    json::Object body = commonFields(kRemoveRelay, envelope, sender);
    body["stream_id"] = streamId(sender);
    return json::Serialize(std::move(body));
}

std::string startMixBody(const Envelope& envelope, const Sender& sender, const VexaTranscodingConfigInternal& config) {
    const std::string session = streamId(sender);

    json::Object output;
    output["output_stream_id"] = session;
    output["output_stream_type"] = 0;
    for (const ConfigField& field : kConfigFields) {
        if (field.outputKey && config.*field.value != kNotSet) {
            output[field.outputKey] = config.*field.value;
        }
    }
    output["output_sei"] = "{}";

    json::Object body = commonFields(kStartMix, envelope, sender);
    body["session_id"] = session;
    body["output_param"] = std::move(output);
    body["input_stream_list"] = mixInputs(sender, config, true);
    body["use_mix_crop_center"] = 1;
    return json::Serialize(std::move(body));
}

std::string cancelMixBody(const Envelope& envelope, const Sender& sender) {
    const std::string session = streamId(sender);

    json::Object output;
    output["output_stream_id"] = session;

    json::Object layout;
    layout["image_layer"] = 1;
    json::Array inputs;
    inputs.push_back(mixInput(session, std::move(layout)));

    json::Object body = commonFields(kCancelMix, envelope, sender);
    body["session_id"] = session;
    body["output_param"] = std::move(output);
    body["input_stream_list"] = std::move(inputs);
    return json::Serialize(std::move(body));
}

int firstUserLayer(bool isPureAudio) {
    return isPureAudio ? 1 : 2;
}

std::string mixDescription(int index, const Sender& sender, const VexaTranscodingConfigInternal& config) {
    const std::string session = streamId(sender);

    json::Object output;
    output["output_stream_id"] = session;
    output["output_stream_type"] = 0;

    json::Object description;
    description["session_id"] = session;
    description["output_param"] = std::move(output);
    description["input_stream_list"] = mixInputs(sender, config, false);

    char head[260] = {};
    std::snprintf(head, sizeof head, "task_id:%d, pureAudioOutputStream:%d, stream: ", index,
                  isPureAudio(config.mixUsersArray));
    return head + json::Serialize(std::move(description));
}

// ---- Responses ------------------------------------------------------------------------------------------------------

std::optional<ServiceResult> readServiceResult(const json::Value& response) {
    if (response.HasKey("code")) {
        return ServiceResult{response["code"].ToInt(), response["message"].ToString(),
                             "sucess"};  // spelling is part of the interface
    }
    if (response.HasKey("ErrorCode")) {
        return ServiceResult{response["ErrorCode"].ToInt(), response["ErrorInfo"].ToString(), ""};
    }
    return std::nullopt;
}

bool isRetried(int retCode, const std::string& response, int kind) {
    if (retCode == CVexaHttpSendRecv::kRetryable || response.empty()) {
        return true;
    }
    const json::Value value = json::Deserialize(response);
    if (value.isNull()) {
        return true;
    }
    const std::optional<ServiceResult> result = readServiceResult(value);
    return result && rulesOf(kind).isRetriedCode(std::abs(int64_t{result->code}));
}

Evaluation evaluate(int retCode, const std::string& response, int kind) {
    const ListenerCodes& codes = rulesOf(kind).family.codes;
    if (retCode != CVexaHttpSendRecv::kSuccess) {
        // The full-width comma is part of the interface.
        return {-1, {{codes.transportError, VexaFormatString("http post return error， retcode:%d", retCode)}}};
    }
    Evaluation evaluation = {0, {}};
    if (response.empty()) {
        // No return here: an empty response causes two notifications (intended, prescribed by the interface).
        evaluation.notifications.push_back({codes.unreadableError, "recv message nil"});
    }
    const json::Value value = json::Deserialize(response);
    if (value.isNull()) {
        evaluation.result = -1;
        evaluation.notifications.push_back({codes.unreadableError, "recv message can't parse"});
    } else if (const std::optional<ServiceResult> result = readServiceResult(value)) {
        if (result->code == 0) {
            evaluation.notifications.push_back({0, result->successMessage});
        } else {
            const int64_t code = codes.serverErrorBase - std::abs(int64_t{result->code});
            evaluation.notifications.push_back(
                {static_cast<int>(std::max<int64_t>(code, std::numeric_limits<int>::min())), result->message});
        }
    }
    return evaluation;
}

std::string traceSegment(int retriesLeft, int retCode, const std::string& response) {
    char head[260] = {};
    std::snprintf(head, sizeof head, " [tryHttp:cnt-%d]retCode:%d, respData:", retriesLeft, retCode);
    return head + response;
}

}  // namespace vexalive::requests
