#include "tools/mix/MixFile.h"

#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

#include "common/Text.h"

namespace vexalive {
namespace {

using Config = kstmedia::VexaTranscodingConfigInternal;
using User = kstmedia::VexaMixUserInternal;
using Rect = User::Rect;

// ---- The format -----------------------------------------------------------------------------------------------------

// A pointer to the member of the record that a field sets. The type of the member determines the JSON type.
template <class Record>
using Slot =
    std::variant<int32_t Record::*, bool Record::*, std::string Record::*, Rect Record::*, std::vector<User> Record::*>;

// Whether a field is required. If an optional field is omitted, the record keeps its default.
enum Need { kOptional, kRequired, kUnlessPureAudio };

template <class Record>
struct Field {
    std::string_view name;
    Need need;
    Slot<Record> slot;
};

constexpr Field<Config> kConfigFields[] = {
    {"mode", kOptional, &Config::mode},
    {"appId", kRequired, &Config::appId},
    {"bizId", kRequired, &Config::bizId},
    {"videoWidth", kOptional, &Config::videoWidth},
    {"videoHeight", kOptional, &Config::videoHeight},
    {"videoBitrate", kOptional, &Config::videoBitrate},
    {"videoFramerate", kOptional, &Config::videoFramerate},
    {"videoGOP", kOptional, &Config::videoGOP},
    {"audioSampleRate", kOptional, &Config::audioSampleRate},
    {"audioBitrate", kOptional, &Config::audioBitrate},
    {"audioChannels", kOptional, &Config::audioChannels},
    {"mixUsersArray", kRequired, &Config::mixUsersArray},
};
constexpr Field<User> kUserFields[] = {
    {"userId", kRequired, &User::userId},       {"roomId", kOptional, &User::roomId},
    {"rect", kUnlessPureAudio, &User::rect},    {"zOrder", kOptional, &User::zOrder},
    {"pureAudio", kOptional, &User::pureAudio}, {"streamType", kOptional, &User::streamType},
};
constexpr Field<Rect> kRectFields[] = {
    {"x", kRequired, &Rect::x},
    {"y", kRequired, &Rect::y},
    {"w", kRequired, &Rect::w},
    {"h", kRequired, &Rect::h},
};

constexpr const char* kInteger = "an integer from -2147483648 to 2147483647";
constexpr size_t kMaxDepth = 64;  // maximum depth of nested objects and lists
constexpr size_t kMaxQuote = 40;  // maximum number of bytes of the file that an error message quotes

// ---- JSON, with the position of each value --------------------------------------------------------------------------

// A JSON value. The views point into the parsed text.
struct Value {
    enum Kind { kNull, kFalse, kTrue, kNumber, kString, kObject, kList };
    Kind kind;
    std::string_view source;      // the token of the value; of an object or a list, the opening bracket
    std::string_view nameSource;  // the token of the name, with quotes, if the value is a member of an object
    std::string name;             // the name, unescaped
    std::string string;           // the content of a string, unescaped
    std::vector<Value> children;  // the members of an object, or the elements of a list
};

// A handler for RapidJSON, which calls the public functions. If one of them returns false, parsing ends.
class TreeBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, TreeBuilder> {
public:
    TreeBuilder(std::string_view text, const rapidjson::MemoryStream& stream) : mText(text), mStream(stream) {}

    Value& root() { return mRoot.children.front(); }

    bool Null() { return add(Value::kNull); }
    bool Bool(bool value) { return add(value ? Value::kTrue : Value::kFalse); }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return add(Value::kNumber); }
    bool String(const char* text, rapidjson::SizeType length, bool) {
        add(Value::kString);
        mOpen.back()->children.back().string.assign(text, length);
        return true;
    }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        mName.assign(text, length);
        mNameSource = token();
        return true;
    }
    bool StartObject() { return open(Value::kObject); }
    bool StartArray() { return open(Value::kList); }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool EndArray(rapidjson::SizeType) { return close(); }

private:
    // The parser reports where a token ends, not where it begins. Only spaces, commas and colons precede a token.
    std::string_view token() {
        const size_t begin = mText.find_first_not_of(" \t\r\n,:", mEnd);
        mEnd = mStream.Tell();
        return mText.substr(begin, mEnd - begin);
    }
    bool add(Value::Kind kind) {
        mOpen.back()->children.push_back({kind, token(), mNameSource, mName, {}, {}});
        return true;
    }
    bool open(Value::Kind kind) {
        add(kind);
        mOpen.push_back(&mOpen.back()->children.back());  // the pointer stays valid: no sibling is added before close()
        return mOpen.size() <= kMaxDepth + 1;
    }
    bool close() {
        token();
        mOpen.pop_back();
        return true;
    }

