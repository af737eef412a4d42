// Fuzzes mix files: the reader, the validation (compared with the adapter on fakes), and the preview for some inputs.

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <tuple>

#include "Com/LiveRequests.h"
#include "FakePlatform.h"
#include "Fuzzing.h"
#include "VirtualTime.h"
#include "support/RoomMember.h"
#include "tools/mix/MixFile.h"
#include "tools/mix/MixLayers.h"
#include "tools/mix/MixValidation.h"
#include "tools/mix/Preview.h"

namespace {

using namespace fuzzing;
using namespace vexalive;
using Json = nlohmann::json;
using Config = kstmedia::VexaTranscodingConfigInternal;
using User = kstmedia::VexaMixUserInternal;

// Drawing takes a hundred times longer than the rest. So only files whose size is a multiple of this number are drawn.
constexpr size_t kPreviewedSize = 64;

// ---- Errors ---------------------------------------------------------------------------------------------------------

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

void requireErrors(const std::vector<MixFileError>& errors, std::string_view text) {
    const std::vector<std::string_view> lines = textLinesOf(text);
    std::pair<size_t, size_t> last = {1, 1};
    for (size_t i = 0; i < errors.size(); ++i) {
        const MixFileError& error = errors[i];
        require(!error.message.empty(), "an error has a message");
        require(endsWith(describe("mix.json", error), error.message), "an error is described", error.message);
        if (i == kMaxMixFileErrors) {
            require(error.line == 0 && i + 1 == errors.size(), "the omitted errors are counted once", error.message);
            continue;
        }
        require(error.line >= 1 && error.line <= lines.size(), "an error's line is in the text", error.message);
        require(error.column >= 1 && error.column <= charactersIn(lines[error.line - 1]) + 1,
                "an error's column is in its line", error.message);
        require(last <= std::pair(error.line, error.column), "errors are in the order of the file", error.message);
        last = {error.line, error.column};
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
    Json json = {{"mode", config.mode}, {"mixUsersArray", users}};
    for (const requests::ConfigField& field : requests::kConfigFields) {
        json[field.name] = config.*field.value;
    }
    return json;
}

// Requires that the configuration has the values of the file, and that it is equal after being written and read again.
void requireRead(const Config& config, std::string_view text) {
    const Json given = Json::parse(text.begin(), text.end(), nullptr, false);
    require(given.is_object(), "an accepted file is a JSON object", text);
    const Json read = jsonOf(config);
    for (const auto& [key, value] : given.items()) {
        require(key == "mixUsersArray" || read[key] == value, "a field is read unchanged", key);
    }
    const Json& users = given["mixUsersArray"];
    require(users.size() == config.mixUsersArray.size(), "each user is read", text);
    for (size_t i = 0; i < users.size(); ++i) {
        for (const auto& [key, value] : users[i].items()) {
            require(read["mixUsersArray"][i][key] == value, "a user's field is read unchanged", key);
        }
    }
    const MixFileResult again = readMix(read.dump());
    require(again && jsonOf(*again) == read, "a written configuration is read again", read.dump());
}

// ---- Validation -----------------------------------------------------------------------------------------------------

// The stream ids of the inputs in the order of the adapter's request, without the canvas; none if the adapter refuses.
std::optional<std::vector<std::string>> sentByAdapter(const Config& config) {
    FakePlatform& platform = FakePlatform::instance();
    platform.reset();
    const auto listener = std::make_shared<Listener>();
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    adapter->setLiveTranscodingDelegate(listener);
    adapter->updateEnterRoomInfo("4711", "key");
    adapter->setLiveMixTranscoding(config);
    VirtualTime::runDue();
    const bool isRefused = platform.requests.empty();
    const std::vector<Call> calls = isRefused ? std::vector<Call>{{"startRelay", -3324, {}}} : std::vector<Call>();
    require(listener->calls.all() == calls, "a mix is refused or sent");
    if (isRefused) {
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

bool isSame(const MixDiagnostic& a, const MixDiagnostic& b) {
    return std::tie(a.severity, a.field, a.message, a.user) == std::tie(b.severity, b.field, b.message, b.user);
}

void requireValidation(const Config& config, const std::vector<MixDiagnostic>& diagnostics) {
    bool hasWarning = false;
    for (const MixDiagnostic& diagnostic : diagnostics) {
        const std::string text = describe(diagnostic);
        require(isPlainAscii(text), "a diagnostic holds nothing of the configuration", text);
        require(!diagnostic.field.empty() && !diagnostic.message.empty(), "a diagnostic names a field and a reason",
                text);
        require(diagnostic.severity == MixDiagnostic::kWarning || !hasWarning, "errors come first", text);
        hasWarning = diagnostic.severity == MixDiagnostic::kWarning;
        require(!diagnostic.user || *diagnostic.user < config.mixUsersArray.size(),
                "a diagnostic is about a user of the mix", text);
        require(
            !diagnostic.user || startsWith(diagnostic.field, "mixUsersArray[" + std::to_string(*diagnostic.user) + "]"),
            "a diagnostic's field is its user's", text);
    }
    const std::vector<MixDiagnostic> again = validateMix(config);
    require(std::equal(again.begin(), again.end(), diagnostics.begin(), diagnostics.end(), isSame),
            "the validation is deterministic");

    const auto sent = sentByAdapter(config);
    require(isRefused(diagnostics) == !sent, "the validation refuses what the adapter refuses", config.to_string());
    if (sent) {
        const std::vector<MixLayer> layers = mixLayers(config, "4711");
        require(std::equal(layers.begin(), layers.end(), sent->begin(), sent->end(),
                           [](const MixLayer& layer, const std::string& id) { return layer.streamId == id; }),
                "the order and the ids are the adapter's", config.to_string());
    }
}

void requirePreview(const Config& config, const std::vector<MixDiagnostic>& diagnostics) {
    const auto drawing = drawPreview(config, diagnostics, {"mix.json", "4711", "alice"});
    require(drawing->width() == kPreviewWidth && drawing->height() > 0 && drawing->height() <= kPreviewMaxHeight,
            "a preview's size is bounded");
    const std::string svg = drawing->svg();
    const std::string_view controls("\0\1\2\3\4\5\6\7\b\v\f\x1b", 12);
    require(svg.find_first_of(controls) == std::string::npos && svg.find("&#x") == std::string::npos,
            "a preview holds no control characters, escaped or not", svg);
    require(endsWith(svg, "</svg>\n"), "a preview is whole", svg.substr(svg.size() - std::min<size_t>(svg.size(), 99)));
}

}  // namespace

// fontconfig never frees its list of fonts, and hides the pointers to it from the leak check.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig\n";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const MixFileResult config = readMix(text);
    if (!config) {
        requireErrors(config.error(), text);
        return 0;
    }
    requireRead(*config, text);
    const std::vector<MixDiagnostic> diagnostics = validateMix(*config);
    requireValidation(*config, diagnostics);
    if (text.size() % kPreviewedSize == 0) {
        requirePreview(*config, diagnostics);
    }
    return 0;
}
