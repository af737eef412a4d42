// Reads a mix configuration from a file: JSON with the records' own field names (docs/mix-file.md).
//
// Strict: whatever is not exactly what the format says is told with its place, all mistakes in one go; text that is not
// JSON is told alone. Used by the commands that work on mix files.

#ifndef VEXALIVE_TOOLS_MIX_MIX_FILE_H
#define VEXALIVE_TOOLS_MIX_MIX_FILE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "params/VexaTranscodingConfigInternal.h"

namespace vexalive {

constexpr size_t kMaxMixFile = 1 << 20;  // bytes
constexpr size_t kMaxMixMistakes = 20;   // told each; of the others it is told how many there are

struct MixMistake {
    size_t line = 0;    // from 1; 0: of the file as a whole
    size_t column = 0;  // from 1, in characters
    std::string field;  // "mixUsersArray[2].rect.w"; empty: of no field
    std::string text;   // "expected …, found …"; may quote the file
};

struct MixReading {
    kstmedia::VexaTranscodingConfigInternal config;
    std::vector<MixMistake> mistakes;  // in the order of the file; if there are any, `config` means nothing
};

// Any text is taken, of any length.
MixReading readMix(std::string_view text) noexcept;

MixReading readMixFile(const std::string& path) noexcept;

// "FILE:LINE:COLUMN: field mixUsersArray[2].rect.w: expected …, found …". Not yet fit for a terminal: printable() it.
std::string describe(const std::string& file, const MixMistake& mistake);

}  // namespace vexalive

#endif
