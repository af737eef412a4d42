// `vexalive preview`: draws a mix file and reports what the adapter would refuse.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "common/Text.h"
#include "tools/Command.h"
#include "tools/ExitStatus.h"
#include "tools/mix/MixFile.h"
#include "tools/mix/MixValidation.h"
#include "tools/mix/Preview.h"

namespace vexalive {
namespace {

constexpr size_t kMaxDiagnostics = 20;

constexpr const char* kPreviewDescription =
    "Draw a mix file as the adapter would send it\n"
    "\n"
    "Reads a mix configuration from a JSON file, draws the canvas and its inputs, and\n"
    "reports what the adapter would refuse. Sends nothing.";

constexpr const char* kPreviewFooter =
    "The stream ids depend on the room and the user of the application that requests\n"
    "the mix.\n"
    "\n"
    "Example:\n"
    "  vexalive preview examples/mix/two-side-by-side.json -o layout.svg\n"
    "\n"
    "Exit status: 0 the adapter would send the mix; 1 the adapter would refuse it;\n"
    "2 usage error, FILE is invalid, or PICTURE cannot be written.";

struct PreviewCommandOptions {
    std::string file;
    std::string output;
    std::string room;
    std::string user;
};

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string fileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

Result<void> write(const std::string& path, const std::string& bytes) {
    errno = 0;
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    file.close();
    if (file) {
        return {};
    }
    return failure("-o is \"" + printable(path) + "\": cannot be written" +
                   (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
}

void print(const std::string& path, const std::vector<MixDiagnostic>& diagnostics) {
    const std::string file = printable(path);
    for (size_t i = 0; i < std::min(diagnostics.size(), kMaxDiagnostics); ++i) {
        std::fprintf(stderr, "%s: %s: %s\n", file.c_str(),
                     diagnostics[i].severity == MixDiagnostic::kError ? "refused" : "warning",
                     describe(diagnostics[i]).c_str());
    }
    if (diagnostics.size() > kMaxDiagnostics) {
        std::fprintf(stderr, "%s: and %zu more\n", file.c_str(), diagnostics.size() - kMaxDiagnostics);
    }
}

Result<int> runPreview(const PreviewCommandOptions& options) {
    if (options.file.empty()) {
        return failure("FILE is missing: a mix configuration in JSON");
    }
    if (options.output.empty()) {
        return failure("-o is missing: the file to write, a name that ends in .svg or .png");
    }
    const bool isPng = endsWith(options.output, ".png");
    if (!isPng && !endsWith(options.output, ".svg")) {
        return failure("-o is \"" + printable(options.output) + "\": must end in .svg or .png");
    }
    const MixFileResult config = readMixFile(options.file);
    if (!config) {
        for (const MixFileError& error : config.error()) {
            std::fprintf(stderr, "%s\n", printable(describe(options.file, error)).c_str());
        }
        return kUsage;
    }

    const std::vector<MixDiagnostic> diagnostics = validateMix(*config);
    PreviewOptions preview;
    preview.title = fileName(options.file);
    preview.room = options.room;
    preview.user = options.user;
    if (preview.user.empty() && !config->mixUsersArray.empty()) {
        preview.user = config->mixUsersArray.front().userId;
    }
    const std::unique_ptr<Drawing> drawing = drawPreview(*config, diagnostics, preview);
    if (const auto written = write(options.output, isPng ? drawing->png() : drawing->svg()); !written) {
        return tl::unexpected(written.error());
    }
    print(options.file, diagnostics);
    const bool refused = isRefused(diagnostics);
    std::printf("%s: %s\n", printable(options.output).c_str(),
                refused ? "drawn, but the adapter would refuse the mix" : "drawn; the adapter would send the mix");
    return refused ? kRefused : kSucceeded;
}

}  // namespace

Command addPreviewCommand(CLI::App& tool) {
    CLI::App* command = tool.add_subcommand("preview", kPreviewDescription);
    command->footer(kPreviewFooter);
    const auto options = std::make_shared<PreviewCommandOptions>();
    command->add_option("FILE", options->file, "The mix configuration, in JSON (see docs/mix-file.md)")->type_name("");
    command->add_option("-o,--output", options->output, "The file to write; its name ends in .svg or .png")
        ->type_name("PICTURE");
    command->add_option("--room", options->room, "The room of inputs without a roomId; or VEXALIVE_ROOM")
        ->type_name("VALUE")
        ->envname("VEXALIVE_ROOM")
        ->default_val("room");
    command
        ->add_option("--user", options->user,
                     "The user who requests the mix; or VEXALIVE_USER; by default the first input's")
        ->type_name("VALUE")
        ->envname("VEXALIVE_USER");
    return {command, [options] { return runPreview(*options); }};
}

}  // namespace vexalive
