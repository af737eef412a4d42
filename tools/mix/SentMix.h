// What the adapter makes of a mix configuration when it sends it: the order of the inputs, their image layers and
// stream ids. Used by the preview.

#ifndef VEXALIVE_TOOLS_MIX_SENT_MIX_H
#define VEXALIVE_TOOLS_MIX_SENT_MIX_H

#include <cstddef>
#include <string>
#include <vector>

#include "params/VexaTranscodingConfigInternal.h"

namespace vexalive {

constexpr int32_t kAuxiliaryStream = 2;  // VexaMixUserInternal::streamType
constexpr size_t kMaxStreamName = 4094;  // bytes of "ROOM_USER_main" that count for a stream id

struct SentInput {
    size_t index;  // in mixUsersArray
    int imageLayer;
    std::string streamId;
};

// Whether nothing but audio is mixed: then there is no canvas.
bool isAudioOnly(const kstmedia::VexaTranscodingConfigInternal& config);

// In the order in which they are sent, the lowest layer first. `room` is the local user's.
std::vector<SentInput> sentInputs(const kstmedia::VexaTranscodingConfigInternal& config, const std::string& room);

// "<bizId>_<MD5 of ROOM_USER_main>", or "..._aux".
std::string streamId(int32_t bizId, const std::string& room, const std::string& user, bool isAuxiliary);

}  // namespace vexalive

#endif
