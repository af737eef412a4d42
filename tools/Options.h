// What the commands share in reading their options: errors that name the option, say what it should be and where it can
// come from, and never show a secret.

#ifndef VEXALIVE_TOOLS_OPTIONS_H
#define VEXALIVE_TOOLS_OPTIONS_H

#include <CLI/App.hpp>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vexalive {

// An option is missing or wrong; the text is for the user and begins with the option's name.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A required option that may come from an environment variable instead; the option wins.
class Setting {
public:
    enum Secrecy { kOpen, kSecret };

    // Declares the option. `meaning` says what the value should be: "the CDN biz id, an integer that is not 0". The
    // texts are literals. For a secret, the help advises the variable.
    Setting(CLI::App& command, const char* option, const char* variable, const char* meaning, Secrecy secrecy = kOpen);
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

    // The value, after parsing. UsageError if there is none or it is empty.
    std::string text() const;

    // The same as a decimal integer from `lowest` to `highest`, but never 0. Not for secrets: a wrong value is shown.
    int64_t integer(int64_t lowest, int64_t highest) const;

    const char* option() const { return mOption; }

private:
    struct Found {
        std::string value;
        std::string source;  // the option's or the variable's name
    };
    Found find() const;

    const char* mOption;
    const char* mVariable;
    const char* mMeaning;
    std::string mValue;
    CLI::Option* mParsed;
};

// A decimal integer in the range, or nothing.
std::optional<int64_t> readInteger(const std::string& text, int64_t lowest, int64_t highest);

// "; did you mean --biz-id?", or nothing if no candidate is near.
std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates);

// "--app-id" and the like.
std::vector<std::string> longOptionNames(const CLI::App& app);

// Tells of arguments that belong to no option. Shows no values: they may be a secret whose option was misspelt.
std::string describeExtras(const std::vector<std::string>& extras, const std::vector<std::string>& known);

}  // namespace vexalive

#endif
