// JSON values, and the default implementation of Serialize() and Deserialize().

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <limits>
#include <string>
#include <utility>

#include "base/Json.h"

namespace {

using json::Array;
using json::Deserialize;
using json::Object;
using json::Serialize;
using json::Value;

constexpr int kLowest = std::numeric_limits<int>::min();
constexpr int kHighest = std::numeric_limits<int>::max();
constexpr int kUnreadable = -1;
const std::string kReplacement = "\xef\xbf\xbd";  // U+FFFD

std::string repeated(const std::string& piece, size_t times) {
    std::string text;
    text.reserve(piece.size() * times);
    for (size_t i = 0; i < times; ++i) {
        text += piece;
    }
    return text;
}

std::string nestedArrays(size_t depth) {
    return repeated("[", depth) + repeated("]", depth);
}

std::string nestedObjects(size_t depth) {
    return repeated("{\"a\":", depth) + "1" + repeated("}", depth);
}

void expectUnreadable(std::initializer_list<std::string> texts) {
    for (const std::string& text : texts) {
        EXPECT_TRUE(Deserialize(text).isNull()) << text.substr(0, 100);
    }
}

// Each row: a JSON value, and the result of ToInt() for a member with this value.
void expectIntegers(std::initializer_list<std::pair<std::string, int>> rows) {
    for (const auto& [text, integer] : rows) {
        const Value response = Deserialize("{\"code\":" + text + "}");
        EXPECT_TRUE(response.HasKey("code")) << text;
        EXPECT_EQ(response["code"].ToInt(), integer) << text.substr(0, 100);
    }
}

void expectJson(std::initializer_list<std::pair<Value, std::string>> rows) {
    for (const auto& [value, text] : rows) {
        EXPECT_EQ(Serialize(value), text);
    }
}

void expectTypes(std::initializer_list<std::pair<Value, int>> rows) {
    for (const auto& [value, type] : rows) {
        EXPECT_EQ(value.type(), type) << Serialize(value);
    }
}

// ---- Values ----

TEST(JsonValueTest, AFreshValueIsNullAndAssigningReplacesTheContents) {
    Value value;
    EXPECT_EQ(value.type(), 0);
    EXPECT_EQ(value.type(), Value::kNull);
    value = Value("text");
    value = Value(5);
    EXPECT_EQ(value.ToInt(), 5);
    value = Value();
    EXPECT_TRUE(value.isNull());
}

TEST(JsonValueTest, KnowsTheTypeOfItsContents) {
    expectTypes({{true, Value::kBool}, {7, Value::kInteger}, {int64_t{7}, Value::kInteger}, {0.5, Value::kReal}});
    expectTypes({{"text", Value::kString}, {std::string("text"), Value::kString}, {"", Value::kString}});
    expectTypes({{Array(), Value::kArray}, {Object(), Value::kObject}});
}

TEST(JsonValueTest, HasNoContentsOfAnotherType) {
    const Value seven(7);
    ASSERT_NE(seven.asInteger(), nullptr);
    EXPECT_EQ(*seven.asInteger(), 7);
    EXPECT_EQ(seven.asBool(), nullptr);
    EXPECT_EQ(seven.asReal(), nullptr);
    EXPECT_EQ(seven.asString(), nullptr);
    EXPECT_EQ(seven.asArray(), nullptr);
    EXPECT_EQ(seven.asObject(), nullptr);
}

TEST(JsonValueTest, ChangingTheSourceContainerDoesNotChangeTheValue) {
    Object object;
    object["a"] = 1;
    Array array;
    array.push_back(1);
    const Value values[] = {object, array};
    object["a"] = 2;
    object["b"] = 3;
    array.push_back(2);
    EXPECT_EQ(Serialize(values[0]), R"({"a":1})");
    EXPECT_EQ(Serialize(values[1]), "[1]");
}

TEST(JsonValueTest, AMemberStaysValidAsLongAsACopyLives) {
    Value copy;
    const Value* member = nullptr;
    {
        const Value original = Deserialize(R"({"code":505})");
        member = &original["code"];
        copy = original;
    }
    EXPECT_EQ(member->ToInt(), 505);
}

TEST(JsonObjectTest, NamingAMemberCreatesItNullAndSettingItAgainReplacesIt) {
    Object object;
    object["made"];
    object["a"] = 1;
    object[std::string("a")] = "two";
    EXPECT_EQ(Serialize(object), R"({"a":"two","made":null})");
}

TEST(JsonKeyTest, AnObjectHasTheKeysOfItsMembersAndHasKeysNeedsEveryKey) {
    const Value value = Deserialize(R"({"code":0,"message":null,"":1})");
    for (const char* key : {"code", "message", ""}) {
        EXPECT_TRUE(value.HasKey(key)) << key;
    }
    for (const char* key : {"Code", "cod", "ErrorInfo"}) {
        EXPECT_FALSE(value.HasKey(key)) << key;
    }
    EXPECT_TRUE(value.HasKeys({"code", "message"}));
    EXPECT_TRUE(value.HasKeys({}));
    EXPECT_FALSE(value.HasKeys({"code", "ErrorInfo"}));
    EXPECT_FALSE(value.HasKeys({"ErrorInfo", "code"}));
}

TEST(JsonKeyTest, WhatIsNoObjectHasNoKeysAndOnlyNullMembers) {
    const Value others[] = {Value(),    Value(true),   Value(1),
                            Value(0.5), Value("code"), Deserialize(R"([{"code":1},"code"])")};
    for (const Value& value : others) {
        EXPECT_FALSE(value.HasKey("code")) << Serialize(value);
        EXPECT_FALSE(value.HasKeys({"code"})) << Serialize(value);
        EXPECT_FALSE(value.HasKeys({})) << Serialize(value);
        EXPECT_TRUE(value["code"].isNull()) << Serialize(value);
    }
}

TEST(JsonKeyTest, AMissingMemberIsNullAllTheWayDown) {
    const Value value = Deserialize(R"({"a":{"b":1}})");
    EXPECT_EQ(value["a"]["b"].ToInt(), 1);
    EXPECT_TRUE(value["x"].isNull());
    EXPECT_TRUE(value["x"]["y"]["z"].isNull());
    EXPECT_FALSE(value.HasKey("x")) << "reading creates no member";
}

// ---- ToInt ----

TEST(JsonToIntTest, AnIntegerOf32BitsIsUnchangedAndALargerOneIsClamped) {
    expectIntegers({{"0", 0}, {"505", 505}, {"-505", -505}, {"-0", 0}});
    expectIntegers({{"2147483647", kHighest}, {"-2147483648", kLowest}});
    expectIntegers({{"2147483648", kHighest}, {"-2147483649", kLowest}});
    expectIntegers({{"4294967296", kHighest}});  // the low 32 bits are 0, the code of success
    expectIntegers({{"9223372036854775807", kHighest}, {"-9223372036854775808", kLowest}});
}

TEST(JsonToIntTest, AnIntegerBeyond64BitsIsClamped) {
    expectIntegers({{"9223372036854775808", kHighest}, {"-9223372036854775809", kLowest}});
    expectIntegers({{"18446744073709551615", kHighest}});
    expectIntegers({{"18446744073709551616", kHighest}, {"-18446744073709551616", kLowest}});  // the low 64 bits are 0
    expectIntegers({{"1" + std::string(300, '0'), kHighest}, {"-1" + std::string(300, '0'), kLowest}});
}

TEST(JsonToIntTest, ARealIsTruncatedTowardsZeroAndClampedAndUnreadableIfItIsNoNumber) {
    expectIntegers({{"1.9", 1}, {"-1.9", -1}, {"0.9", 0}, {"-0.9", 0}, {"5e2", 500}, {"1e-308", 0}, {"1e-400", 0}});
    expectIntegers({{"2147483646.5", 2147483646}, {"2147483647.5", kHighest}, {"2147483648.0", kHighest}});
    expectIntegers({{"-2147483647.5", -2147483647}, {"-2147483648.5", kLowest}, {"-2147483649.0", kLowest}});
    expectIntegers({{"1e308", kHighest}, {"-1e308", kLowest}});
    EXPECT_EQ(Value(std::numeric_limits<double>::quiet_NaN()).ToInt(), kUnreadable);
    EXPECT_EQ(Value(std::numeric_limits<double>::infinity()).ToInt(), kHighest);
    EXPECT_EQ(Value(-std::numeric_limits<double>::infinity()).ToInt(), kLowest);
}

TEST(JsonToIntTest, AStringThatIsWhollyADecimalIntegerIsThatInteger) {
    expectIntegers({{R"("505")", 505}, {R"("+5")", 5}, {R"("-7")", -7}, {R"("0")", 0}, {R"("-0")", 0}});
    expectIntegers({{R"("007")", 7}});  // not octal
    expectIntegers({{R"("2147483648")", kHighest}, {R"("-2147483649")", kLowest}, {R"("4294967296")", kHighest}});
    expectIntegers({{R"("99999999999999999999")", kHighest}, {R"("-99999999999999999999")", kLowest}});
    expectIntegers({{"\"" + std::string(100000, '9') + "\"", kHighest}});
    expectIntegers({{"\"" + std::string(100000, '0') + "6\"", 6}});
}

TEST(JsonToIntTest, AnyOtherStringIsUnreadable) {
    for (const char* text :
         {"",    " ",   " 5",   "5 ",   "\\t5",    "5\\n",     "-",        "+",       "+-5",    "--5",
          "++5", "-+5", "5-",   "5-5",  "0x10",    "10h",      "5.0",      "5e2",     "1,000",  "five",
          "nan", "inf", "true", "null", "\\u0000", "5\\u0000", "\\u00005", "\\u0660", "\\uff15"}) {
        expectIntegers({{"\"" + std::string(text) + "\"", kUnreadable}});
    }
}

TEST(JsonToIntTest, TrueIsOneAndFalseIsZeroAndNullAndContainersAreUnreadable) {
    expectIntegers({{"true", 1}, {"false", 0}, {"null", kUnreadable}});
    expectIntegers({{"[]", kUnreadable}, {"[0]", kUnreadable}, {"{}", kUnreadable}, {R"({"code":0})", kUnreadable}});
    EXPECT_EQ(Value().ToInt(), kUnreadable);
}

// ---- ToString ----

TEST(JsonToStringTest, AStringIsUnchangedWithoutQuotesOrEscapes) {
    EXPECT_EQ(Value("plain").ToString(), "plain");
    EXPECT_EQ(Value("").ToString(), "");
    EXPECT_EQ(Deserialize(R"("a\"b\\c\n")").ToString(), "a\"b\\c\n");
    EXPECT_EQ(Value(std::string("a\0b", 3)).ToString(), std::string("a\0b", 3));
    EXPECT_EQ(Value("not UTF-8: \xff").ToString(), "not UTF-8: \xff");
}

TEST(JsonToStringTest, NullIsTheEmptyStringAndAnythingElseIsItsJson) {
    EXPECT_EQ(Value().ToString(), "");
    EXPECT_EQ(Value(true).ToString(), "true");
    EXPECT_EQ(Value(false).ToString(), "false");
    EXPECT_EQ(Value(-5).ToString(), "-5");
    EXPECT_EQ(Value(0.5).ToString(), "0.5");
    EXPECT_EQ(Deserialize(R"([ 1, "a" ])").ToString(), R"([1,"a"])");
    EXPECT_EQ(Deserialize(R"({ "b": 1, "a": [] })").ToString(), R"({"a":[],"b":1})");
}

// ---- Serialize ----

TEST(JsonSerializeTest, KeysComeInAscendingByteOrderWhateverTheOrderOfSetting) {
    Object object;
    for (const char* key : {"b", "\xc3\xa9", "a_b", "Z", "aB", "a", "_", "1", "ab", ""}) {
        object[key] = 0;
    }
    EXPECT_EQ(Serialize(object),
              "{\"\":0,\"1\":0,\"Z\":0,\"_\":0,\"a\":0,\"aB\":0,\"a_b\":0,\"ab\":0,\"b\":0,\"\xc3\xa9\":0}");
}

TEST(JsonSerializeTest, ThereIsNoWhiteSpaceAndArraysAreInOrder) {
    Array array;
    for (const Value& value : {Value(3), Value("a"), Value(), Value(true), Value(Object()), Value(Array())}) {
        array.push_back(value);
    }
    expectJson({{array, R"([3,"a",null,true,{},[]])"}, {false, "false"}});
}

TEST(JsonSerializeTest, NumbersAreExactAndARealThatIsNoNumberIsNull) {
    expectJson({{kLowest, "-2147483648"}, {kHighest, "2147483647"}, {0.1, "0.1"}});
    expectJson({{std::numeric_limits<int64_t>::min(), "-9223372036854775808"}});
    expectJson({{std::numeric_limits<int64_t>::max(), "9223372036854775807"}});
    expectJson({{std::numeric_limits<double>::quiet_NaN(), "null"}, {std::numeric_limits<double>::infinity(), "null"}});
}

TEST(JsonSerializeTest, StringsAreEscapedWhereJsonNeedsItAndNowhereElse) {
    // One string for each character: the writer escapes a whole string if one of its characters needs it.
    expectJson({{"a\"b", R"("a\"b")"}, {"a\\b", R"("a\\b")"}, {"\x1f", R"("\u001f")"}, {"\x01", R"("\u0001")"}});
    expectJson({{"\b\f\n\r\t", R"("\b\f\n\r\t")"}, {std::string("a\0", 2), R"("a\u0000")"}});
    expectJson({{"a b~!", "\"a b~!\""}});
    expectJson({{"rtmp://cdn/live?a=1&b='<>", R"("rtmp://cdn/live?a=1&b='<>")"}});
    expectJson({{"\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80", "\"\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80\""}});
}

TEST(JsonSerializeTest, BytesThatAreNotUtf8BecomeTheReplacementCharacterInValuesAndKeys) {
    expectJson({{"a\xff!", "\"a" + kReplacement + "!\""}});
    expectJson({{"\x80", "\"" + kReplacement + "\""}});              // a continuation without a start
    expectJson({{"cut\xe4\xb8", "\"cut" + kReplacement + "\""}});    // a character cut at the end
    expectJson({{"cut\xe4\xb8!", "\"cut" + kReplacement + "!\""}});  // a character cut in the middle
    Object object;
    object["k\xff"] = 1;
    expectJson({{object, "{\"k" + kReplacement + "\":1}"}});
}

TEST(JsonSerializeTest, OverlongFormsAndSurrogatesAreNotUtf8) {
    for (const char* bad : {"\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80"}) {
        const std::string text = Serialize(std::string("<") + bad + ">");
        EXPECT_THAT(text, testing::HasSubstr(kReplacement));
        EXPECT_THAT(text, testing::Not(testing::HasSubstr(bad)));
        EXPECT_FALSE(Deserialize(text).isNull()) << "the result is not UTF-8";
    }
}

// ---- Deserialize ----

TEST(JsonDeserializeTest, WhatWasWrittenReadsBackAsItWas) {
    const std::string text =
        "{\"a\":[1,-2,0.5,\"x\",null,true,false,{}],\"big\":9223372036854775807,\"nest\":{\"k\":[[]]},\"\xc3\xa9\":"
        "\"\"}";
    EXPECT_EQ(Serialize(Deserialize(text)), text);
}

TEST(JsonDeserializeTest, EveryTypeOfValueMayBeTheRoot) {
    const auto read = [](const char* text) { return Deserialize(text); };
    expectTypes({{read("true"), Value::kBool}, {read("5"), Value::kInteger}, {read("5.5"), Value::kReal}});
    expectTypes({{read("\"\""), Value::kString}, {read("[]"), Value::kArray}, {read("{}"), Value::kObject}});
    expectTypes({{read(" \r\n\t{ } \n"), Value::kObject}});
}

TEST(JsonDeserializeTest, EscapesAreDecodedInValuesAndKeys) {
    EXPECT_EQ(Deserialize(R"("\u00e9\ud83d\ude00\/")").ToString(), "\xc3\xa9\xf0\x9f\x98\x80/");
    EXPECT_EQ(Deserialize(R"("a\u0000b\u0000")").ToString(), std::string("a\0b\0", 4));
    const Value value = Deserialize(R"({"k\u0000y":1})");
    EXPECT_TRUE(value.HasKey(std::string("k\0y", 3)));
    EXPECT_FALSE(value.HasKey("k"));
}

TEST(JsonDeserializeTest, OfTwoMembersWithOneNameTheLastHolds) {
    const Value value = Deserialize(R"({"code":0,"code":505})");
    EXPECT_EQ(value["code"].ToInt(), 505);
    EXPECT_EQ(value.asObject()->members().size(), 1u);
}

TEST(JsonDeserializeTest, WhatIsNotJsonIsUnreadable) {
    expectUnreadable({"", " \n", std::string(1, '\0'), "{", "}", "[", "]", "[1", "[1,", "[1,]"});
    expectUnreadable({"{\"a\"}", "{\"a\":}", "{\"a\":1", "{\"a\":1,}", "{a:1}", "{'a':1}", "{1:1}"});
    expectUnreadable({"\"open", "\"\\x\"", "\"\\u12\"", "\"\\ud800\"", "\"\n\"", "tru", "True", "nul"});
    expectUnreadable({"01", "+1", "1.", ".5", "1e", "0x10", "NaN", "Infinity", "-"});
    expectUnreadable({"/* */ {}", "{} // end", "<html></html>", "code=0", "1e400", "-1e400"});
    expectUnreadable({"{}x", "{}{}", "{},", "{}]", "{}}", "{} 1", "{}\n{\"code\":0}"});
    expectUnreadable({"{\"code\":1e400}", "{\"code\":1" + std::string(400, '0') + "}"});  // no double holds them
}

TEST(JsonDeserializeTest, AZeroByteAfterTheValueMakesItUnreadable) {
    expectUnreadable({std::string("{\"code\":0}\0", 11), std::string("{\"code\":0}\0trailing bytes", 25)});
}

TEST(JsonDeserializeTest, WhatIsNotUtf8IsUnreadable) {
    for (const std::string bad : {"\xff", "\x80", "\xc3", "\xe4\xb8", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
        expectUnreadable({"\"" + bad + "\"", "{\"" + bad + "\":1}", bad});
    }
    expectUnreadable({std::string("{\0\"\0a\0\"\0:\0001\0}\0", 14)});  // UTF-16
}

TEST(JsonDeserializeTest, TheDeepestReadableNestingIs512) {
    EXPECT_EQ(Serialize(Deserialize(nestedArrays(512))), nestedArrays(512));
    EXPECT_EQ(Serialize(Deserialize(nestedObjects(512))), nestedObjects(512));
    expectUnreadable({nestedArrays(513), nestedObjects(513), "[" + nestedObjects(512) + "]"});
    // Siblings do not add to the depth.
    EXPECT_FALSE(Deserialize("[" + repeated(nestedArrays(511) + ",", 100) + "[]]").isNull());
}

TEST(JsonDeserializeTest, TenMillionLevelsAreUnreadableAndHarmless) {
    constexpr size_t kLevels = 10'000'000;
    expectUnreadable({std::string(kLevels, '['), repeated("{\"a\":", kLevels), nestedArrays(kLevels)});
}

TEST(JsonDeserializeTest, MegabytesOfGarbageAreUnreadableAndHarmless) {
    std::string noise(size_t{64} << 20, '\0');
    uint32_t state = 1;
    for (char& byte : noise) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>((state >> 24) % 255 + 1);  // never a zero byte, because the reader refuses it at once
    }
    expectUnreadable({noise, "[" + noise});
    constexpr size_t kSize = size_t{4} << 20;
    expectUnreadable({"\"" + std::string(kSize, 'x'), std::string(kSize, '9'), std::string(kSize, ' ')});
}

}  // namespace
