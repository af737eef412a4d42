/// @file
/// The rules of the live-interface requests, as functions of values: stream ids, bodies, addresses, what is refused,
/// which responses are retried and what the listener is notified of.
///
/// The adapter applies these rules; tools and tests may call them, too. Nothing here has state or a side effect; any
/// thread may call. Part of the project's own source tree, not of the installed interface.

#ifndef VEXALIVE_COM_LIVE_REQUESTS_H
#define VEXALIVE_COM_LIVE_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Com/ILiveTrancodingDelegate.h"
#include "params/VexaMixUserInternal.h"
#include "params/VexaPublishCDNParamInternal.h"
#include "params/VexaTranscodingConfigInternal.h"

namespace json {
class Value;
}

namespace vexalive::requests {

// ---- Kinds ----------------------------------------------------------------------------------------------------------

/// A member function of the listener.
using ListenerCall = void (ILiveTrancodingDelegate::*)(int errCode, std::string errMsg);

/// The listener codes of failures.
struct ListenerCodes {
    int transportError;
    int unreadableError;  ///< an empty or unreadable response, or a refused call
    int serverErrorBase;  ///< service code c becomes listener code `serverErrorBase - |c|`
};

/// What all relay requests have in common, or all mix requests.
struct Family {
    ListenerCodes codes;
    int reportEvent;  ///< the event number of room event reports
};
inline constexpr Family kRelay = {{-3321, -3323, -200000}, 30};
inline constexpr Family kMix = {{-3322, -3324, -300000}, 31};

/// The request kinds, by their numbers.
enum Kind : int { kAddRelay = 0, kRemoveRelay = 1, kStartMix = 2, kCancelMix = 3 };

/// How a request kind appears to the service and to the listener.
struct KindRules {
    const Family& family;
    const char* interfaceName;
    ListenerCall listenerCall;  ///< receives the outcome
    /// Whether a response with this service code, given without its sign, is retried.
    bool (*isRetriedCode)(int64_t magnitude);
};

/// The rules of a kind. A number that is no kind has the rules of kRemoveRelay: the relay's codes, and no service code
/// is retried.
const KindRules& rulesOf(int kind);

// ---- Refusals -------------------------------------------------------------------------------------------------------

/// Why an operation is refused before anything is sent. The listener call does not always match the operation: a
/// refused relay stop calls onStopLiveMixTranscoding, a refused mix start calls onStartPublishStreamUrl.
struct Refusal {
    ListenerCall listenerCall;
    int code;
    const char* message;
};
extern const Refusal kInvalidRelay;
extern const Refusal kInvalidMix;
extern const Refusal kInvalidMixUsers;
extern const Refusal kNoRelayToStop;
extern const Refusal kNoMixToStop;

/// One number of a mix configuration.
struct ConfigField {
    enum Use { kId, kCanvasSize, kOutput };
    const char* name;
    int32_t kstmedia::VexaTranscodingConfigInternal::*value;
    Use use;
    const char* outputKey;  ///< its key in "output_param"; null unless kOutput
};
/// All numbers of a mix configuration but `mode`.
inline constexpr ConfigField kConfigFields[] = {
    {"appId", &kstmedia::VexaTranscodingConfigInternal::appId, ConfigField::kId, nullptr},
    {"bizId", &kstmedia::VexaTranscodingConfigInternal::bizId, ConfigField::kId, nullptr},
    {"videoWidth", &kstmedia::VexaTranscodingConfigInternal::videoWidth, ConfigField::kCanvasSize, nullptr},
    {"videoHeight", &kstmedia::VexaTranscodingConfigInternal::videoHeight, ConfigField::kCanvasSize, nullptr},
    {"videoBitrate", &kstmedia::VexaTranscodingConfigInternal::videoBitrate, ConfigField::kOutput,
     "output_stream_bitrate"},
    {"videoFramerate", &kstmedia::VexaTranscodingConfigInternal::videoFramerate, ConfigField::kOutput,
     "output_stream_frame_rate"},
    {"videoGOP", &kstmedia::VexaTranscodingConfigInternal::videoGOP, ConfigField::kOutput, "output_stream_gop"},
    {"audioSampleRate", &kstmedia::VexaTranscodingConfigInternal::audioSampleRate, ConfigField::kOutput,
     "output_audio_sample_rate"},
    {"audioBitrate", &kstmedia::VexaTranscodingConfigInternal::audioBitrate, ConfigField::kOutput,
     "output_audio_bitrate"},
    {"audioChannels", &kstmedia::VexaTranscodingConfigInternal::audioChannels, ConfigField::kOutput,
     "output_audio_channels"},
};
/// An output field with this value is not sent: the service chooses the value.
inline constexpr int32_t kNotSet = -1;

/// The highest layer (`zOrder`) of a mix with video; the lowest is 0.
inline constexpr int32_t kMaxLayer = 16;

/// VexaMixUserInternal::streamType of an auxiliary stream; every other value is the main stream.
inline constexpr int32_t kAuxiliaryStream = 2;

/// Whether a relay parameter has an address and both ids.
bool isComplete(const kstmedia::VexaPublishCDNParamInternal& param);

/// Whether no required field is 0. A mix with video requires all fields, an audio-only mix the two ids.
bool isComplete(const kstmedia::VexaTranscodingConfigInternal& config, bool isPureAudio);

/// Whether all users contribute audio only. True for an empty list.
bool isPureAudio(const std::vector<kstmedia::VexaMixUserInternal>& users);

/// What is wrong with a list of mix users.
enum class MixUsersError {
    kNone,
    kNoUsers,
    kLayerOutOfRange,  ///< of a mix with video
    kLayerNotUnique,   ///< of a mix with video
};
struct MixUsersCheck {
    MixUsersError error = MixUsersError::kNone;
    int32_t zOrder = 0;  ///< of the first invalid user; only for errors about a layer
};
MixUsersCheck checkMixUsers(const std::vector<kstmedia::VexaMixUserInternal>& users, bool isPureAudio);

/// Empties the list of users and sets every number to 0, except `mode`.
void clear(kstmedia::VexaTranscodingConfigInternal& config);

// ---- Requests -------------------------------------------------------------------------------------------------------

/// The sender of a request, from which the local stream id and the push domain are built.
struct Sender {
    int32_t bizId = 0;
    std::string roomId;
    std::string userId;
};

/// The fields that every body has.
struct Envelope {
    int32_t appId = 0;
    uint32_t timestamp = 0;  ///< seconds since an arbitrary origin
    int32_t eventId = 0;     ///< new for each body
};

/// The query values of a request's address. `userSig` and `privateMapKey` are secrets.
struct Query {
    int64_t sdkAppId = 0;  ///< sent as its low 32 bits
    int random = 0;        ///< 0 to 9999
    std::string userSig;
    std::string privateMapKey;
};

/// The address of a request; no value is URL-encoded. `baseUrl` ends with a slash. At most 4094 characters.
std::string requestUrl(const std::string& baseUrl, const std::string& interfaceName, const Query& query);

/// "<bizId>_<MD5 of ROOM_USER_main>", or "…_aux". A zero byte ends a room or a user. The digest covers the first
/// kMaxStreamName bytes of the name.
std::string streamId(int32_t bizId, const std::string& roomId, const std::string& userId, bool isMain);
inline constexpr size_t kMaxStreamName = 4094;

/// The stream id of a mix user; an empty room is the sender's.
std::string streamId(const Sender& sender, const kstmedia::VexaMixUserInternal& user);

/// The sender's own main stream.
std::string streamId(const Sender& sender);

/// The bodies, as JSON. The inputs of `config` are sent in the order of its list: sort the list first.
std::string addRelayBody(const Envelope& envelope, const Sender& sender, const std::string& destUrl);
std::string removeRelayBody(const Envelope& envelope, const Sender& sender);
std::string startMixBody(const Envelope& envelope, const Sender& sender,
                         const kstmedia::VexaTranscodingConfigInternal& config);
std::string cancelMixBody(const Envelope& envelope, const Sender& sender);

/// The "image_layer" of the first user: 2 above the canvas, 1 in an audio-only mix. Each further user is one higher.
int firstUserLayer(bool isPureAudio);

/// The description of a mix that opens its trace: "task_id:…, pureAudioOutputStream:…, stream: " and a JSON object that
/// is shorter than the body.
std::string mixDescription(int index, const Sender& sender, const kstmedia::VexaTranscodingConfigInternal& config);

// ---- Responses ------------------------------------------------------------------------------------------------------

/// The result in a response: "code" and "message", or "ErrorCode" and "ErrorInfo".
struct ServiceResult {
    int code;  ///< 0: success
    std::string message;
    const char* successMessage;  ///< what the listener receives if the code is 0
};
/// std::nullopt if the response has no code.
std::optional<ServiceResult> readServiceResult(const json::Value& response);

/// Whether a request of this kind is sent again after this response. `retCode` as in base/CVexaHttpSendRecv.h.
bool isRetried(int retCode, const std::string& response, int kind);

/// One notification of the listener.
struct Notification {
    int code;
    std::string message;
};
struct Evaluation {
    int result;                               ///< -1 for a transport error or an unreadable response, else 0
    std::vector<Notification> notifications;  ///< in order; none if the response has no code
};
/// Evaluates the last response to a request of this kind.
Evaluation evaluate(int retCode, const std::string& response, int kind);

/// The part of a request's trace for one response. `retriesLeft` is the counter that the kind's trace shows.
std::string traceSegment(int retriesLeft, int retCode, const std::string& response);

}  // namespace vexalive::requests

#endif
