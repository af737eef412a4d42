// Any mix file: its reading, the judgement against the adapter on fakes, and, of some inputs, the preview.

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <tuple>

#include "Com/LiveTranscodingAdapter.h"
#include "FakePlatform.h"
#include "Fuzzing.h"
#include "VirtualTime.h"
#include "tools/mix/MixFile.h"
#include "tools/mix/MixJudgement.h"
#include "tools/mix/Preview.h"
#include "tools/mix/SentMix.h"

namespace {

using namespace fuzzing;
using namespace vexalive;
using Json = nlohmann::json;
using Config = kstmedia::VexaTranscodingConfigInternal;
using User = kstmedia::VexaMixUserInternal;

// A picture takes a hundred times as long as all the rest, so only texts of such a size are drawn: a multiple of this.
constexpr size_t kPreviewedSize = 64;

// ---- Mistakes -------------------------------------------------------------------------------------------------------

std::vector<std::string_view> textLinesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    for (;;) {
        const size_t end = text.find('\n');
        lines.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return lines;
        }
        text.remove_prefix(end + 1);
    }
}

size_t charactersIn(std::string_view line) {
    return static_cast<size_t>(std::count_if(
        line.begin(), line.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0) != 0x80; }));
}

void requireMistakes(const std::vector<MixMistake>& mistakes, std::string_view text) {
    const std::vector<std::string_view> lines = textLinesOf(text);
    std::pair<size_t, size_t> last = {1, 1};
    for (size_t i = 0; i < mistakes.size(); ++i) {
        const MixMistake& mistake = mistakes[i];
        require(!mistake.text.empty(), "a mistake is told");
        require(endsWith(describe("mix.json", mistake), mistake.text), "a mistake is described", mistake.text);
        if (i == kMaxMixMistakes) {
            require(mistake.line == 0 && i + 1 == mistakes.size(), "the rest is told once", mistake.text);
            continue;
        }
        require(mistake.line >= 1 && mistake.line <= lines.size(), "a mistake's line is in the text", mistake.text);
        require(mistake.column >= 1 && mistake.column <= charactersIn(lines[mistake.line - 1]) + 1,
                "a mistake's column is in its line", mistake.text);
        require(last <= std::pair(mistake.line, mistake.column), "mistakes come in the order of the file",
                mistake.text);
        last = {mistake.line, mistake.column};
    }
}

// ---- Configurations -------------------------------------------------------------------------------------------------

Json jsonOf(const Config& config) {
    Json users = Json::array();
    for (const User& user : config.mixUsersArray) {
        const User::Rect& rect = user.rect;
        users.push_back({{"userId", user.userId},
                         {"roomId", user.roomId},
                         {"rect", {{"x", rect.x}, {"y", rect.y}, {"w", rect.w}, {"h", rect.h}}},
                         {"zOrder", user.zOrder},
                         {"pureAudio", user.pureAudio},
                         {"streamType", user.streamType}});
    }
    return {{"mode", config.mode},
            {"appId", config.appId},
            {"bizId", config.bizId},
            {"videoWidth", config.videoWidth},
            {"videoHeight", config.videoHeight},
            {"videoBitrate", config.videoBitrate},
            {"videoFramerate", config.videoFramerate},
            {"videoGOP", config.videoGOP},
            {"audioSampleRate", config.audioSampleRate},
            {"audioBitrate", config.audioBitrate},
            {"audioChannels", config.audioChannels},
            {"mixUsersArray", users}};
}

// What the text says, is what was read; and written again, it is read as the same.
void requireRead(const Config& config, std::string_view text) {
    const Json given = Json::parse(text.begin(), text.end(), nullptr, false);
    require(given.is_object(), "what is read is a JSON object", text);
    const Json read = jsonOf(config);
    for (const auto& [key, value] : given.items()) {
        require(key == "mixUsersArray" || read[key] == value, "a field is read as it stands", key);
    }
    const Json& users = given["mixUsersArray"];
    require(users.size() == config.mixUsersArray.size(), "each user is read", text);
    for (size_t i = 0; i < users.size(); ++i) {
        for (const auto& [key, value] : users[i].items()) {
            require(read["mixUsersArray"][i][key] == value, "a user's field is read as it stands", key);
        }
    }
    const MixReading again = readMix(read.dump());
    require(again.mistakes.empty() && jsonOf(again.config) == read, "what is written again is read again", read.dump());
}

