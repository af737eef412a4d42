#include "tools/mix/MixJudgement.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <tuple>
#include <utility>

#include "tools/mix/Area.h"
#include "tools/mix/SentMix.h"

namespace vexalive {
namespace {

using Config = kstmedia::VexaTranscodingConfigInternal;
using User = kstmedia::VexaMixUserInternal;

constexpr int32_t kHighestLayer = 16;

struct NumberField {
    const char* name;
    int32_t Config::*value;
};
constexpr NumberField kIds[] = {{"appId", &Config::appId}, {"bizId", &Config::bizId}};
constexpr NumberField kCanvasSize[] = {{"videoWidth", &Config::videoWidth}, {"videoHeight", &Config::videoHeight}};
constexpr NumberField kOutput[] = {
    {"videoBitrate", &Config::videoBitrate}, {"videoFramerate", &Config::videoFramerate},
    {"videoGOP", &Config::videoGOP},         {"audioSampleRate", &Config::audioSampleRate},
    {"audioBitrate", &Config::audioBitrate}, {"audioChannels", &Config::audioChannels},
};

std::string userField(size_t index, const char* name = nullptr) {
    return "mixUsersArray[" + std::to_string(index) + "]" + (name ? std::string(".") + name : "");
}

class Judge {
public:
    explicit Judge(const Config& config) : mConfig(config), mIsAudioOnly(isAudioOnly(config)) {}

    std::vector<MixRemark> judge() {
        refuseNumbers();
        refuseUsers();
        warnOfNumbers();
        warnOfNames();
        if (!mIsAudioOnly) {
            warnOfPlaces();
        }
        return std::move(mRemarks);
    }

private:
    void refuse(std::string field, std::string text) {
        mRemarks.push_back({MixRemark::kRefusal, std::move(field), std::move(text), std::nullopt});
    }
    void warn(std::string field, std::string text) {
        mRemarks.push_back({MixRemark::kWarning, std::move(field), std::move(text), std::nullopt});
    }
    void refuseUser(size_t index, const char* field, std::string text) {
        mRemarks.push_back({MixRemark::kRefusal, userField(index, field), std::move(text), index});
    }
    void warnOfUser(size_t index, const char* field, std::string text) {
        mRemarks.push_back({MixRemark::kWarning, userField(index, field), std::move(text), index});
    }

    void refuseNumbers() {
        for (const NumberField& field : kIds) {
            if (mConfig.*field.value == 0) {
                refuse(field.name, "is 0, which no id can be");
            }
        }
        if (mIsAudioOnly) {
            return;
        }
        for (const NumberField& field : kCanvasSize) {
            if (mConfig.*field.value == 0) {
                refuse(field.name, "is 0, which a mix with video cannot have");
            }
        }
        for (const NumberField& field : kOutput) {
            if (mConfig.*field.value == 0) {
                refuse(field.name, "is 0, which a mix with video cannot have; -1 leaves it to the service");
            }
        }
    }

    void refuseUsers() {
        const std::vector<User>& users = mConfig.mixUsersArray;
        if (users.empty()) {
            refuse("mixUsersArray", "is empty: a mix has at least one input");
        }
        if (mIsAudioOnly) {
            return;
        }
        std::map<int32_t, size_t> layers;  // and who has them
        for (size_t i = 0; i < users.size(); ++i) {
            const int32_t layer = users[i].zOrder;
            if (layer < 0 || layer > kHighestLayer) {
                refuseUser(i, "zOrder", "is " + std::to_string(layer) + ": must be from 0 to 16");
                mHasLayers = false;
            } else if (const auto [owner, isFree] = layers.emplace(layer, i); !isFree) {
                refuseUser(i, "zOrder",
                           "is " + std::to_string(layer) + ", which " + userField(owner->second) + " has already");
                mHasLayers = false;
            }
        }
    }

    void warnOfNumbers() {
        if (!mIsAudioOnly) {
            for (const NumberField& field : kCanvasSize) {
                if (mConfig.*field.value < 0) {
                    warn(field.name, "is " + std::to_string(mConfig.*field.value) +
                                         " and is sent so: the size of the canvas cannot be left to the service");
                }
            }
        }
        for (const NumberField& field : kOutput) {
            if (mConfig.*field.value < -1) {
                warn(field.name, "is " + std::to_string(mConfig.*field.value) +
                                     " and is sent so: only -1 leaves it to the service");
            }
        }
    }

    void warnOfNames() {
        const std::vector<User>& users = mConfig.mixUsersArray;
        std::map<std::tuple<std::string, std::string, bool>, size_t> streams;
        for (size_t i = 0; i < users.size(); ++i) {
            const User& user = users[i];
            if (user.userId.empty()) {
                warnOfUser(i, "userId", "is empty");
            }
            for (const auto& [name, text] : {std::pair("userId", &user.userId), std::pair("roomId", &user.roomId)}) {
                if (text->find('\0') != std::string::npos) {
                    warnOfUser(i, name, "has a zero character, at which it ends");
                }
            }
            if (user.roomId.size() + user.userId.size() + sizeof "__main" - 1 > kMaxStreamName) {
                warnOfUser(i, nullptr, "roomId and userId are so long that the stream id counts only their beginning");
            }
            const auto [first, isNew] =
                streams.emplace(std::tuple(user.roomId, user.userId, user.streamType == kAuxiliaryStream), i);
            if (!isNew) {
                warnOfUser(i, nullptr, "is the same stream as " + userField(first->second));
            }
        }
    }

    // Of what is drawn on the canvas.
    void warnOfPlaces() {
        const Area canvas{0, 0, mConfig.videoWidth, mConfig.videoHeight};
        const std::vector<SentInput> inputs = sentInputs(mConfig, "");
        std::vector<Area> higher;
        std::vector<MixRemark> found;  // the highest first
        for (auto input = inputs.rbegin(); input != inputs.rend(); ++input) {
            const User& user = mConfig.mixUsersArray[input->index];
            if (user.pureAudio) {
                continue;
            }
            const Area area = Area::of(user.rect);
            const std::string text = judgePlace(area, canvas, higher);
            if (!text.empty()) {
                found.push_back({MixRemark::kWarning, userField(input->index, "rect"), text, input->index});
            }
            // With the layers at fault it is not known who covers whom; with them right there are 17 at most.
            if (mHasLayers) {
                higher.push_back(area);
            }
        }
        mRemarks.insert(mRemarks.end(), found.rbegin(), found.rend());
    }

    static std::string judgePlace(const Area& area, const Area& canvas, const std::vector<Area>& higher) {
        const std::string size = std::to_string(area.width()) + " x " + std::to_string(area.height());
        if (area.isEmpty()) {
            return "has no area: its size is " + size;
        }
        if (canvas.isEmpty()) {
            return "";
        }
        const Area shown = common(area, canvas);
        if (shown.isEmpty()) {
            return "lies off the canvas";
        }
        if (visibleParts(shown, higher).empty()) {
            return "is hidden behind the layers above it";
        }
        return shown == area ? "" : "lies partly off the canvas";
    }

    const Config& mConfig;
    const bool mIsAudioOnly;
    bool mHasLayers = true;
    std::vector<MixRemark> mRemarks;
};

}  // namespace

std::vector<MixRemark> judgeMix(const Config& config) {
    return Judge(config).judge();
}

bool isRefused(const std::vector<MixRemark>& remarks) {
    return std::any_of(remarks.begin(), remarks.end(),
                       [](const MixRemark& remark) { return remark.kind == MixRemark::kRefusal; });
}

std::string describe(const MixRemark& remark) {
    return "field " + remark.field + " " + remark.text;
}

}  // namespace vexalive
