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

namespace vexalive {
namespace {

using Config = kstmedia::VexaTranscodingConfigInternal;
using User = kstmedia::VexaMixUserInternal;
using Rect = User::Rect;

// ---- The format -----------------------------------------------------------------------------------------------------

// Where a field's value goes, and thereby what it must be.
template <class Record>
using Slot =
    std::variant<int32_t Record::*, bool Record::*, std::string Record::*, Rect Record::*, std::vector<User> Record::*>;

enum Need { kOptional, kRequired, kUnlessPureAudio };  // what is left out keeps the record's own default

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
constexpr size_t kDeepest = 64;   // objects and lists in each other
constexpr size_t kMaxQuote = 40;  // bytes of the file in a message

// ---- JSON, with the place of each value -----------------------------------------------------------------------------

// A value of the text. The views are of the text as it stands there.
struct Value {
    enum Kind { kNull, kFalse, kTrue, kNumber, kText, kObject, kList };
    Kind kind;
    std::string_view source;      // of an object or list: its opening bracket
    std::string_view nameSource;  // of a member of an object
    std::string name;
    std::string text;             // of a text
    std::vector<Value> children;  // of an object or list
};

// What the parser calls; false ends the parsing.
class TreeBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, TreeBuilder> {
public:
    TreeBuilder(std::string_view text, const rapidjson::MemoryStream& stream) : mText(text), mStream(stream) {}

    Value& root() { return mRoot.children.front(); }

    bool Null() { return add(Value::kNull); }
    bool Bool(bool value) { return add(value ? Value::kTrue : Value::kFalse); }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return add(Value::kNumber); }
    bool String(const char* text, rapidjson::SizeType length, bool) {
        add(Value::kText);
        mOpen.back()->children.back().text.assign(text, length);
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
    // The parser says what it has read, not where that began: only blanks, commas and colons stand before it.
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
        mOpen.push_back(&mOpen.back()->children.back());  // stays in its place until it is closed
        return mOpen.size() <= kDeepest + 1;
    }
    bool close() {
        token();
        mOpen.pop_back();
        return true;
    }