    const std::string_view mText;
    const rapidjson::MemoryStream& mStream;
    size_t mEnd = 0;  // end of the last token
    std::string mName;
    std::string_view mNameSource;
    Value mRoot{Value::kList, {}, {}, {}, {}, {}};  // its only child is the parsed value
    std::vector<Value*> mOpen{&mRoot};
};

constexpr struct {
    rapidjson::ParseErrorCode code;
    const char* text;
} kSyntaxErrors[] = {
    {rapidjson::kParseErrorDocumentEmpty, "the file is empty"},
    {rapidjson::kParseErrorDocumentRootNotSingular, "expected the end of the file"},
    {rapidjson::kParseErrorValueInvalid, "expected a value"},
    {rapidjson::kParseErrorObjectMissName, "expected the name of a field, in quotes"},
    {rapidjson::kParseErrorObjectMissColon, "expected \":\" after the name of a field"},
    {rapidjson::kParseErrorObjectMissCommaOrCurlyBracket, "expected \",\" or \"}\" after a field"},
    {rapidjson::kParseErrorArrayMissCommaOrSquareBracket, "expected \",\" or \"]\" after an element"},
    {rapidjson::kParseErrorStringUnicodeEscapeInvalidHex, "expected four hexadecimal digits after \"\\u\""},
    {rapidjson::kParseErrorStringUnicodeSurrogateInvalid, "incomplete surrogate pair"},
    {rapidjson::kParseErrorStringEscapeInvalid,
     "invalid escape or control character in a string; write a line break as \\n"},
    {rapidjson::kParseErrorStringMissQuotationMark, "string without its closing quote"},
    {rapidjson::kParseErrorStringInvalidEncoding, "a string is not UTF-8"},
    {rapidjson::kParseErrorNumberMissFraction, "expected a digit"},
    {rapidjson::kParseErrorNumberMissExponent, "expected a digit"},
};

// ---- From JSON to the records ---------------------------------------------------------------------------------------

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

std::string excerpt(std::string_view text) {
    const std::string_view prefix = utf8Prefix(text, kMaxQuote);
    return std::string(prefix) + (prefix.size() < text.size() ? "..." : "");
}

// Accepts every notation of an integer: 1280, 1280.0, 128e1.
std::optional<int32_t> readInteger(std::string_view number) {
    double value = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
    const bool isInteger = error == std::errc() && value >= std::numeric_limits<int32_t>::min() &&
                           value <= std::numeric_limits<int32_t>::max() && std::trunc(value) == value;
    return isInteger ? std::optional(static_cast<int32_t>(value)) : std::nullopt;
}

// The parser accepts a lone low surrogate such as \udc00 and encodes it as bytes that are not UTF-8: in UTF-8 the byte
// after 0xed is at most 0x9f.
bool hasLoneSurrogate(const std::string& text) {
    for (size_t at = text.find('\xed'); at != std::string::npos; at = text.find('\xed', at + 1)) {
        if (static_cast<unsigned char>(text[at + 1]) >= 0xa0) {
            return true;
        }
    }
    return false;
}

template <class Record, size_t N>
std::string namesOf(const Field<Record> (&fields)[N]) {
    std::string names;
    for (size_t i = 0; i < N; ++i) {
        names += (i == 0 ? "" : i + 1 == N ? " and " : ", ") + std::string(fields[i].name);
    }
    return names;
}

template <class Record>
bool isNeeded(Need need, const Record&) {
    return need == kRequired;
}
bool isNeeded(Need need, const User& user) {
    return need == kRequired || (need == kUnlessPureAudio && !user.pureAudio);
}

