// Reads a mix configuration from a JSON file with the field names of the records (docs/mix-file.md).
//
// The reader is strict: it reports every deviation from the format with its line and column. If the file is not JSON,
// it reports the first syntax error only.

#ifndef VEXALIVE_TOOLS_MIX_MIX_FILE_H
#define VEXALIVE_TOOLS_MIX_MIX_FILE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "common/Result.h"
#include "params/VexaTranscodingConfigInternal.h"

namespace vexalive {

constexpr size_t kMaxMixFile = 1 << 20;   // bytes
constexpr size_t kMaxMixFileErrors = 20;  // further errors are omitted; the last element states their number

struct MixFileError {
    size_t line = 0;      // from 1; 0: the error concerns the whole file
    size_t column = 0;    // from 1, in characters
    std::string field;    // for example "mixUsersArray[2].rect.w"; empty: no field
    std::string message;  // "expected …, found …"; may quote the file
};

// A failed result has at least one error. The errors are in the order of the file.
using MixFileResult = Result<kstmedia::VexaTranscodingConfigInternal, std::vector<MixFileError>>;

// `text` may contain any bytes and may have any length.
MixFileResult readMix(std::string_view text) noexcept;

MixFileResult readMixFile(const std::string& path) noexcept;

// Returns "FILE:LINE:COLUMN: field mixUsersArray[2].rect.w: expected …, found …". The string may contain control
// characters: pass it through printable() before you show it.
std::string describe(const std::string& file, const MixFileError& error);

}  // namespace vexalive

#endif
