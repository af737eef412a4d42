// A picture of a mix as the adapter would send it: the canvas to scale, each input in its layer, and what the adapter
// would refuse. Used by the `preview` command.

#ifndef VEXALIVE_TOOLS_MIX_PREVIEW_H
#define VEXALIVE_TOOLS_MIX_PREVIEW_H

#include <memory>
#include <string>
#include <vector>

#include "params/VexaTranscodingConfigInternal.h"
#include "tools/mix/Drawing.h"
#include "tools/mix/MixJudgement.h"

namespace vexalive {

struct PreviewOptions {
    std::string title;  // what the configuration was read from
    std::string room;   // the local user's, which the inputs of no room are in
    std::string user;   // the local user, whose stream id the output gets
};

constexpr double kPreviewWidth = 1280;
constexpr double kPreviewTallest = 1700;

// Any configuration is drawn, refused ones too; the picture's size is bounded. `remarks` are judgeMix()'s.
std::unique_ptr<Drawing> drawPreview(const kstmedia::VexaTranscodingConfigInternal& config,
                                     const std::vector<MixRemark>& remarks, const PreviewOptions& options);

}  // namespace vexalive

#endif
