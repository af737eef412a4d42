#include "tools/Options.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <numeric>

#include "tools/Text.h"

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

Setting::Setting(CLI::App& command, const char* option, const char* variable, const char* meaning, Secrecy secrecy)
    : mOption(option), mVariable(variable), mMeaning(meaning) {
    std::string help = meaning;
    help[0] = static_cast<char>(std::toupper(help[0]));
    help += secrecy == kSecret ? "; better as " : "; or ";
    mParsed = command.add_option(option, mValue, help + variable)->type_name("VALUE");
}

Setting::Found Setting::find() const {
    if (mParsed->count() > 0) {
        if (mValue.empty()) {
            throw UsageError(std::string(mOption) + " is empty: must be " + mMeaning + " (or " + mVariable + ")");
        }
        return {mValue, mOption};
    }
    const char* value = std::getenv(mVariable);
    if (!value || !*value) {
        throw UsageError(std::string(mOption) + " is missing: " + mMeaning + " (or " + mVariable + ")");
    }
    return {value, mVariable};
}

std::string Setting::text() const {
    return find().value;
}

int64_t Setting::integer(int64_t lowest, int64_t highest) const {
    const Found found = find();
    const std::optional<int64_t> number = readInteger(found.value, lowest, highest);
    if (!number || *number == 0) {
        throw UsageError((found.source == mOption ? mOption : mOption + (" (from " + found.source + ")")) + " is \"" +
                         printable(found.value) + "\": must be " + mMeaning + ", from " + std::to_string(lowest) +
                         " to " + std::to_string(highest));
    }
    return *number;
}

std::optional<int64_t> readInteger(const std::string& text, int64_t lowest, int64_t highest) {
    int64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number);
    const bool isRead = failure == std::errc() && stop == end && number >= lowest && number <= highest;
    return isRead ? std::optional(number) : std::nullopt;
}

std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates) {
    std::string nearest;
    size_t distance = std::max<size_t>(2, word.size() / 3) + 1;  // further off is no suggestion
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

std::string describeExtras(const std::vector<std::string>& extras, const std::vector<std::string>& known) {
    const auto option = std::find_if(extras.begin(), extras.end(),
                                     [](const std::string& text) { return text.size() > 1 && text.front() == '-'; });
    if (option == extras.end()) {
        return "too many arguments, by " + std::to_string(extras.size()) + "; does a text with blanks lack its quotes?";
    }
    const std::string name = option->substr(0, option->find('='));
    const auto glued = std::find_if(known.begin(), known.end(), [&name](const std::string& candidate) {
        return name.size() > candidate.size() && name.compare(0, candidate.size(), candidate) == 0;
    });
    if (glued != known.end()) {
        return "there is no option " + *glued + "...; did you mean " + *glued + " and a value after a blank?";
    }
    return "there is no option " + name + didYouMean(name, known);
}

}  // namespace vexalive