class MixReader {
public:
    explicit MixReader(std::string_view text) : mText(text) {}

    MixFileResult read() {
        rapidjson::MemoryStream stream(mText.data(), mText.size());
        TreeBuilder builder(mText, stream);
        // The parser is recursive; the builder limits its depth.
        constexpr unsigned kFlags = rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag;
        const rapidjson::ParseResult parsed = rapidjson::Reader().Parse<kFlags>(stream, builder);
        if (parsed.IsError()) {
            addSyntaxError(parsed.Code(), std::min(parsed.Offset(), mText.size()));
        } else if (stream.Tell() < mText.size()) {
            addError(stream.Tell(), "", "not JSON: zero byte");
        } else {
            readRecord(builder.root(), "", kConfigFields, mConfig, "an object with the fields of a mix configuration");
        }
        return result();
    }

private:
    struct Error {
        size_t offset;
        std::string field;
        std::string message;
    };

    template <class Record, size_t N>
    void readRecord(const Value& value, const std::string& path, const Field<Record> (&fields)[N], Record& record,
                    const char* expected) {
        if (value.kind != Value::kObject) {
            reject(value, path, expected);
            return;
        }
        const std::string prefix = path.empty() ? "" : path + ".";
        std::array<bool, N> isGiven{};
        for (const Value& member : value.children) {
            const auto* field = std::find_if(std::begin(fields), std::end(fields), [&member](const auto& candidate) {
                return candidate.name == member.name;
            });
            if (field == std::end(fields)) {
                const std::string_view name = member.nameSource.substr(1, member.nameSource.size() - 2);
                addError(offsetOf(member.nameSource), prefix + excerpt(name),
                         "unknown field; allowed are " + namesOf(fields));
            } else if (std::exchange(isGiven[static_cast<size_t>(field - fields)], true)) {
                addError(offsetOf(member.nameSource), prefix + member.name, "appears twice");
            } else {
                std::visit([&](auto slot) { readValue(member, prefix + member.name, record.*slot); }, field->slot);
            }
        }
        for (size_t i = 0; i < N; ++i) {
            if (!isGiven[i] && isNeeded(fields[i].need, record)) {
                addError(offsetOf(value.source), prefix + std::string(fields[i].name), "is missing");
            }
        }
    }

    void readValue(const Value& value, const std::string& path, int32_t& number) {
        const auto integer = value.kind == Value::kNumber ? readInteger(value.source) : std::nullopt;
        if (!integer) {
            reject(value, path, kInteger);
        }
        number = integer.value_or(0);
    }

    void readValue(const Value& value, const std::string& path, bool& flag) {
        if (value.kind != Value::kTrue && value.kind != Value::kFalse) {
            reject(value, path, "true or false");
        }
        flag = value.kind == Value::kTrue;
    }

    void readValue(const Value& value, const std::string& path, std::string& string) {
        if (value.kind != Value::kString || hasLoneSurrogate(value.string)) {
            reject(value, path, value.kind == Value::kString ? "a string without a lone surrogate" : "a string");
        }
        string = value.string;
    }

    void readValue(const Value& value, const std::string& path, Rect& rect) {
        readRecord(value, path, kRectFields, rect, "an object with x, y, w and h");
    }

    void readValue(const Value& value, const std::string& path, std::vector<User>& users) {
        if (value.kind != Value::kList) {
            reject(value, path, "a list of objects");
            return;
        }
        for (const Value& element : value.children) {
            const std::string userPath = path + "[" + std::to_string(users.size()) + "]";
            readRecord(element, userPath, kUserFields, users.emplace_back(), "an object with the fields of a mix user");
        }
    }

    size_t offsetOf(std::string_view source) const { return static_cast<size_t>(source.data() - mText.data()); }

    void addError(size_t offset, std::string field, std::string message) {
        mErrors.push_back({offset, std::move(field), std::move(message)});
    }

    void reject(const Value& value, const std::string& path, const std::string& expected) {
        const std::string found = value.kind == Value::kObject ? "an object"
                                  : value.kind == Value::kList ? "a list"
                                                               : excerpt(value.source);
        addError(offsetOf(value.source), path, "expected " + expected + ", found " + found);
    }

