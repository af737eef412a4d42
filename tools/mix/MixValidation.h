// Checks a mix configuration before it is sent. An error is a value that the adapter refuses; a warning is a value that
// is probably unintended.

#ifndef VEXALIVE_TOOLS_MIX_MIX_VALIDATION_H
#define VEXALIVE_TOOLS_MIX_MIX_VALIDATION_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "params/VexaTranscodingConfigInternal.h"

namespace vexalive {

struct MixDiagnostic {
    enum Severity { kError, kWarning };  // kError: the adapter refuses the mix
    Severity severity;
    std::string field;           // for example "mixUsersArray[2].zOrder"
    std::string message;         // for example "is 17: must be from 0 to 16"; quotes no string of the file
    std::optional<size_t> user;  // the index in mixUsersArray if the diagnostic concerns one user
};

// Returns all errors, then all warnings. The adapter logs the first error only.
std::vector<MixDiagnostic> validateMix(const kstmedia::VexaTranscodingConfigInternal& config);

// Whether one of the diagnostics is an error.
bool isRefused(const std::vector<MixDiagnostic>& diagnostics);

// Returns, for example, "field mixUsersArray[2].zOrder is 17: must be from 0 to 16".
std::string describe(const MixDiagnostic& diagnostic);

}  // namespace vexalive

#endif
