// JSON values, and the default reader and writer of their text.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

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

bool isReadable(const std::string& text) {
    return !Deserialize(text).isNull();
}

// The integer that a response's member converts to.
int readAs(const std::string& text) {
    const Value answer = Deserialize("{\"code\":" + text + "}");
    EXPECT_TRUE(answer.HasKey("code")) << text;
    return answer["code"].ToInt();
}

// ---- Values ----

TEST(JsonValueTest, AFreshValueIsNullAndNullHasTypeTagZero) {
    EXPECT_EQ(Value().type(), 0);
    EXPECT_EQ(Value().type(), Value::kNull);
    EXPECT_TRUE(Value().isNull());
}

TEST(JsonValueTest, KnowsWhatItWasMadeFrom) {
    EXPECT_EQ(Value(true).type(), Value::kBool);
    EXPECT_EQ(Value(7).type(), Value::kInteger);
    EXPECT_EQ(Value(int64_t{7}).type(), Value::kInteger);
    EXPECT_EQ(Value(0.5).type(), Value::kReal);
    EXPECT_EQ(Value("text").type(), Value::kString);
    EXPECT_EQ(Value(std::string("text")).type(), Value::kString);
    EXPECT_EQ(Value(Array()).type(), Value::kArray);
    EXPECT_EQ(Value(Object()).type(), Value::kObject);
    EXPECT_FALSE(Value("").isNull());
}

TEST(JsonValueTest, TheContentsAreSeenOnlyAsWhatTheyAre) {
    const Value seven(7);
    ASSERT_NE(seven.asInteger(), nullptr);
    EXPECT_EQ(*seven.asInteger(), 7);
    EXPECT_EQ(seven.asBool(), nullptr);
    EXPECT_EQ(seven.asReal(), nullptr);
    EXPECT_EQ(seven.asString(), nullptr);
    EXPECT_EQ(seven.asArray(), nullptr);
    EXPECT_EQ(seven.asObject(), nullptr);
}

TEST(JsonValueTest, AssigningReplacesTheContents) {
    Value value("text");
    value = Value(5);
    EXPECT_EQ(value.ToInt(), 5);
    value = Value();
    EXPECT_TRUE(value.isNull());
}

TEST(JsonValueTest, ChangingTheObjectItWasMadeFromLeavesTheValueAsItWas) {
    Object object;
    object["a"] = 1;
    const Value value(object);
    object["a"] = 2;
    object["b"] = 3;
    EXPECT_EQ(Serialize(value), R"({"a":1})");
}

