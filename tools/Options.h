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

// A required option; if it is not given, an environment variable supplies the value. The errors begin with its name.
class RequiredOption {
public:
    enum Secrecy { kPublic, kSecret };

    // Declares the option. `meaning` describes the value: "the CDN biz id, an integer other than 0". The strings are
    // literals. The help of a secret recommends the variable.
    RequiredOption(CLI::App& command, const char* name, const char* variable, const char* meaning,
                   Secrecy secrecy = kPublic);
    RequiredOption(const RequiredOption&) = delete;
    RequiredOption& operator=(const RequiredOption&) = delete;

    // Call after parsing. Fails if the value is missing or empty.
    Result<std::string> value() const;

    // The value as a decimal integer from `min` to `max`, but not 0. Not for secrets: an error shows the value.
    Result<int64_t> integer(int64_t min, int64_t max) const;

    const char* name() const { return mName; }

private:
    struct Source {
        std::string value;
        std::string name;  // the option's or the variable's
    };
    Result<Source> find() const;

    const char* mName;
    const char* mVariable;
    const char* mMeaning;
    std::string mValue;
    CLI::Option* mOption;
};

// Parses a decimal integer from `min` to `max`; std::nullopt for anything else.
std::optional<int64_t> readInteger(const std::string& text, int64_t min, int64_t max);

// "; did you mean --biz-id?"; empty if no candidate is similar.
std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates);

// "--app-id" and the like.
std::vector<std::string> longOptionNames(const CLI::App& app);

// The error for arguments that no option accepts. Set `isSecret` if they may be secrets: it then shows no values.
std::string describeExtras(const std::vector<std::string>& extras, const std::vector<std::string>& optionNames,
                           bool isSecret);

}  // namespace vexalive

#endif