    const std::string_view mText;
    const rapidjson::MemoryStream& mStream;
    size_t mEnd = 0;  // of the last token
    std::string mName;
    std::string_view mNameSource;
    Value mRoot{Value::kList, {}, {}, {}, {}, {}};  // of the one value of the text
    std::vector<Value*> mOpen{&mRoot};
};

constexpr struct {
    rapidjson::ParseErrorCode code;
    const char* text;
} kSyntaxMistakes[] = {
    {rapidjson::kParseErrorDocumentEmpty, "there is nothing"},
    {rapidjson::kParseErrorDocumentRootNotSingular, "expected the end of the file"},
    {rapidjson::kParseErrorValueInvalid, "expected a value"},
    {rapidjson::kParseErrorObjectMissName, "expected the name of a field, in quotes"},
    {rapidjson::kParseErrorObjectMissColon, "expected \":\" after the name of a field"},
    {rapidjson::kParseErrorObjectMissCommaOrCurlyBracket, "expected \",\" or \"}\" after a field"},
    {rapidjson::kParseErrorArrayMissCommaOrSquareBracket, "expected \",\" or \"]\" after an element"},
    {rapidjson::kParseErrorStringUnicodeEscapeInvalidHex, "expected four hexadecimal digits after \"\\u\""},
    {rapidjson::kParseErrorStringUnicodeSurrogateInvalid, "half of a surrogate pair"},
    {rapidjson::kParseErrorStringEscapeInvalid, "an unknown escape, or a control character such as a line break"},
    {rapidjson::kParseErrorStringMissQuotationMark, "a text without its closing quote"},
    {rapidjson::kParseErrorStringInvalidEncoding, "a text is not UTF-8"},
    {rapidjson::kParseErrorNumberMissFraction, "expected a digit"},
    {rapidjson::kParseErrorNumberMissExponent, "expected a digit"},
};

// ---- From JSON to the records ---------------------------------------------------------------------------------------

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

// At most kMaxQuote bytes, cut between two characters.
std::string quoted(std::string_view text) {
    if (text.size() <= kMaxQuote) {
        return std::string(text);
    }
    size_t end = kMaxQuote;
    while (end > 0 && isContinuation(text[end])) {
        --end;
    }
    return std::string(text.substr(0, end)) + "...";
}

// A number without a fraction, however it is written: 1280, 1280.0 and 128e1 are the same.
std::optional<int32_t> readInteger(std::string_view number) {
    double value = 0;
    const auto [end, failure] = std::from_chars(number.data(), number.data() + number.size(), value);
    const bool isInteger = failure == std::errc() && value >= std::numeric_limits<int32_t>::min() &&
                           value <= std::numeric_limits<int32_t>::max() && std::trunc(value) == value;
    return isInteger ? std::optional(static_cast<int32_t>(value)) : std::nullopt;
}

// The parser takes an escape such as \udc00 by itself, which is half a character, and makes bytes of it that are not
// UTF-8: those after 0xed are never higher than 0x9f.
bool holdsHalfACharacter(const std::string& text) {
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

    MixReading read() {
        rapidjson::MemoryStream stream(mText.data(), mText.size());
        TreeBuilder builder(mText, stream);
        // The parser calls itself for each object or list in another; the builder ends that at kDeepest.
        constexpr unsigned kFlags = rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag;
        const rapidjson::ParseResult result = rapidjson::Reader().Parse<kFlags>(stream, builder);
        if (result.IsError()) {
            tellSyntax(result.Code(), std::min(result.Offset(), mText.size()));
        } else if (stream.Tell() < mText.size()) {
            tell(stream.Tell(), "", "not JSON: a zero byte");
        } else {
            readRecord(builder.root(), "", kConfigFields, mConfig, "an object with the fields of a mix configuration");
        }
        return reading();
    }

private:
    struct Mistake {
        size_t offset;
        std::string field;
        std::string text;
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
                tell(offsetOf(member.nameSource), prefix + quoted(name),
                     "there is no such field; the fields here are " + namesOf(fields));
            } else if (std::exchange(isGiven[static_cast<size_t>(field - fields)], true)) {
                tell(offsetOf(member.nameSource), prefix + member.name, "is given twice");
            } else {
                std::visit([&](auto slot) { readValue(member, prefix + member.name, record.*slot); }, field->slot);
            }
        }
        for (size_t i = 0; i < N; ++i) {
            if (!isGiven[i] && isNeeded(fields[i].need, record)) {
                tell(offsetOf(value.source), prefix + std::string(fields[i].name), "is missing");
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

    void readValue(const Value& value, const std::string& path, std::string& text) {
        if (value.kind != Value::kText || holdsHalfACharacter(value.text)) {
            reject(value, path, value.kind == Value::kText ? "whole characters" : "a text in quotes");
        }
        text = value.text;
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

    void tell(size_t offset, std::string field, std::string text) {
        mMistakes.push_back({offset, std::move(field), std::move(text)});
    }

    void reject(const Value& value, const std::string& path, const std::string& expected) {
        const std::string found = value.kind == Value::kObject ? "an object"
                                  : value.kind == Value::kList ? "a list"
                                                               : quoted(value.source);
        tell(offsetOf(value.source), path, "expected " + expected + ", found " + found);
    }

    void tellSyntax(rapidjson::ParseErrorCode code, size_t offset) {
        const std::string_view rest = mText.substr(offset);
        if (code == rapidjson::kParseErrorTermination) {
            tell(offset, "", "more than " + std::to_string(kDeepest) + " objects and lists in each other");
        } else if (code == rapidjson::kParseErrorNumberTooBig) {  // JSON, but the parser has no way round it
            const std::string_view number = rest.substr(0, rest.find_first_not_of("0123456789+-.eE"));
            tell(offset, "", "expected " + std::string(kInteger) + ", found " + quoted(number));
        } else if (rest.substr(0, 3) == "\xef\xbb\xbf") {
            tell(offset, "", "not JSON: a byte order mark");
        } else {
            const auto* mistake = std::find_if(std::begin(kSyntaxMistakes), std::end(kSyntaxMistakes),
                                               [code](const auto& known) { return known.code == code; });
            tell(offset, "",
                 mistake == std::end(kSyntaxMistakes) ? "not JSON" : std::string("not JSON: ") + mistake->text);
        }
    }

    // The first mistakes in the order of the file, with their lines and columns.
    MixReading reading() {
        std::stable_sort(mMistakes.begin(), mMistakes.end(),
                         [](const Mistake& a, const Mistake& b) { return a.offset < b.offset; });
        MixReading reading;
        reading.config = std::move(mConfig);
        for (size_t i = 0; i < std::min(mMistakes.size(), kMaxMixMistakes); ++i) {
            const std::string_view before = mText.substr(0, mMistakes[i].offset);
            const std::string_view line = before.substr(before.rfind('\n') + 1);  // of all if there is none
            const auto lines = std::count(before.begin(), before.end(), '\n');
            const auto columns =
                std::count_if(line.begin(), line.end(), [](char byte) { return !isContinuation(byte); });
            reading.mistakes.push_back({static_cast<size_t>(lines) + 1, static_cast<size_t>(columns) + 1,
                                        std::move(mMistakes[i].field), std::move(mMistakes[i].text)});
        }
        if (mMistakes.size() > kMaxMixMistakes) {
            reading.mistakes.push_back(
                {0, 0, "", "and " + std::to_string(mMistakes.size() - kMaxMixMistakes) + " more"});
        }
        return reading;
    }

    const std::string_view mText;
    Config mConfig;
    std::vector<Mistake> mMistakes;
};

MixReading unreadable(std::string text) {
    MixReading reading;
    reading.mistakes.push_back({0, 0, "", std::move(text)});
    return reading;
}

}  // namespace

MixReading readMix(std::string_view text) noexcept {
    try {
        if (text.size() > kMaxMixFile) {
            return unreadable("is larger than " + std::to_string(kMaxMixFile) + " bytes");
        }
        return MixReader(text).read();
    } catch (const std::exception& failure) {  // out of memory
        return unreadable(failure.what());
    }
}

MixReading readMixFile(const std::string& path) noexcept {
    try {
        const auto close = [](FILE* file) { std::fclose(file); };
        const std::unique_ptr<FILE, decltype(close)> file(std::fopen(path.c_str(), "rbe"), close);
        if (!file) {
            return unreadable(std::string("cannot be opened: ") + std::strerror(errno));
        }
        std::string text(kMaxMixFile + 1, '\0');  // one more than allowed tells that it is too large
        text.resize(std::fread(text.data(), 1, text.size(), file.get()));
        if (std::ferror(file.get())) {
            return unreadable(std::string("cannot be read: ") + std::strerror(errno));
        }
        return readMix(text);
    } catch (const std::exception& failure) {
        return unreadable(failure.what());
    }
}

std::string describe(const std::string& file, const MixMistake& mistake) {
    std::string text = file + ":";
    if (mistake.line > 0) {
        text += std::to_string(mistake.line) + ":" + std::to_string(mistake.column) + ":";
    }
    if (!mistake.field.empty()) {
        text += " field " + mistake.field + ":";
    }
    return text + " " + mistake.text;
}

}  // namespace vexalive
