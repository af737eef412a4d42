// Fuzzes the parameter records: their strings in reports, and the bodies and URLs of the requests.
//
// Each line of an input sets a field or has another effect:
//
//   appId 7          sets this numeric field of the relay and the mix; so does bizId
//   width 640        sets this numeric field (kNumbers) of the mix only
//   url rtmp://a/b   the destination URL of the relay
//   user alice       adds a user to the mix; room, rect X Y W H, zOrder, pureAudio and streamType set its fields
//   localUser bob    the user who sends the requests; localRoom, sdkAppId, userSig and mapKey set its other data
//   times 300        repeats the string that was set last, up to 8 KiB
//   json {"a":1}     parses and serializes the string

#include <memory>
#include <nlohmann/json.hpp>

#include "Com/LiveTranscodingAdapter.h"
#include "FakePlatform.h"
#include "Fuzzing.h"
#include "VirtualTime.h"
#include "base/Json.h"
#include "base/Md5.h"

namespace {

using namespace fuzzing;
using Json = nlohmann::json;
using Relay = kstmedia::VexaPublishCDNParamInternal;
using Config = kstmedia::VexaTranscodingConfigInternal;
using User = kstmedia::VexaMixUserInternal;

constexpr size_t kMaxPiece = 259;       // bytes of one user in the string of a mix
constexpr size_t kMaxFormatted = 4094;  // bytes of an address, or of a name whose digest is a stream id
constexpr size_t kMaxRepeated = 8 << 10;
constexpr size_t kMaxUsers = 40;

template <class Record>
struct Number {
    const char* name;
    int32_t Record::*value;
};

template <class Record, size_t size>
void setNumber(Record& record, const Number<Record> (&numbers)[size], std::string_view name, std::string_view value) {
    for (const Number<Record>& number : numbers) {
        if (name == number.name) {
            record.*number.value = parseNumber<int32_t>(value);
        }
    }
}

// With the names that reports use, and in the same order.
constexpr Number<Config> kNumbers[] = {
    {"mode", &Config::mode},
    {"appId", &Config::appId},
    {"bizId", &Config::bizId},
    {"width", &Config::videoWidth},
    {"height", &Config::videoHeight},
    {"bitrate", &Config::videoBitrate},
    {"fps", &Config::videoFramerate},
    {"gop", &Config::videoGOP},
    {"audio_samplerate", &Config::audioSampleRate},
    {"audio_bitrate", &Config::audioBitrate},
    {"audio_channel", &Config::audioChannels},
};

constexpr Number<User> kUserNumbers[] = {
    {"zOrder", &User::zOrder},
    {"streamType", &User::streamType},
};

constexpr Number<Config> kOutputs[] = {
    {"output_stream_bitrate", &Config::videoBitrate},      {"output_stream_gop", &Config::videoGOP},
    {"output_stream_frame_rate", &Config::videoFramerate}, {"output_audio_sample_rate", &Config::audioSampleRate},
    {"output_audio_bitrate", &Config::audioBitrate},       {"output_audio_channels", &Config::audioChannels},
};

struct Request {
    Relay relay;
    Config config;
    std::string localUser = "alice";
    std::string localRoom = "room7";
    std::string userSig = "signature";
    std::string mapKey = "key";
    int64_t sdkAppId = 1400123;
    std::vector<std::string> jsonTexts;
};

Request readRequest(std::string_view input) {
    Request request;
    std::string* lastText = nullptr;
    const auto setText = [&lastText](std::string& text, std::string_view value) {
        text = value;
        lastText = &text;
    };
    const std::pair<const char*, std::string*> texts[] = {{"url", &request.relay.url},
                                                          {"localUser", &request.localUser},
                                                          {"localRoom", &request.localRoom},
                                                          {"userSig", &request.userSig},
                                                          {"mapKey", &request.mapKey}};
    auto& users = request.config.mixUsersArray;
    for (const std::string& line : linesOf(input)) {
        std::string_view rest = line;
        const std::string_view name = takeWord(rest);
        setNumber(request.config, kNumbers, name, rest);
        for (const auto& [key, text] : texts) {
            if (name == key) {
                setText(*text, rest);
            }
        }
        if (name == "sdkAppId") {
            request.sdkAppId = parseNumber<int64_t>(rest);
        } else if (name == "json") {
            request.jsonTexts.emplace_back(rest);
        } else if (name == "times" && lastText) {
            const std::string once = *lastText;
            for (int n = parseNumber<int>(rest); n > 1 && !once.empty() && lastText->size() < kMaxRepeated; --n) {
                *lastText += once;
            }
        } else if (name == "user" && users.size() < kMaxUsers) {
            lastText = nullptr;  // adding a user may move the string
            users.emplace_back();
            setText(users.back().userId, rest);
        } else if (users.empty()) {
            continue;
        } else if (name == "room") {
            setText(users.back().roomId, rest);
        } else if (name == "rect") {
            User::Rect& rect = users.back().rect;
            for (int32_t* side : {&rect.x, &rect.y, &rect.w, &rect.h}) {
                *side = parseNumber<int32_t>(takeWord(rest));
            }
        } else if (name == "pureAudio") {
            users.back().pureAudio = rest == "1";
        } else {
            setNumber(users.back(), kUserNumbers, name, rest);
        }
    }
    request.relay.appId = request.config.appId;
    request.relay.bizId = request.config.bizId;
    return request;
}

// ---- Reports --------------------------------------------------------------------------------------------------------

std::string textOf(const Relay& relay) {
    return "appId:" + std::to_string(relay.appId) + ", bizId:" + std::to_string(relay.bizId) + ", url:" + relay.url;
}

std::string textOf(const Config& config) {
    std::string text;
    for (const auto& number : kNumbers) {
        text += (text.empty() ? "" : ", ") + std::string(number.name) + ":" + std::to_string(config.*number.value);
    }
    require(text.size() <= kMaxPiece, "the numbers fit");
    int count = 0;
    for (const User& user : config.mixUsersArray) {
        const std::string piece = " mixUser" + std::to_string(++count) + ":[userId:" + upToZero(user.userId) +
                                  ", roomId:" + upToZero(user.roomId) + ", rect:(x:" + std::to_string(user.rect.x) +
                                  "-y:" + std::to_string(user.rect.y) + "-w:" + std::to_string(user.rect.w) +
                                  "-h:" + std::to_string(user.rect.h) + "), zOrder:" + std::to_string(user.zOrder) +
                                  ", pureAudio:" + std::to_string(user.pureAudio) +
                                  ", streamType:" + std::to_string(user.streamType) + "]";
        text += piece.substr(0, kMaxPiece);
    }
    return text;
}

// ---- Requests -------------------------------------------------------------------------------------------------------

bool isAudio(const Config& config) {
    return std::all_of(config.mixUsersArray.begin(), config.mixUsersArray.end(),
                       [](const User& user) { return user.pureAudio; });
}

std::string streamId(int32_t bizId, const std::string& room, const std::string& user, const char* stream) {
    const std::string name = upToZero(room) + "_" + upToZero(user) + "_" + stream;
    return std::to_string(bizId) + "_" + kstmedia::getMD5(name.substr(0, kMaxFormatted));
}

Json readBody(const std::string& body) {
    Json read = Json::parse(body, nullptr, false);
    require(read.is_object(), "a body is a JSON object", body);
    require(json::Serialize(json::Deserialize(body)) == body, "parsing and serializing do not change a body", body);
    return read;
}

// The string as JSON. Bytes that are not UTF-8 become U+FFFD.
Json asJson(const std::string& text) {
    return Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace));
}

