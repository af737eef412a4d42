/// @file
/// The rules of the live-interface requests, as pure functions: how stream ids, bodies and URLs are built, which
/// operations are refused, which responses are retried, and which notifications the listener receives.
///
/// The adapter applies these rules. Tools and tests call them, too. The functions have no state and no side effects;
/// any thread may call them. This header is internal and is not installed.

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

/// The codes that the listener receives for failures.
struct ListenerCodes {
    int transportError;
    int unreadableError;  ///< an empty or unreadable response, or a refused operation
    int serverErrorBase;  ///< service code c becomes listener code `serverErrorBase - |c|`
};

/// The constants of a family of requests: relay (add, remove) or mix (start, cancel).
struct Family {
    ListenerCodes codes;
    int reportEvent;  ///< the event number of room event reports
};
inline constexpr Family kRelay = {{-3321, -3323, -200000}, 30};
inline constexpr Family kMix = {{-3322, -3324, -300000}, 31};

/// The kinds of requests.
enum Kind : int { kAddRelay = 0, kRemoveRelay = 1, kStartMix = 2, kCancelMix = 3 };

/// The service interface, the listener call and the retry rule of one request kind.
struct KindRules {
    const Family& family;
    const char* interfaceName;
    ListenerCall listenerCall;  ///< receives the outcome
    /// Whether the request is sent again after a response whose service code has this absolute value.
    bool (*isRetriedCode)(int64_t magnitude);
};

/// The rules of a kind. For a number that is not a kind, the rules of kRemoveRelay.
const KindRules& rulesOf(int kind);

// ---- Refusals -------------------------------------------------------------------------------------------------------

/// Why an operation is refused before anything is sent. The listener call does not always match the operation: a
/// refused relay stop calls onStopLiveMixTranscoding, a refused mix start calls onStartPublishStreamUrl. Both are
/// intended and prescribed by the interface.
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

/// Describes one numeric field of a mix configuration.
struct ConfigField {
    enum Use { kId, kCanvasSize, kOutput };
    const char* name;
    int32_t kstmedia::VexaTranscodingConfigInternal::*value;
    Use use;
    const char* outputKey;  ///< key of the field in "output_param"; null unless `use` is kOutput
};
/// All numeric fields of a mix configuration except `mode`.
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
/// A kOutput field with this value is not sent; the service then chooses the value.
inline constexpr int32_t kNotSet = -1;

/// The highest layer (`zOrder`) of a mix with video; the lowest is 0.
inline constexpr int32_t kMaxLayer = 16;

/// VexaMixUserInternal::streamType of an auxiliary stream; every other value is the main stream.
inline constexpr int32_t kAuxiliaryStream = 2;

/// Whether a relay parameter has a URL and both ids.
bool isComplete(const kstmedia::VexaPublishCDNParamInternal& param);

/// Whether no required field is 0. A mix with video requires all of kConfigFields, an audio-only mix only the two ids.
bool isComplete(const kstmedia::VexaTranscodingConfigInternal& config, bool isPureAudio);

/// Whether all users contribute audio only. True for an empty list.
bool isPureAudio(const std::vector<kstmedia::VexaMixUserInternal>& users);

/// What is wrong with a list of mix users.
enum class MixUsersError {
    kNone,
    kNoUsers,
    kLayerOutOfRange,  ///< only in a mix with video
    kLayerNotUnique,   ///< only in a mix with video
};
struct MixUsersCheck {
    MixUsersError error = MixUsersError::kNone;
    int32_t zOrder = 0;  ///< layer of the first invalid user; 0 unless the error is about a layer
};
MixUsersCheck checkMixUsers(const std::vector<kstmedia::VexaMixUserInternal>& users, bool isPureAudio);

/// Empties the list of users and sets every field of kConfigFields to 0.
void clear(kstmedia::VexaTranscodingConfigInternal& config);

// ---- Requests -------------------------------------------------------------------------------------------------------

/// The sender of a request. The sender's stream id and push domain are built from these values.
struct Sender {
    int32_t bizId = 0;
    std::string roomId;
    std::string userId;
};

/// The values that every body contains besides those of the Sender.
struct Envelope {
    int32_t appId = 0;
    uint32_t timestamp = 0;  ///< seconds since an arbitrary origin
    int32_t eventId = 0;     ///< new for each body
};

/// The query values of a request's URL. `userSig` and `privateMapKey` are secrets.
struct Query {
    int64_t sdkAppId = 0;  ///< sent as its low 32 bits
    int random = 0;        ///< 0 to 9999
    std::string userSig;
    std::string privateMapKey;
};

/// The URL of a request, truncated to 4094 characters. No value is URL-encoded. `baseUrl` must end with a slash.
std::string requestUrl(const std::string& baseUrl, const std::string& interfaceName, const Query& query);

/// The stream id "BIZID_DIGEST". DIGEST is the MD5 digest of the stream name "ROOM_USER_main", or "ROOM_USER_aux" if
/// `isMain` is false. `roomId` and `userId` end at their first zero byte. The name is truncated to kMaxStreamName
/// bytes.
std::string streamId(int32_t bizId, const std::string& roomId, const std::string& userId, bool isMain);
inline constexpr size_t kMaxStreamName = 4094;

/// The stream id of a mix user. If the user's `roomId` is empty, the sender's room is used.
std::string streamId(const Sender& sender, const kstmedia::VexaMixUserInternal& user);

/// The stream id of the sender's own main stream.
std::string streamId(const Sender& sender);

/// The request bodies, as JSON. startMixBody() sends the users in the order of `config.mixUsersArray`; for a mix with
/// video the caller sorts them by layer first.
std::string addRelayBody(const Envelope& envelope, const Sender& sender, const std::string& destUrl);
std::string removeRelayBody(const Envelope& envelope, const Sender& sender);
std::string startMixBody(const Envelope& envelope, const Sender& sender,
                         const kstmedia::VexaTranscodingConfigInternal& config);
std::string cancelMixBody(const Envelope& envelope, const Sender& sender);

/// The "image_layer" of the first user: 1 in an audio-only mix, else 2, since the canvas has 1. Each further user has
/// the next number.
int firstUserLayer(bool isPureAudio);

/// The string with which the trace of a mix start begins: "task_id:…, pureAudioOutputStream:…, stream: " and a JSON
/// object. The object has fewer keys than the body: it has no sizes and no output numbers.
std::string mixDescription(int index, const Sender& sender, const kstmedia::VexaTranscodingConfigInternal& config);

// ---- Responses ------------------------------------------------------------------------------------------------------

/// The result in a response: "code" and "message" or, if there is no "code", "ErrorCode" and "ErrorInfo".
struct ServiceResult {
    int code;  ///< 0: success
    std::string message;
    const char* successMessage;  ///< what the listener receives if the code is 0
};
/// std::nullopt if the response has neither "code" nor "ErrorCode".
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
    std::vector<Notification> notifications;  ///< in order; none if a readable response has no code
};
/// Evaluates the final response to a request of this kind: the one after which it is not sent again.
Evaluation evaluate(int retCode, const std::string& response, int kind);

/// The string that one response adds to the trace of its request. `retriesLeft` is the value of the retry counter that
/// traces of this request kind show.
std::string traceSegment(int retriesLeft, int retCode, const std::string& response);

}  // namespace vexalive::requests

#endif