TEST(JsonValueTest, ChangingTheArrayItWasMadeFromLeavesTheValueAsItWas) {
    Array array;
    array.push_back(1);
    const Value value(array);
    array.push_back(2);
    EXPECT_EQ(Serialize(value), "[1]");
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

TEST(JsonObjectTest, NamingAMemberCreatesItNull) {
    Object object;
    object["made"];
    EXPECT_EQ(Serialize(object), R"({"made":null})");
}

TEST(JsonObjectTest, SettingAMemberAgainReplacesIt) {
    Object object;
    object["a"] = 1;
    object[std::string("a")] = "two";
    EXPECT_EQ(Serialize(object), R"({"a":"two"})");
}

TEST(JsonKeyTest, AnObjectHasTheKeysItHas) {
    const Value value = Deserialize(R"({"code":0,"message":null,"":1})");
    EXPECT_TRUE(value.HasKey("code"));
    EXPECT_TRUE(value.HasKey("message")) << "a null member is there";
    EXPECT_TRUE(value.HasKey(""));
    EXPECT_FALSE(value.HasKey("Code"));
    EXPECT_FALSE(value.HasKey("cod"));
}

TEST(JsonKeyTest, HasKeysNeedsEveryKey) {
    const Value value = Deserialize(R"({"code":0,"message":""})");
    EXPECT_TRUE(value.HasKeys({"code", "message"}));
    EXPECT_TRUE(value.HasKeys({"message"}));
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
    EXPECT_FALSE(value.HasKey("x")) << "looking creates nothing";
}

// ---- ToInt ----

TEST(JsonToIntTest, AnIntegerIsUnchanged) {
    EXPECT_EQ(readAs("0"), 0);
    EXPECT_EQ(readAs("505"), 505);
    EXPECT_EQ(readAs("-505"), -505);
    EXPECT_EQ(readAs("-0"), 0);
    EXPECT_EQ(readAs("2147483647"), kHighest);
    EXPECT_EQ(readAs("-2147483648"), kLowest);
}

TEST(JsonToIntTest, AnIntegerBeyond32BitsIsClamped) {
    EXPECT_EQ(readAs("2147483648"), kHighest);
    EXPECT_EQ(readAs("-2147483649"), kLowest);
    EXPECT_EQ(readAs("4294967296"), kHighest) << "whose low 32 bits are those of success";
    EXPECT_EQ(readAs("9223372036854775807"), kHighest);
    EXPECT_EQ(readAs("-9223372036854775808"), kLowest);
}

TEST(JsonToIntTest, AnIntegerBeyond64BitsIsClamped) {
    EXPECT_EQ(readAs("9223372036854775808"), kHighest);
    EXPECT_EQ(readAs("-9223372036854775809"), kLowest);
    EXPECT_EQ(readAs("18446744073709551615"), kHighest);
    EXPECT_EQ(readAs("18446744073709551616"), kHighest) << "whose low 64 bits are those of success";
    EXPECT_EQ(readAs("-18446744073709551616"), kLowest);
    EXPECT_EQ(readAs("1" + std::string(300, '0')), kHighest);
    EXPECT_EQ(readAs("-1" + std::string(300, '0')), kLowest);
}

TEST(JsonToIntTest, AFractionIsTruncatedTowardsZeroAndClamped) {
    EXPECT_EQ(readAs("1.9"), 1);
    EXPECT_EQ(readAs("-1.9"), -1);
    EXPECT_EQ(readAs("0.9"), 0);
    EXPECT_EQ(readAs("-0.9"), 0);
    EXPECT_EQ(readAs("5e2"), 500);
    EXPECT_EQ(readAs("2147483646.5"), 2147483646);
    EXPECT_EQ(readAs("2147483647.5"), kHighest);
    EXPECT_EQ(readAs("2147483648.0"), kHighest);
    EXPECT_EQ(readAs("-2147483647.5"), -2147483647);
    EXPECT_EQ(readAs("-2147483648.5"), kLowest);
    EXPECT_EQ(readAs("-2147483649.0"), kLowest);
    EXPECT_EQ(readAs("1e308"), kHighest);
    EXPECT_EQ(readAs("-1e308"), kLowest);
    EXPECT_EQ(readAs("1e-308"), 0);
    EXPECT_EQ(readAs("1e-400"), 0);
}

TEST(JsonToIntTest, ARealThatIsNoNumberIsUnreadableAndAnInfiniteOneClamped) {
    EXPECT_EQ(Value(std::numeric_limits<double>::quiet_NaN()).ToInt(), kUnreadable);
    EXPECT_EQ(Value(std::numeric_limits<double>::infinity()).ToInt(), kHighest);
    EXPECT_EQ(Value(-std::numeric_limits<double>::infinity()).ToInt(), kLowest);
}

TEST(JsonToIntTest, AStringThatIsWhollyADecimalIntegerIsThatInteger) {
    EXPECT_EQ(readAs("\"505\""), 505);
    EXPECT_EQ(readAs("\"+5\""), 5);
    EXPECT_EQ(readAs("\"-7\""), -7);
    EXPECT_EQ(readAs("\"0\""), 0);
    EXPECT_EQ(readAs("\"-0\""), 0);
    EXPECT_EQ(readAs("\"007\""), 7) << "decimal, whatever it starts with";
    EXPECT_EQ(readAs("\"2147483648\""), kHighest);
    EXPECT_EQ(readAs("\"-2147483649\""), kLowest);
    EXPECT_EQ(readAs("\"4294967296\""), kHighest);
    EXPECT_EQ(readAs("\"99999999999999999999\""), kHighest);
    EXPECT_EQ(readAs("\"-99999999999999999999\""), kLowest);
    EXPECT_EQ(readAs("\"" + std::string(100000, '9') + "\""), kHighest);
    EXPECT_EQ(readAs("\"" + std::string(100000, '0') + "6\""), 6);
}

TEST(JsonToIntTest, AnyOtherStringIsUnreadable) {
    for (const char* text :
         {"",    " ",   " 5",   "5 ",   "\\t5",    "5\\n",     "-",        "+",       "+-5",    "--5",
          "++5", "-+5", "5-",   "5-5",  "0x10",    "10h",      "5.0",      "5e2",     "1,000",  "five",
          "nan", "inf", "true", "null", "\\u0000", "5\\u0000", "\\u00005", "\\u0660", "\\uff15"}) {
        EXPECT_EQ(readAs("\"" + std::string(text) + "\""), kUnreadable) << "text: " << text;
    }
}

TEST(JsonToIntTest, TrueIsOneAndFalseIsZero) {
    EXPECT_EQ(readAs("true"), 1);
    EXPECT_EQ(readAs("false"), 0);
}

TEST(JsonToIntTest, NullAndContainersAreUnreadable) {
    EXPECT_EQ(readAs("null"), kUnreadable);
    EXPECT_EQ(readAs("[]"), kUnreadable);
    EXPECT_EQ(readAs("[0]"), kUnreadable);
    EXPECT_EQ(readAs("{}"), kUnreadable);
    EXPECT_EQ(readAs("{\"code\":0}"), kUnreadable);
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

TEST(JsonToStringTest, NullIsTheEmptyString) {
    EXPECT_EQ(Value().ToString(), "");
}

TEST(JsonToStringTest, AnythingElseIsItsJson) {
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

TEST(JsonSerializeTest, ThereIsNoWhiteSpaceAndArraysKeepTheirOrder) {
    Array array;
    array.push_back(3);
    array.push_back("a");
    array.push_back(Value());
    array.push_back(true);
    array.push_back(Object());
    array.push_back(Array());
    Object object;
    object["list"] = array;
    object["flag"] = false;
    EXPECT_EQ(Serialize(object), R"({"flag":false,"list":[3,"a",null,true,{},[]]})");
}

TEST(JsonSerializeTest, NumbersAreWholeToTheLastDigit) {
    EXPECT_EQ(Serialize(kLowest), "-2147483648");
    EXPECT_EQ(Serialize(kHighest), "2147483647");
    EXPECT_EQ(Serialize(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(Serialize(std::numeric_limits<int64_t>::max()), "9223372036854775807");
    EXPECT_EQ(Serialize(0.1), "0.1");
}

TEST(JsonSerializeTest, StringsAreEscapedWhereJsonNeedsItAndNowhereElse) {
    EXPECT_EQ(Serialize("a\"b\\c"), R"("a\"b\\c")");
    EXPECT_EQ(Serialize("\b\f\n\r\t"), R"("\b\f\n\r\t")");
    EXPECT_EQ(Serialize(std::string("\x01\x1f\0", 3)), R"("\u0001\u001f\u0000")");
    EXPECT_EQ(Serialize("rtmp://cdn/live?a=1&b='<>"), R"("rtmp://cdn/live?a=1&b='<>")");
    EXPECT_EQ(Serialize("\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80"), "\"\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80\"");
}

TEST(JsonSerializeTest, BytesThatAreNotUtf8ComeOutAsTheReplacementCharacter) {
    EXPECT_EQ(Serialize("a\xff"
                        "b"),
              "\"a" + kReplacement + "b\"");
    EXPECT_EQ(Serialize("\x80"), "\"" + kReplacement + "\"") << "a continuation without a start";
    EXPECT_EQ(Serialize("cut\xe4\xb8"), "\"cut" + kReplacement + "\"") << "a character cut at the end";
    EXPECT_EQ(Serialize("cut\xe4\xb8!"), "\"cut" + kReplacement + "!\"") << "a character cut in the middle";
}

TEST(JsonSerializeTest, OverlongFormsAndSurrogatesAreNotUtf8) {
    for (const char* bad : {"\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80"}) {
        const std::string text = Serialize(std::string("<") + bad + ">");
        EXPECT_THAT(text, testing::HasSubstr(kReplacement));
        EXPECT_THAT(text, testing::Not(testing::HasSubstr(bad)));
        EXPECT_TRUE(isReadable(text)) << "what came out is UTF-8";
    }
}

TEST(JsonSerializeTest, KeysThatAreNotUtf8AreReplacedTheSameWay) {
    Object object;
    object["k\xff"] = 1;
    EXPECT_EQ(Serialize(object), "{\"k" + kReplacement + "\":1}");
}

TEST(JsonSerializeTest, ARealThatIsNoNumberComesOutAsNull) {
    EXPECT_EQ(Serialize(std::numeric_limits<double>::quiet_NaN()), "null");
    EXPECT_EQ(Serialize(std::numeric_limits<double>::infinity()), "null");
}

// ---- Deserialize ----

TEST(JsonDeserializeTest, WhatWasWrittenReadsBackAsItWas) {
    const std::string text =
        "{\"a\":[1,-2,0.5,\"x\",null,true,false,{}],\"big\":9223372036854775807,\"nest\":{\"k\":[[]]},\"\xc3\xa9\":"
        "\"\"}";
    EXPECT_EQ(Serialize(Deserialize(text)), text);
}

TEST(JsonDeserializeTest, EveryKindOfValueMayBeTheRoot) {
    EXPECT_EQ(Deserialize("true").type(), Value::kBool);
    EXPECT_EQ(Deserialize("5").type(), Value::kInteger);
    EXPECT_EQ(Deserialize("5.5").type(), Value::kReal);
    EXPECT_EQ(Deserialize("\"\"").type(), Value::kString);
    EXPECT_EQ(Deserialize("[]").type(), Value::kArray);
    EXPECT_EQ(Deserialize("{}").type(), Value::kObject);
    EXPECT_EQ(Deserialize(" \r\n\t{ } \n").type(), Value::kObject);
}

TEST(JsonDeserializeTest, ZeroBytesInsideStringsSurviveTheRoundTrip) {
    const std::string text("a\0b\0", 4);
    Object object;
    object["message"] = text;
    object[std::string("k\0y", 3)] = 1;

    const Value read = Deserialize(Serialize(object));
    EXPECT_EQ(read["message"].ToString(), text);
    EXPECT_TRUE(read.HasKey(std::string("k\0y", 3)));
    EXPECT_FALSE(read.HasKey("k"));
}

TEST(JsonDeserializeTest, EscapesAreUndone) {
    EXPECT_EQ(Deserialize(R"("\u00e9\ud83d\ude00\/")").ToString(), "\xc3\xa9\xf0\x9f\x98\x80/");
}

TEST(JsonDeserializeTest, OfTwoMembersWithOneNameTheLastHolds) {
    const Value value = Deserialize(R"({"code":0,"code":505})");
    EXPECT_EQ(value["code"].ToInt(), 505);
    EXPECT_EQ(value.asObject()->members().size(), 1u);
}

TEST(JsonDeserializeTest, TheEmptyStringIsUnreadable) {
    EXPECT_FALSE(isReadable(""));
    EXPECT_FALSE(isReadable(" \n"));
    EXPECT_FALSE(isReadable(std::string(1, '\0')));
}

TEST(JsonDeserializeTest, WhatIsNotJsonIsUnreadable) {
    for (const char* text : {"{",          "}",
                             "[",          "]",
                             "[1",         "[1,",
                             "[1,]",       "{\"a\"}",
                             "{\"a\":}",   "{\"a\":1",
                             "{\"a\":1,}", "{a:1}",
                             "{'a':1}",    "{1:1}",
                             "\"open",     "\"\\x\"",
                             "\"\\u12\"",  "\"\\ud800\"",
                             "\"\n\"",     "tru",
                             "True",       "nul",
                             "01",         "+1",
                             "1.",         ".5",
                             "1e",         "0x10",
                             "NaN",        "Infinity",
                             "-",          "/* */ {}",
                             "{} // end",  "<html></html>",
                             "code=0"}) {
        EXPECT_FALSE(isReadable(text)) << text;
    }
}

TEST(JsonDeserializeTest, BytesAfterTheValueMakeItUnreadable) {
    for (const char* tail : {"x", "{}", ",", "]", "}", " 1", "\n{\"code\":0}"}) {
        EXPECT_FALSE(isReadable(std::string("{\"code\":0}") + tail)) << tail;
    }
}

TEST(JsonDeserializeTest, AZeroByteAfterTheValueMakesItUnreadable) {
    EXPECT_FALSE(isReadable(std::string("{\"code\":0}\0", 11)));
    EXPECT_FALSE(isReadable(std::string("{\"code\":0}\0trailing bytes", 25)));
}

TEST(JsonDeserializeTest, WhatIsNotUtf8IsUnreadable) {
    for (const char* bad : {"\xff", "\x80", "\xc3", "\xe4\xb8", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
        EXPECT_FALSE(isReadable("\"" + std::string(bad) + "\""));
        EXPECT_FALSE(isReadable("{\"" + std::string(bad) + "\":1}"));
        EXPECT_FALSE(isReadable(bad));
    }
    EXPECT_FALSE(isReadable(std::string("{\0\"\0a\0\"\0:\0001\0}\0", 14))) << "UTF-16";
}

TEST(JsonDeserializeTest, ANumberThatNoDoubleHoldsIsUnreadable) {
    EXPECT_FALSE(isReadable("1e400"));
    EXPECT_FALSE(isReadable("-1e400"));
    EXPECT_FALSE(isReadable("{\"code\":1e400}"));
    EXPECT_FALSE(isReadable("{\"code\":1" + std::string(400, '0') + "}"));
}

TEST(JsonDeserializeTest, TheDeepestReadableNestingIs512) {
    EXPECT_TRUE(isReadable(nestedArrays(512)));
    EXPECT_TRUE(isReadable(nestedObjects(512)));
    EXPECT_EQ(Serialize(Deserialize(nestedArrays(512))), nestedArrays(512));
    EXPECT_EQ(Serialize(Deserialize(nestedObjects(512))), nestedObjects(512));

    EXPECT_FALSE(isReadable(nestedArrays(513)));
    EXPECT_FALSE(isReadable(nestedObjects(513)));
    EXPECT_FALSE(isReadable("[" + nestedObjects(512) + "]"));
}

TEST(JsonDeserializeTest, TheDepthCountsWhatIsOpenNotHowManyThereAre) {
    EXPECT_TRUE(isReadable("[" + repeated(nestedArrays(511) + ",", 100) + "[]]"));
}

TEST(JsonDeserializeTest, TenMillionLevelsAreUnreadableAndHarmless) {
    constexpr size_t kLevels = 10'000'000;
    EXPECT_FALSE(isReadable(std::string(kLevels, '[')));
    EXPECT_FALSE(isReadable(repeated("{\"a\":", kLevels)));
    EXPECT_FALSE(isReadable(nestedArrays(kLevels)));
}

TEST(JsonDeserializeTest, SixtyFourMegabytesOfGarbageAreUnreadableAndHarmless) {
    constexpr size_t kSize = size_t{64} << 20;
    std::string noise(kSize, '\0');
    uint32_t state = 1;
    for (char& byte : noise) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>((state >> 24) % 255 + 1);  // no zero byte, which would be refused at sight
    }
    EXPECT_FALSE(isReadable(noise));
    EXPECT_FALSE(isReadable("[" + noise)) << "inside an array";
}

TEST(JsonDeserializeTest, MegabytesOfOneCharacterAreUnreadableAndHarmless) {
    constexpr size_t kSize = size_t{4} << 20;
    EXPECT_FALSE(isReadable("\"" + std::string(kSize, 'x'))) << "a text that never ends";
    EXPECT_FALSE(isReadable(std::string(kSize, '9')));
    EXPECT_FALSE(isReadable(std::string(kSize, ' ')));
}

}  // namespace