class Sending {
public:
    explicit Sending(const Request& request) : mRequest(request) {
        mPlatform.reset();
        mAdapter->updateUserInfo(request.sdkAppId, request.userSig, request.localUser);
        mAdapter->updateEnterRoomInfo(request.localRoom, request.mapKey);
    }

    void sendRelay() {
        const Relay& relay = mRequest.relay;
        mAdapter->startPublishStreamUrl(relay);
        if (isRefused()) {
            requireReport(textOf(relay));
            return;
        }
        const Json body = sent("add_relay_stream_url", relay.appId, relay.bizId);
        requireText(body, "stream_id", localId(relay.bizId));
        require(body["dest_stream_url"] == asJson(relay.url), "the destination", body.dump());
        complete(textOf(relay));
        mAdapter->stopPublishStreamUrl();
        requireText(sent("remove_relay_stream_url", relay.appId, relay.bizId), "stream_id", localId(relay.bizId));
    }

    void sendMix() {
        const Config& config = mRequest.config;
        mAdapter->setLiveMixTranscoding(config);
        if (isRefused()) {
            requireReport(textOf(config));
            return;
        }
        const Json body = sent("set_live_mix_transcoding", config.appId, config.bizId);
        requireText(body, "session_id", localId(config.bizId));
        const Json& output = body["output_param"];
        requireText(output, "output_stream_id", localId(config.bizId));
        for (const auto& number : kOutputs) {
            require(output.contains(number.name) == (config.*number.value != -1), "-1 is omitted", output.dump());
            require(!output.contains(number.name) || output[number.name] == config.*number.value, "an output number",
                    output.dump());
        }
        requireInputs(body["input_stream_list"]);
        complete(textOf(config));
        mAdapter->stopLiveMixTranscoding();
        const Json cancel = sent("set_live_mix_transcoding", config.appId, config.bizId);
        requireText(cancel["output_param"], "output_stream_id", localId(config.bizId));
    }

private:
    std::string localId(int32_t bizId) const { return streamId(bizId, mRequest.localRoom, mRequest.localUser, "main"); }