    void addSyntaxError(rapidjson::ParseErrorCode code, size_t offset) {
        const std::string_view rest = mText.substr(offset);
        if (code == rapidjson::kParseErrorTermination) {
            addError(offset, "", "nested deeper than " + std::to_string(kMaxDepth) + " objects and lists");
        } else if (code == rapidjson::kParseErrorNumberTooBig) {  // valid JSON that the parser rejects
            const std::string_view number = rest.substr(0, rest.find_first_not_of("0123456789+-.eE"));
            addError(offset, "", "expected " + std::string(kInteger) + ", found " + excerpt(number));
        } else if (rest.substr(0, 3) == "\xef\xbb\xbf") {
            addError(offset, "", "not JSON: byte order mark");
        } else {
            const auto* error = std::find_if(std::begin(kSyntaxErrors), std::end(kSyntaxErrors),
                                             [code](const auto& known) { return known.code == code; });
            addError(offset, "",
                     error == std::end(kSyntaxErrors)              ? "not JSON"
                     : code == rapidjson::kParseErrorDocumentEmpty ? error->text
                                                                   : std::string("not JSON: ") + error->text);
        }
    }

    // Returns the configuration, or the first kMaxMixFileErrors errors in the order of the file, with their positions.
    MixFileResult result() {
        if (mErrors.empty()) {
            return std::move(mConfig);
        }
        std::stable_sort(mErrors.begin(), mErrors.end(),
                         [](const Error& a, const Error& b) { return a.offset < b.offset; });
        std::vector<MixFileError> errors;
        for (size_t i = 0; i < std::min(mErrors.size(), kMaxMixFileErrors); ++i) {
            const std::string_view before = mText.substr(0, mErrors[i].offset);
            const std::string_view line = before.substr(before.rfind('\n') + 1);  // npos + 1 is 0
            const auto lines = std::count(before.begin(), before.end(), '\n');
            const auto columns =
                std::count_if(line.begin(), line.end(), [](char byte) { return !isContinuation(byte); });
            errors.push_back({static_cast<size_t>(lines) + 1, static_cast<size_t>(columns) + 1,
                              std::move(mErrors[i].field), std::move(mErrors[i].message)});
        }
        if (mErrors.size() > kMaxMixFileErrors) {
            errors.push_back({0, 0, "", "and " + std::to_string(mErrors.size() - kMaxMixFileErrors) + " more errors"});
        }
        return tl::unexpected(std::move(errors));
    }

    const std::string_view mText;
    Config mConfig;
    std::vector<Error> mErrors;
};

tl::unexpected<std::vector<MixFileError>> fileError(std::string message) {
    return tl::unexpected<std::vector<MixFileError>>({{0, 0, "", std::move(message)}});
}

}  // namespace

MixFileResult readMix(std::string_view text) noexcept {
    try {
        if (text.size() > kMaxMixFile) {
            return fileError("is larger than " + std::to_string(kMaxMixFile) + " bytes");
        }
        return MixReader(text).read();
    } catch (const std::exception& error) {  // out of memory
        return fileError(error.what());
    }
}

MixFileResult readMixFile(const std::string& path) noexcept {
    try {
        const auto close = [](FILE* file) { std::fclose(file); };
        const std::unique_ptr<FILE, decltype(close)> file(std::fopen(path.c_str(), "rbe"), close);
        if (!file) {
            return fileError(std::string("cannot be opened: ") + std::strerror(errno));
        }
        std::string text(kMaxMixFile + 1, '\0');  // one byte more than allowed, to detect a larger file
        text.resize(std::fread(text.data(), 1, text.size(), file.get()));
        if (std::ferror(file.get())) {
            return fileError(std::string("cannot be read: ") + std::strerror(errno));
        }
        return readMix(text);
    } catch (const std::exception& error) {
        return fileError(error.what());
    }
}

std::string describe(const std::string& file, const MixFileError& error) {
    std::string text = file + ":";
    if (error.line > 0) {
        text += std::to_string(error.line) + ":" + std::to_string(error.column) + ":";
    }
    if (!error.field.empty()) {
        text += " field " + error.field + ":";
    }
    return text + " " + error.message;
}

}  // namespace vexalive
