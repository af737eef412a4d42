// `vexalive preview`: draws a mix file, and says what the adapter would refuse.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tools/Command.h"
#include "tools/ExitStatus.h"
#include "tools/Options.h"
#include "tools/Text.h"
#include "tools/mix/MixFile.h"
#include "tools/mix/MixJudgement.h"
#include "tools/mix/Preview.h"

namespace vexalive {
namespace {

constexpr size_t kMaxRemarks = 20;

constexpr const char* kPreviewDescription =
    "Draw a mix file as the adapter would send it\n"
    "\n"
    "Reads a mix configuration from a JSON file, draws the canvas with each input in\n"
    "its layer, and says what the adapter would refuse. Sends nothing.";

constexpr const char* kPreviewFooter =
    "The room and the user are those of the application that asks for the mix; they\n"
    "stand in the stream ids. Example:\n"
    "  vexalive preview examples/mix/two-side-by-side.json -o layout.svg\n"
    "\n"
    "Exit status: 0 the adapter would send it; 1 it would refuse it, which the picture\n"
    "shows; 2 the file has mistakes, wrong usage, or the picture cannot be written.";

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

void write(const std::string& path, const std::string& bytes) {
    errno = 0;
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    file.close();
    if (!file) {
        throw UsageError("-o is \"" + printable(path) + "\": cannot be written" +
                         (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
    }
}

int runPreview(const PreviewCommandOptions& options) {
    if (options.file.empty()) {
        throw UsageError("FILE is missing: a mix configuration in JSON");
    }
    if (options.output.empty()) {
        throw UsageError("-o is missing: the picture to write, a name that ends in .svg or .png");
    }
    const bool isPng = endsWith(options.output, ".png");
    if (!isPng && !endsWith(options.output, ".svg")) {
        throw UsageError("-o is \"" + printable(options.output) + "\": must end in .svg or .png");
    }
    const MixReading reading = readMixFile(options.file);
    if (!reading.mistakes.empty()) {
        for (const MixMistake& mistake : reading.mistakes) {
            std::fprintf(stderr, "%s\n", printable(describe(options.file, mistake)).c_str());
        }
        return kUsage;
    }

    const std::vector<MixRemark> remarks = judgeMix(reading.config);
    PreviewOptions preview;
    preview.title = fileName(options.file);
    preview.room = options.room;
    preview.user = options.user;
    if (preview.user.empty() && !reading.config.mixUsersArray.empty()) {
        preview.user = reading.config.mixUsersArray.front().userId;
    }
    const std::unique_ptr<Drawing> drawing = drawPreview(reading.config, remarks, preview);
    write(options.output, isPng ? drawing->png() : drawing->svg());

    const std::string file = printable(options.file);
    for (size_t i = 0; i < std::min(remarks.size(), kMaxRemarks); ++i) {
        std::fprintf(stderr, "%s: %s: %s\n", file.c_str(),
                     remarks[i].kind == MixRemark::kRefusal ? "refused" : "warning", describe(remarks[i]).c_str());
    }
    if (remarks.size() > kMaxRemarks) {
        std::fprintf(stderr, "%s: and %zu more\n", file.c_str(), remarks.size() - kMaxRemarks);
    }
    const bool refused = isRefused(remarks);
    std::printf("%s: %s\n", printable(options.output).c_str(),
                refused ? "drawn, but the adapter would refuse it" : "drawn; the adapter would send it");
    return refused ? kRefused : kSucceeded;
}

}  // namespace

Command addPreviewCommand(CLI::App& tool) {
    CLI::App* command = tool.add_subcommand("preview", kPreviewDescription);
    command->footer(kPreviewFooter);
    const auto options = std::make_shared<PreviewCommandOptions>();
    command->add_option("FILE", options->file, "The mix configuration (docs/mix-file.md tells the format)")
        ->type_name("");
    command->add_option("-o,--output", options->output, "The picture to write: a name in .svg or .png")
        ->type_name("PICTURE");
    command->add_option("--room", options->room, "The room of inputs that name none; or VEXALIVE_ROOM")
        ->type_name("VALUE")
        ->envname("VEXALIVE_ROOM")
        ->default_val("room");
    command
        ->add_option("--user", options->user, "The user who asks for the mix; or VEXALIVE_USER; else the first input")
        ->type_name("VALUE")
        ->envname("VEXALIVE_USER");
    return {command, [options] { return runPreview(*options); }};
}

}  // namespace vexalive