    // Requires that exactly one request was sent, checks its address, and returns its body.
    Json sent(const std::string& interfaceName, int32_t appId, int32_t bizId) {
        VirtualTime::runDue();
        require(mPlatform.requests.size() == 1, "an accepted operation is sent");
        const FakePlatform::Request& request = mPlatform.requests.front();
        const std::string start = "https://live.test:8443/v3/liveinterface/" + interfaceName +
                                  "?sdkappid=" + std::to_string(static_cast<int32_t>(mRequest.sdkAppId)) + "&random=";
        const std::string secrets =
            "&usersig=" + upToZero(mRequest.userSig) + "&parivMapKey=" + upToZero(mRequest.mapKey);
        require(startsWith(request.url, start), "the address", request.url);
        const std::string random = request.url.substr(start.size(), request.url.find('&', start.size()) - start.size());
        require(request.url == (start + random + secrets).substr(0, kMaxFormatted), "the rest of the address",
                request.url);
        const Json body = readBody(request.body);
        requireText(body, "interface", interfaceName);
        requireText(body, "domain", std::to_string(bizId) + ".push.test");
        require(body["appid"] == appId, "the application id", request.body);
        return body;
    }

    static void requireText(const Json& object, const char* key, const std::string& text) {
        require(object.contains(key) && object[key] == text, key, text);
    }

    void requireInputs(const Json& inputs) const {
        std::vector<User> users = mRequest.config.mixUsersArray;
        size_t first = 0;
        if (!isAudio(mRequest.config)) {
            std::sort(users.begin(), users.end(), [](const User& a, const User& b) { return a.zOrder < b.zOrder; });
            requireText(inputs[0], "input_stream_id", "canvas1");
            require(inputs[0]["layout_params"]["image_width"] == mRequest.config.videoWidth, "the canvas's width");
            first = 1;
        }
        require(inputs.size() == users.size() + first, "each user is sent", inputs.dump());
        for (size_t i = 0; i < users.size(); ++i) {
            const User& user = users[i];
            const Json& input = inputs[i + first];
            requireText(input, "input_stream_id",
                        streamId(mRequest.config.bizId, user.roomId.empty() ? mRequest.localRoom : user.roomId,
                                 user.userId, user.streamType == 2 ? "aux" : "main"));
            const Json layout = {
                {"input_type", user.pureAudio ? 4 : 0}, {"image_layer", i + first + 1}, {"image_width", user.rect.w},
                {"image_height", user.rect.h},          {"location_x", user.rect.x},    {"location_y", user.rect.y}};
            require(input["layout_params"] == layout, "an input's layout", input.dump());
        }
    }

    bool isRefused() {
        VirtualTime::runDue();
        return mPlatform.requests.empty();
    }

    void complete(const std::string& information) {
        mPlatform.respond(0, 0, R"({"code":0})");
        requireReport(information);
        mPlatform.requests.clear();
    }

    void requireReport(const std::string& information) {
        VirtualTime::runDue();
        require(mPlatform.reports.size() == 1, "there is one report");
        const FakePlatform::Report& report = mPlatform.reports.front();
        require(report.information == upToZero("sdkver:9.8.7 " + information), "a report shows the record",
                report.information);
        mPlatform.reports.clear();
    }

    const Request& mRequest;
    FakePlatform& mPlatform = FakePlatform::instance();
    std::shared_ptr<LiveTranscodingAdapter> mAdapter = std::make_shared<LiveTranscodingAdapter>();
};

void readAndWriteJson(const std::string& text) {
    const json::Value value = json::Deserialize(text);
    if (value.isNull()) {
        return;
    }
    const std::string written = json::Serialize(value);
    require(Json::accept(written), "a serialized value is JSON", written);
    const json::Value again = json::Deserialize(written);
    require(json::Serialize(again) == written, "serializing is idempotent", written);
    require(again.type() == value.type() && again.ToInt() == value.ToInt(), "serializing keeps the value", written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Request request = readRequest({reinterpret_cast<const char*>(data), size});
    require(request.relay.to_string() == textOf(request.relay), "a relay's text", request.relay.to_string());
    require(request.config.to_string() == textOf(request.config), "a mix's text", request.config.to_string());
    Sending(request).sendRelay();
    Sending(request).sendMix();
    for (const std::string& text : request.jsonTexts) {
        readAndWriteJson(text);
    }
    return 0;
}
