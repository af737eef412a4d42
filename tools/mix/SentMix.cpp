#include "tools/mix/SentMix.h"

#include <algorithm>
#include <numeric>

#include "base/Md5.h"

namespace vexalive {
namespace {

// A zero byte ends a room or a user, as it does in the adapter.
std::string upToZero(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

}  // namespace

bool isAudioOnly(const kstmedia::VexaTranscodingConfigInternal& config) {
    return std::all_of(config.mixUsersArray.begin(), config.mixUsersArray.end(),
                       [](const kstmedia::VexaMixUserInternal& user) { return user.pureAudio; });
}

std::vector<SentInput> sentInputs(const kstmedia::VexaTranscodingConfigInternal& config, const std::string& room) {
    const auto& users = config.mixUsersArray;
    std::vector<size_t> order(users.size());
    std::iota(order.begin(), order.end(), size_t{0});
    int layer = 1;
    if (!isAudioOnly(config)) {
        ++layer;  // the canvas has the first
        std::stable_sort(order.begin(), order.end(),
                         [&users](size_t a, size_t b) { return users[a].zOrder < users[b].zOrder; });
    }
    std::vector<SentInput> inputs;
    for (const size_t index : order) {
        const kstmedia::VexaMixUserInternal& user = users[index];
        inputs.push_back({index, layer++,
                          streamId(config.bizId, user.roomId.empty() ? room : user.roomId, user.userId,
                                   user.streamType == kAuxiliaryStream)});
    }
    return inputs;
}

std::string streamId(int32_t bizId, const std::string& room, const std::string& user, bool isAuxiliary) {
    std::string name = upToZero(room) + "_" + upToZero(user) + (isAuxiliary ? "_aux" : "_main");
    name.resize(std::min(name.size(), kMaxStreamName));
    return std::to_string(bizId) + "_" + kstmedia::getMD5(name);
}

}  // namespace vexalive
