#include "tools/Options.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <numeric>

#include "common/Text.h"

namespace vexalive {
namespace {

size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

RequiredOption::RequiredOption(CLI::App& command, const char* name, const char* variable, const char* meaning,
                               Secrecy secrecy)
    : mName(name), mVariable(variable), mMeaning(meaning) {
    std::string help = meaning;
    help[0] = static_cast<char>(std::toupper(help[0]));
    help += secrecy == kSecret ? "; better set as " : "; or ";
    mOption = command.add_option(name, mValue, help + variable)->type_name("VALUE");
}

Result<RequiredOption::Source> RequiredOption::find() const {
    if (mOption->count() > 0) {
        if (mValue.empty()) {
            return failure(std::string(mName) + " is empty: must be " + mMeaning + " (or " + mVariable + ")");
        }
        return Source{mValue, mName};
    }
    const char* value = std::getenv(mVariable);
    if (!value || !*value) {
        return failure(std::string(mName) + " is missing: must be " + mMeaning + " (or " + mVariable + ")");
    }
    return Source{value, mVariable};
}

Result<std::string> RequiredOption::value() const {
    return find().map([](const Source& source) { return source.value; });
}

Result<int64_t> RequiredOption::integer(int64_t min, int64_t max) const {
    return find().and_then([&](const Source& source) -> Result<int64_t> {
        const std::optional<int64_t> number = readInteger(source.value, min, max);
        if (number && *number != 0) {
            return *number;
        }
        return failure((source.name == mName ? source.name : mName + (" (from " + source.name + ")")) + " is \"" +
                       printable(source.value) + "\": must be " + mMeaning + ", from " + std::to_string(min) + " to " +
                       std::to_string(max));
    });
}

std::optional<int64_t> readInteger(const std::string& text, int64_t min, int64_t max) {
    int64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const bool isValid = error == std::errc() && stop == end && number >= min && number <= max;
    return isValid ? std::optional(number) : std::nullopt;
}

std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates) {
    std::string nearest;
    // The smallest edit distance so far. Candidates whose distance is not below the initial value are too different.
    size_t distance = std::max<size_t>(2, word.size() / 3) + 1;
    for (const std::string& candidate : candidates) {
        const size_t next = editDistance(word, candidate);
        if (next < distance) {
            nearest = candidate;
            distance = next;
        }
    }
    return nearest.empty() ? "" : "; did you mean " + nearest + "?";
}

std::vector<std::string> longOptionNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

std::string describeExtras(const std::vector<std::string>& extras, const std::vector<std::string>& optionNames,
                           bool isSecret) {
    const auto option = std::find_if(extras.begin(), extras.end(), [](const std::string& argument) {
        return argument.size() > 1 && argument.front() == '-';
    });
    if (option == extras.end()) {
        std::string error = std::to_string(extras.size()) + " unexpected argument" + (extras.size() == 1 ? "" : "s");
        for (size_t i = 0; i < extras.size() && !isSecret; ++i) {
            error += (i == 0 ? ": " : ", ") + printable(extras[i]);
        }
        return error + ". Quote values that contain spaces.";
    }
    const std::string name = option->substr(0, option->find('='));
    const auto prefix = std::find_if(optionNames.begin(), optionNames.end(), [&name](const std::string& candidate) {
        return name.size() > candidate.size() && name.compare(0, candidate.size(), candidate) == 0;
    });
    if (prefix != optionNames.end()) {
        return "unknown option " + *prefix + "...; put a space between " + *prefix + " and its value";
    }
    return "unknown option " + name + didYouMean(name, optionNames);
}

}  // namespace vexalive