// ---- Judgement ------------------------------------------------------------------------------------------------------

class Listener : public ILiveTrancodingDelegate {
public:
    void onStartPublishStreamUrl(int code, std::string) override { isRefused = code == -3324; }
    void onStopPublishStreamUrl(int, std::string) override {}
    void onSetLiveMixTranscoding(int, std::string) override {}
    void onStopLiveMixTranscoding(int, std::string) override {}

    bool isRefused = false;
};

// The inputs' stream ids in the order in which the adapter sends them, without the canvas; nothing if it refuses.
std::optional<std::vector<std::string>> sentByAdapter(const Config& config) {
    FakePlatform& platform = FakePlatform::instance();
    platform.reset();
    const auto listener = std::make_shared<Listener>();
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    adapter->setLiveTranscodingDelegate(listener);
    adapter->updateEnterRoomInfo("4711", "key");
    adapter->setLiveMixTranscoding(config);
    VirtualTime::runDue();
    require(platform.requests.size() == (listener->isRefused ? 0U : 1U), "a mix is refused or sent");
    if (listener->isRefused) {
        return std::nullopt;
    }
    const Json body = Json::parse(platform.requests[0].body);
    std::vector<std::string> ids;
    for (const Json& input : body["input_stream_list"]) {
        if (input["input_stream_id"] != "canvas1") {
            ids.push_back(input["input_stream_id"]);
        }
    }
    return ids;
}

bool isSame(const MixRemark& a, const MixRemark& b) {
    return std::tie(a.kind, a.field, a.text, a.user) == std::tie(b.kind, b.field, b.text, b.user);
}

void requireJudgement(const Config& config, const std::vector<MixRemark>& remarks) {
    bool hasWarning = false;
    for (const MixRemark& remark : remarks) {
        const std::string text = describe(remark);
        require(isPlainAscii(text), "a remark holds nothing of the configuration", text);
        require(!remark.field.empty() && !remark.text.empty(), "a remark names a field and says why", text);
        require(remark.kind == MixRemark::kWarning || !hasWarning, "refusals come first", text);
        hasWarning = remark.kind == MixRemark::kWarning;
        require(!remark.user || *remark.user < config.mixUsersArray.size(), "a remark is about a user there is", text);
        require(!remark.user || startsWith(remark.field, "mixUsersArray[" + std::to_string(*remark.user) + "]"),
                "a remark's field is its user's", text);
    }
    const std::vector<MixRemark> again = judgeMix(config);
    require(std::equal(again.begin(), again.end(), remarks.begin(), remarks.end(), isSame), "a judgement stays");

    const auto sent = sentByAdapter(config);
    require(isRefused(remarks) == !sent, "the judgement is the adapter's", config.to_string());
    if (sent) {
        const std::vector<SentInput> inputs = sentInputs(config, "4711");
        require(std::equal(inputs.begin(), inputs.end(), sent->begin(), sent->end(),
                           [](const SentInput& input, const std::string& id) { return input.streamId == id; }),
                "the order and the ids are the adapter's", config.to_string());
    }
}

void requirePreview(const Config& config, const std::vector<MixRemark>& remarks) {
    const auto drawing = drawPreview(config, remarks, {"mix.json", "4711", "alice"});
    require(drawing->width() == kPreviewWidth && drawing->height() > 0 && drawing->height() <= kPreviewTallest,
            "a picture's size is bounded");
    const std::string svg = drawing->svg();
    const std::string_view controls("\0\1\2\3\4\5\6\7\b\v\f\x1b", 12);
    require(svg.find_first_of(controls) == std::string::npos && svg.find("&#x") == std::string::npos,
            "a picture holds no control characters, nor what stands for one", svg);
    require(endsWith(svg, "</svg>\n"), "a picture is whole", svg.substr(svg.size() - std::min<size_t>(svg.size(), 99)));
}

}  // namespace

// The catalogue of fonts stays for the life of the process, in pointers that a leak check does not see.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig\n";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const MixReading reading = readMix(text);
    if (!reading.mistakes.empty()) {
        requireMistakes(reading.mistakes, text);
        return 0;
    }
    requireRead(reading.config, text);
    const std::vector<MixRemark> remarks = judgeMix(reading.config);
    requireJudgement(reading.config, remarks);
    if (text.size() % kPreviewedSize == 0) {
        requirePreview(reading.config, remarks);
    }
    return 0;
}
