// `vexalive stream-id`: prints the id under which a member's stream is known, relayed and mixed.

#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>

#include "tools/Command.h"
#include "tools/ExitStatus.h"
#include "tools/Options.h"
#include "tools/mix/SentMix.h"

namespace vexalive {
namespace {

constexpr const char* kStreamIdDescription =
    "Print the stream id of a member of a room\n"
    "\n"
    "The id under which a member's stream is published, relayed and mixed. It follows\n"
    "from the biz id, the room and the user; nothing is sent.";

constexpr const char* kStreamIdFooter =
    "Example: publish as alice to a service that runs with --media\n"
    "  ffmpeg -re -i film.mp4 -c copy -f flv \\\n"
    "      rtmp://127.0.0.1:40311/live/$(vexalive stream-id --biz-id 3891 --room 4711 --user alice)\n"
    "\n"
    "Exit status: 0; 2 wrong usage.";

struct StreamIdOptions {
    explicit StreamIdOptions(CLI::App& command)
        : bizId(command, "--biz-id", "VEXALIVE_BIZ_ID", "the CDN biz id, an integer that is not 0"),
          room(command, "--room", "VEXALIVE_ROOM", "the room id"),
          user(command, "--user", "VEXALIVE_USER", "the user id") {}

    Setting bizId;
    Setting room;
    Setting user;
    bool isAuxiliary = false;
};

int runStreamId(const StreamIdOptions& options) {
    using Limits = std::numeric_limits<int32_t>;
    const auto bizId = static_cast<int32_t>(options.bizId.integer(Limits::min(), Limits::max()));
    std::printf("%s\n", streamId(bizId, options.room.text(), options.user.text(), options.isAuxiliary).c_str());
    return kSucceeded;
}

}  // namespace

Command addStreamIdCommand(CLI::App& tool) {
    CLI::App* command = tool.add_subcommand("stream-id", kStreamIdDescription);
    command->footer(kStreamIdFooter);
    const auto options = std::make_shared<StreamIdOptions>(*command);
    command->add_flag("--aux", options->isAuxiliary,
                      "Of the auxiliary stream, as of a shared screen; else of the main one");
    return {command, [options] { return runStreamId(*options); }};
}

}  // namespace vexalive
