#include "tools/mix/MixValidation.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <tuple>
#include <utility>

#include "Com/LiveRequests.h"
#include "tools/mix/Area.h"
#include "tools/mix/MixLayers.h"

namespace vexalive {
namespace {

using Config = kstmedia::VexaTranscodingConfigInternal;
using User = kstmedia::VexaMixUserInternal;

using requests::ConfigField;

std::string userField(size_t index, const char* name = nullptr) {
    return "mixUsersArray[" + std::to_string(index) + "]" + (name ? std::string(".") + name : "");
}

class Validator {
public:
    explicit Validator(const Config& config)
        : mConfig(config), mIsPureAudio(requests::isPureAudio(config.mixUsersArray)) {}

    std::vector<MixDiagnostic> validate() {
        checkForZeros();
        checkUsers();
        warnOfNumbers();
        warnOfNames();
        if (!mIsPureAudio) {
            warnOfRectangles();
        }
        return std::move(mDiagnostics);
    }

private:
    void add(MixDiagnostic::Severity severity, std::string field, std::string message) {
        mDiagnostics.push_back({severity, std::move(field), std::move(message), std::nullopt});
    }
    void addForUser(MixDiagnostic::Severity severity, size_t index, const char* field, std::string message) {
        mDiagnostics.push_back({severity, userField(index, field), std::move(message), index});
    }

    void checkForZeros() {
        for (const ConfigField& field : requests::kConfigFields) {
            if (mConfig.*field.value != 0) {
                continue;
            }
            if (field.use == ConfigField::kId) {
                add(MixDiagnostic::kError, field.name, "is 0: must not be 0");
            } else if (!mIsPureAudio) {
                add(MixDiagnostic::kError, field.name,
                    std::string("is 0: must not be 0 in a mix with video") +
                        (field.use == ConfigField::kOutput ? "; -1 leaves it to the service" : ""));
            }
        }
    }

    void checkUsers() {
        const std::vector<User>& users = mConfig.mixUsersArray;
        if (users.empty()) {
            add(MixDiagnostic::kError, "mixUsersArray", "is empty: must have at least one input");
        }
        if (mIsPureAudio) {
            return;
        }
        std::map<int32_t, size_t> userOfLayer;
        for (size_t i = 0; i < users.size(); ++i) {
            const int32_t layer = users[i].zOrder;
            if (layer < 0 || layer > requests::kMaxLayer) {
                addForUser(
                    MixDiagnostic::kError, i, "zOrder",
                    "is " + std::to_string(layer) + ": must be from 0 to " + std::to_string(requests::kMaxLayer));
                mHasValidLayers = false;
            } else if (const auto [other, isFree] = userOfLayer.emplace(layer, i); !isFree) {
                addForUser(MixDiagnostic::kError, i, "zOrder",
                           "is " + std::to_string(layer) + ", the same as that of " + userField(other->second));
                mHasValidLayers = false;
            }
        }
    }

    void warnOfNumbers() {
        for (const ConfigField& field : requests::kConfigFields) {
            const int32_t value = mConfig.*field.value;
            if (field.use == ConfigField::kCanvasSize && !mIsPureAudio && value < 0) {
                add(MixDiagnostic::kWarning, field.name,
                    "is " + std::to_string(value) + " and is sent as it is: the canvas needs a size");
            } else if (field.use == ConfigField::kOutput && value < requests::kNotSet) {
                add(MixDiagnostic::kWarning, field.name,
                    "is " + std::to_string(value) + " and is sent as it is: only -1 leaves it to the service");
            }
        }
    }

    void warnOfNames() {
        const std::vector<User>& users = mConfig.mixUsersArray;
        std::map<std::tuple<std::string, std::string, bool>, size_t> streams;
        for (size_t i = 0; i < users.size(); ++i) {
            const User& user = users[i];
            if (user.userId.empty()) {
                addForUser(MixDiagnostic::kWarning, i, "userId", "is empty");
            }
            for (const auto& [field, name] : {std::pair("userId", &user.userId), std::pair("roomId", &user.roomId)}) {
                if (name->find('\0') != std::string::npos) {
                    addForUser(MixDiagnostic::kWarning, i, field, "is cut at its zero character");
                }
            }
            if (user.roomId.size() + user.userId.size() + sizeof "__main" - 1 > requests::kMaxStreamName) {
                addForUser(MixDiagnostic::kWarning, i, nullptr,
                           "roomId and userId are too long: the stream id depends on their beginning only");
            }
            const bool isAuxiliary = user.streamType == requests::kAuxiliaryStream;
            const auto [first, isNew] = streams.emplace(std::tuple(user.roomId, user.userId, isAuxiliary), i);
            if (!isNew) {
                addForUser(MixDiagnostic::kWarning, i, nullptr, "is the same stream as " + userField(first->second));
            }
        }
    }

    void warnOfRectangles() {
        const Area canvas{0, 0, mConfig.videoWidth, mConfig.videoHeight};
        const std::vector<MixLayer> layers = mixLayers(mConfig, "");
        std::vector<Area> higher;
        std::vector<MixDiagnostic> found;  // of the highest layer first
        for (auto layer = layers.rbegin(); layer != layers.rend(); ++layer) {
            const User& user = mConfig.mixUsersArray[layer->index];
            if (user.pureAudio) {
                continue;
            }
            const Area area = Area::of(user.rect);
            const std::string warning = rectangleWarning(area, canvas, higher);
            if (!warning.empty()) {
                found.push_back({MixDiagnostic::kWarning, userField(layer->index, "rect"), warning, layer->index});
            }
            // Inputs with invalid layers have no order. There are at most 17 valid layers, which bounds the work of
            // visibleParts().
            if (mHasValidLayers) {
                higher.push_back(area);
            }
        }
        mDiagnostics.insert(mDiagnostics.end(), found.rbegin(), found.rend());
    }

    // Returns "" if there is no warning.
    static std::string rectangleWarning(const Area& area, const Area& canvas, const std::vector<Area>& higher) {
        if (area.isEmpty()) {
            return "has no area: its size is " + std::to_string(area.width()) + " x " + std::to_string(area.height());
        }
        if (canvas.isEmpty()) {
            return "";
        }
        const Area shown = intersection(area, canvas);
        if (shown.isEmpty()) {
            return "lies outside the canvas";
        }
        if (visibleParts(shown, higher).empty()) {
            return "is hidden behind the layers above it";
        }
        return shown == area ? "" : "lies partly outside the canvas";
    }

    const Config& mConfig;
    const bool mIsPureAudio;
    bool mHasValidLayers = true;
    std::vector<MixDiagnostic> mDiagnostics;
};

}  // namespace

std::vector<MixDiagnostic> validateMix(const Config& config) {
    return Validator(config).validate();
}

bool isRefused(const std::vector<MixDiagnostic>& diagnostics) {
    return std::any_of(diagnostics.begin(), diagnostics.end(),
                       [](const MixDiagnostic& diagnostic) { return diagnostic.severity == MixDiagnostic::kError; });
}

std::string describe(const MixDiagnostic& diagnostic) {
    return "field " + diagnostic.field + " " + diagnostic.message;
}

}  // namespace vexalive
