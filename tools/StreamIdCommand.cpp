// `vexalive stream-id`: prints the stream id of a room member.

#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>

#include "Com/LiveRequests.h"
#include "tools/Command.h"
#include "tools/ExitStatus.h"
#include "tools/Options.h"

namespace vexalive {
namespace {

constexpr const char* kStreamIdDescription =
    "Print the stream id of a room member\n"
    "\n"
    "Prints the id under which a room member's stream is published, relayed and\n"
    "mixed. The biz id, the room and the user determine it; nothing is sent.";

constexpr const char* kStreamIdFooter =
    "Example: publish as alice to a service that runs with --media\n"
    "  id=$(vexalive stream-id --biz-id 3891 --room 4711 --user alice)\n"
    "  ffmpeg -re -i film.mp4 -c copy -f flv rtmp://127.0.0.1:40311/live/$id\n"
    "\n"
    "Exit status: 0 success; 2 usage error.";

struct StreamIdOptions {
    explicit StreamIdOptions(CLI::App& command)
        : bizId(command, "--biz-id", "VEXALIVE_BIZ_ID", "the CDN biz id, an integer other than 0"),
          room(command, "--room", "VEXALIVE_ROOM", "the room id"),
          user(command, "--user", "VEXALIVE_USER", "the user id") {}

    RequiredOption bizId;
    RequiredOption room;
    RequiredOption user;
    bool isAuxiliary = false;
};

Result<int> runStreamId(const StreamIdOptions& options) {
    using Limits = std::numeric_limits<int32_t>;
    const auto bizId = options.bizId.integer(Limits::min(), Limits::max());
    const auto room = options.room.value();
    const auto user = options.user.value();
    if (!bizId || !room || !user) {
        return tl::unexpected(!bizId ? bizId.error() : !room ? room.error() : user.error());
    }
    std::puts(requests::streamId(static_cast<int32_t>(*bizId), *room, *user, !options.isAuxiliary).c_str());
    return kSucceeded;
}

}  // namespace

Command addStreamIdCommand(CLI::App& tool) {
    CLI::App* command = tool.add_subcommand("stream-id", kStreamIdDescription);
    command->footer(kStreamIdFooter);
    const auto options = std::make_shared<StreamIdOptions>(*command);
    command->add_flag("--aux", options->isAuxiliary,
                      "The id of the auxiliary stream (a shared screen) instead of the main stream");
    return {command, [options] { return runStreamId(*options); }};
}

}  // namespace vexalive
