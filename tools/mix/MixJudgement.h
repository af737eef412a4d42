// Says beforehand whether the adapter refuses a mix configuration, and what in it is sent but hardly meant.

#ifndef VEXALIVE_TOOLS_MIX_MIX_JUDGEMENT_H
#define VEXALIVE_TOOLS_MIX_MIX_JUDGEMENT_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "params/VexaTranscodingConfigInternal.h"

namespace vexalive {

struct MixRemark {
    enum Kind { kRefusal, kWarning };
    Kind kind;
    std::string field;           // "mixUsersArray[2].zOrder"
    std::string text;            // "is 17: must be from 0 to 16"; holds no text of the configuration
    std::optional<size_t> user;  // the index in mixUsersArray, if the remark is about one
};

// All reasons for which LiveTranscodingAdapter::setLiveMixTranscoding would refuse, not only the first, which is the
// one it logs; then all warnings.
std::vector<MixRemark> judgeMix(const kstmedia::VexaTranscodingConfigInternal& config);

bool isRefused(const std::vector<MixRemark>& remarks);

std::string describe(const MixRemark& remark);

}  // namespace vexalive

#endif
