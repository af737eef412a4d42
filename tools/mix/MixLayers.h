// The inputs of a mix in the order in which the adapter sends them, with their image layers.

#ifndef VEXALIVE_TOOLS_MIX_MIX_LAYERS_H
#define VEXALIVE_TOOLS_MIX_MIX_LAYERS_H

#include <cstddef>
#include <string>
#include <vector>

#include "params/VexaTranscodingConfigInternal.h"

namespace vexalive {

struct MixLayer {
    size_t index;  // in mixUsersArray
    int imageLayer;
    std::string streamId;
};

// Returns the lowest layer first. `room` is the local user's room.
std::vector<MixLayer> mixLayers(const kstmedia::VexaTranscodingConfigInternal& config, const std::string& room);

}  // namespace vexalive

#endif
