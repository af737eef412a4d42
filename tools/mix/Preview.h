// Draws a mix as the adapter would send it: the canvas, the inputs in their layers, and the diagnostics.

#ifndef VEXALIVE_TOOLS_MIX_PREVIEW_H
#define VEXALIVE_TOOLS_MIX_PREVIEW_H

#include <memory>
#include <string>
#include <vector>

#include "params/VexaTranscodingConfigInternal.h"
#include "tools/mix/Drawing.h"
#include "tools/mix/MixValidation.h"

namespace vexalive {

struct PreviewOptions {
    std::string title;  // the name of the mix file
    std::string room;   // the local user's room; also the room of inputs without a `roomId`
    std::string user;   // the local user; with the room, determines the stream id of the output
};

constexpr double kPreviewWidth = 1280;
constexpr double kPreviewMaxHeight = 1700;

// Draws any configuration, even one that the adapter would refuse. The size of the drawing is bounded. `diagnostics` is
// the result of validateMix().
std::unique_ptr<Drawing> drawPreview(const kstmedia::VexaTranscodingConfigInternal& config,
                                     const std::vector<MixDiagnostic>& diagnostics, const PreviewOptions& options);

}  // namespace vexalive

#endif
