// Checks a mix configuration before it is sent: what the adapter refuses, and what is probably unintended.

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
    std::string field;           // "mixUsersArray[2].zOrder"
    std::string message;         // "is 17: must be from 0 to 16"; contains no string of the configuration
    std::optional<size_t> user;  // the index in mixUsersArray if the diagnostic concerns one user
};

// All errors, not only the first one, which the adapter logs; then all warnings.
std::vector<MixDiagnostic> validateMix(const kstmedia::VexaTranscodingConfigInternal& config);

// Whether there is an error.
bool isRefused(const std::vector<MixDiagnostic>& diagnostics);

// "field mixUsersArray[2].zOrder is 17: must be from 0 to 16".
std::string describe(const MixDiagnostic& diagnostic);

}  // namespace vexalive

#endif
