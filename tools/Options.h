// Command-line options: required values, integers, suggestions for misspelt names. The error messages name the option,
// its allowed values and its environment variable, and never show a secret.

#ifndef VEXALIVE_TOOLS_OPTIONS_H
#define VEXALIVE_TOOLS_OPTIONS_H

#include <CLI/App.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/Result.h"

namespace vexalive {

// A required option. If the option is not given, an environment variable supplies the value. Error messages begin with
// the name of the option.
class RequiredOption {
public:
    enum Secrecy { kPublic, kSecret };

    // Declares the option. `meaning` describes the value, for example "the CDN biz id, an integer other than 0". All
    // strings must be literals. The help of a secret option recommends the environment variable.
    RequiredOption(CLI::App& command, const char* name, const char* variable, const char* meaning,
                   Secrecy secrecy = kPublic);
    RequiredOption(const RequiredOption&) = delete;
    RequiredOption& operator=(const RequiredOption&) = delete;

    // Call after parsing. Fails if the value is missing or empty.
    Result<std::string> value() const;

    // Returns the value as a decimal integer from `min` to `max`, but not 0. Do not use it for secrets: the error
    // message shows the value.
    Result<int64_t> integer(int64_t min, int64_t max) const;

    const char* name() const { return mName; }

private:
    struct Source {
        std::string value;
        std::string name;  // of the option or of the environment variable
    };
    Result<Source> find() const;

    const char* mName;
    const char* mVariable;
    const char* mMeaning;
    std::string mValue;
    CLI::Option* mOption;
};

// Parses a decimal integer from `min` to `max`. Returns std::nullopt for any other string.
std::optional<int64_t> readInteger(const std::string& text, int64_t min, int64_t max);

// Returns a suggestion, for example "; did you mean --biz-id?", or "" if no candidate is similar to `word`.
std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates);

// Returns the names of all options of `app`, for example "--app-id".
std::vector<std::string> longOptionNames(const CLI::App& app);

// Returns the error message for arguments that no option accepts. If `isSecret`, the arguments may be secrets, and the
// message does not show them.
std::string describeExtras(const std::vector<std::string>& extras, const std::vector<std::string>& optionNames,
                           bool isSecret);

}  // namespace vexalive

#endif
