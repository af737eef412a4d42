#include "tools/mix/MixLayers.h"

#include <algorithm>
#include <numeric>

#include "Com/LiveRequests.h"

namespace vexalive {

std::vector<MixLayer> mixLayers(const kstmedia::VexaTranscodingConfigInternal& config, const std::string& room) {
    const auto& users = config.mixUsersArray;
    const bool isPureAudio = requests::isPureAudio(users);
    std::vector<size_t> order(users.size());
    std::iota(order.begin(), order.end(), size_t{0});
    if (!isPureAudio) {
        std::stable_sort(order.begin(), order.end(),
                         [&users](size_t a, size_t b) { return users[a].zOrder < users[b].zOrder; });
    }
    const requests::Sender sender = {config.bizId, room, ""};
    std::vector<MixLayer> layers;
    for (const size_t index : order) {
        const int imageLayer = requests::firstUserLayer(isPureAudio) + static_cast<int>(layers.size());
        layers.push_back({index, imageLayer, requests::streamId(sender, users[index])});
    }
    return layers;
}

}  // namespace vexalive
