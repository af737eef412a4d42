// The rules for requests. Most rules are one row of a table.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <regex>
#include <set>

#include "service/RequestCheck.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using vexalive::AcceptedRequest;
using vexalive::Refusal;
using vexalive::Result;

namespace {

constexpr int kMissing = Refusal::kMissing;
constexpr int kUnknown = Refusal::kUnknown;
constexpr int kType = Refusal::kType;
constexpr int kValue = Refusal::kValue;

Result<AcceptedRequest, Refusal> check(const json& body, const std::string& query = kGoodQuery) {
    return vexalive::checkRequest(interfaceOf(body), query, body.dump(), kSuffix);
}

// The refusal; if the request was accepted, a Refusal with code 0.
Refusal refusalOf(const Result<AcceptedRequest, Refusal>& result) {
    return result ? Refusal{0, "", "accepted"} : result.error();
}

// Returns the accepted request. If it is refused, the test fails.
AcceptedRequest accepted(const json& body, const std::string& query = kGoodQuery) {
    const auto result = check(body, query);
    EXPECT_EQ("accepted", refusalOf(result).message);
    return result.value_or(AcceptedRequest());
}

// "/input_stream_list/0/layout_params/color" → "input_stream_list[0].layout_params.color"
std::string fieldAt(const std::string& pointer) {
    const std::string field = std::regex_replace(pointer.substr(1), std::regex("/([0-9]+)"), "[$1]");
    return std::regex_replace(field, std::regex("/"), ".");
}

void expectRefusal(int code, const std::string& field, const std::string& reason, const Refusal& refusal) {
    EXPECT_EQ(code, refusal.code);
    EXPECT_EQ(field, refusal.field);
    EXPECT_THAT(refusal.message, StartsWith(refusal.field + ": "));
    EXPECT_THAT(refusal.message, HasSubstr(reason));
}

}  // namespace

// ---- One field changed ----------------------------------------------------------------------------------------------

TEST(RequestCheck, AMissingFieldIsRefusedByName) {
    const std::set<std::string> optional = {"output_stream_bitrate",    "output_stream_gop",
                                            "output_stream_frame_rate", "output_audio_sample_rate",
                                            "output_audio_bitrate",     "output_audio_channels"};
    // If one of these is missing, the mix seems to have no canvas or no video, which is another error.
    const std::set<std::string> canvasRules = {
        "/input_stream_list/0/layout_params", "/input_stream_list/0/layout_params/input_type",
        "/input_stream_list/1/layout_params", "/input_stream_list/1/layout_params/input_type"};
    for (const auto body : {addRelayBody, removeRelayBody, videoMixBody, audioMixBody, cancelMixBody}) {
        accepted(body());
        std::set<json::json_pointer> pointers;  // pointers to all fields and array elements
        const json leaves = body().flatten();
        for (const auto& leaf : leaves.items()) {
            for (json::json_pointer each(leaf.key()); !each.empty(); each.pop_back()) {
                pointers.insert(each);
            }
        }
        for (const json::json_pointer& pointer : pointers) {
            json changed = body();
            json& parent = changed[pointer.parent_pointer()];
            if (parent.is_array()) {
                continue;
            }
            SCOPED_TRACE(pointer.to_string() + " of " + interfaceOf(body()));
            parent.erase(pointer.back());
            const auto result = vexalive::checkRequest(interfaceOf(body()), kGoodQuery, changed.dump(), kSuffix);
            if (optional.count(pointer.back()) != 0) {
                EXPECT_TRUE(result);
            } else if (body == videoMixBody && canvasRules.count(pointer.to_string()) != 0) {
                expectRefusal(kValue, "input_stream_list[0]", "canvas", refusalOf(result));
            } else {
                expectRefusal(kMissing, fieldAt(pointer.to_string()), "missing", refusalOf(result));
            }
        }
    }
}

TEST(RequestCheck, AChangedFieldIsRefusedByNameWithAReason) {
#define LAYOUT(index, key) "/input_stream_list/" #index "/layout_params/" key
    const struct {
        json (*body)();
        const char* pointer;  // to the field that is changed
        json value;           // its new value
        int code;
        const char* reason;           // part of the message
        const char* field = nullptr;  // field that the refusal names; null: the changed field
    } rows[] = {
        {addRelayBody, "/interface", 1, kType, "must be a string"},
        {addRelayBody, "/interface", "remove_relay_stream_url", kValue,
         "found \"remove_relay_stream_url\", must be \"add_relay_stream_url\""},
        {removeRelayBody, "/timestamp", "4711", kType, "found \"4711\", must be an integer"},
        {removeRelayBody, "/timestamp", 1.5, kType, "found 1.5"},
        {removeRelayBody, "/timestamp", -1, kValue, "found -1"},
        {removeRelayBody, "/timestamp", 1700000000, kValue, "from 0 to 4294967"},
        {audioMixBody, "/event_id", 0, kValue, "must not be 0"},
        {audioMixBody, "/event_id", int64_t{1} << 31, kValue, "found 2147483648"},
        {audioMixBody, "/event_id", std::numeric_limits<uint64_t>::max(), kValue, "found 18446744073709551615"},
        {cancelMixBody, "/appid", 0, kValue, "must not be 0"},
        {cancelMixBody, "/appid", true, kType, "found true"},
        {addRelayBody, "/path", "vod", kValue, "found \"vod\", must be \"live\""},
        {addRelayBody, "/path", nullptr, kType, "found null"},
        {addRelayBody, "/domain", "8888.other.test", kValue, "\".push.test\""},
        {addRelayBody, "/domain", "push.test", kValue, "biz id"},
        {addRelayBody, "/domain", "0.push.test", kValue, "other than 0"},
        {addRelayBody, "/domain", "08888.push.test", kValue, "biz id"},
        {addRelayBody, "/domain", "2147483648.push.test", kValue, "32-bit"},
        {addRelayBody, "/domain", "8888", kValue, "found \"8888\""},
        {addRelayBody, "/colour", 1, kUnknown, "unknown field"},
        {addRelayBody, "/", 1, kUnknown, "unknown field", "\"\""},
        {addRelayBody, "/stream_id", 8888, kType, "must be a string"},
        {addRelayBody, "/stream_id", "8889_00000000000000000000000000000001", kValue,
         "must be \"8888_\" and 32 lower-case hex digits"},
        {addRelayBody, "/stream_id", "8888_0000000000000000000000000000000A", kValue, "lower-case"},
        {addRelayBody, "/stream_id", "8888_0000", kValue, "found \"8888_0000\""},
        {addRelayBody, "/stream_id", "8888_000000000000000000000000000000010", kValue, "32"},
        {addRelayBody, "/dest_stream_url", "", kValue, "found \"\", must be an address"},
        {addRelayBody, "/dest_stream_url", "cdn.test/live", kValue, "must be an address"},
        {addRelayBody, "/dest_stream_url", "rtmp://", kValue, "must be an address"},
        {addRelayBody, "/dest_stream_url", "1rtmp://a", kValue, "must be an address"},
        {addRelayBody, "/dest_stream_url", "rtmp://a b", kValue, "must be an address"},
        {addRelayBody, "/dest_stream_url", 5, kType, "found 5"},
        {addRelayBody, "/use_mix_crop_center", true, kType, "found true, must be an integer from 0 to 1"},
        {addRelayBody, "/use_mix_crop_center", 2, kValue, "found 2"},
        {removeRelayBody, "/stream_id", "stream", kValue, "hex"},
        {removeRelayBody, "/dest_stream_url", "rtmp://a/b", kUnknown, "unknown field"},
        {removeRelayBody, "/use_mix_crop_center", 1, kUnknown, "unknown field"},
        {videoMixBody, "/session_id", "8888-1", kValue, "hex"},
        {videoMixBody, "/output_param", json::array(), kType, "found an array, must be an object"},
        {videoMixBody, "/output_param/output_stream_id", streamIdOf(7), kValue, "must be \"8888_0"},
        {videoMixBody, "/output_param/output_stream_type", 1, kValue, "must be the integer 0"},
        {videoMixBody, "/output_param/output_stream_bitrate", "1500", kType, "must be an integer"},
        {videoMixBody, "/output_param/output_stream_gop", nullptr, kType, "found null"},
        {videoMixBody, "/output_param/output_stream_frame_rate", 29.97, kType, "found 29.97"},
        {videoMixBody, "/output_param/output_audio_sample_rate", int64_t{1} << 40, kValue, "to 2147483647"},
        {videoMixBody, "/output_param/output_audio_bitrate", true, kType, "found true"},
        {videoMixBody, "/output_param/output_audio_channels", json::object(), kType, "found an object"},
        {videoMixBody, "/output_param/output_sei", json::object(), kType, "found an object, must be a string"},
        {videoMixBody, "/output_param/output_width", 1, kUnknown, "unknown field"},
        {videoMixBody, "/use_mix_crop_center", 3, kValue, "found 3"},
        {videoMixBody, "/input_stream_list", json::object(), kType, "must be an array"},
        {videoMixBody, "/input_stream_list", json::array(), kValue, "no user's input"},
        {audioMixBody, "/input_stream_list/1", 5, kType, "must be an object"},
        {videoMixBody, "/input_stream_list/0", audioMixBody()["input_stream_list"][0], kValue, "must be the canvas"},
        {videoMixBody, LAYOUT(1, "input_type"), 4, kValue, "no video input", "input_stream_list[0]"},
        {videoMixBody, LAYOUT(2, "input_type"), 3, kValue, "of the first input only"},
        {videoMixBody, "/input_stream_list/0/input_stream_id", "canvas2", kValue, "must be \"canvas1\""},
        {videoMixBody, LAYOUT(0, "image_layer"), 2, kValue, "must be the integer 1"},
        {videoMixBody, LAYOUT(0, "image_width"), 0, kValue, "from 1"},
        {videoMixBody, LAYOUT(0, "image_height"), -1, kValue, "from 1"},
        {videoMixBody, LAYOUT(0, "location_x"), 1, kValue, "must be the integer 0"},
        {videoMixBody, LAYOUT(0, "location_y"), 1, kValue, "must be the integer 0"},
        {videoMixBody, LAYOUT(0, "color"), 0, kType, "must be a string"},
        {videoMixBody, LAYOUT(0, "color"), "0x000", kValue, "six hex digits"},
        {videoMixBody, LAYOUT(0, "color"), "0x00000g", kValue, "six hex digits"},
        {videoMixBody, LAYOUT(0, "color"), "#x000000", kValue, "\"0x\""},
        {videoMixBody, LAYOUT(0, "alpha"), 1, kUnknown, "unknown field"},
        {videoMixBody, "/input_stream_list/1/input_stream_id", "1_00000000000000000000000000000001", kValue,
         "must be \"8888_\""},
        {videoMixBody, "/input_stream_list/1/user", "u", kUnknown, "unknown field"},
        {audioMixBody, "/input_stream_list/0/layout_params", "{}", kType, "must be an object"},
        {audioMixBody, LAYOUT(1, "input_type"), 1, kValue, "must be 0 (video), 4 (audio)"},
        {audioMixBody, LAYOUT(1, "input_type"), "4", kType, "must be an integer"},
        {videoMixBody, LAYOUT(2, "image_layer"), 4, kValue, "found 4, must be the integer 3"},
        {audioMixBody, LAYOUT(0, "image_layer"), 2, kValue, "must be the integer 1"},
        {videoMixBody, LAYOUT(1, "image_width"), -1, kValue, "from 0"},
        {videoMixBody, LAYOUT(1, "image_height"), -5, kValue, "from 0"},
        {videoMixBody, LAYOUT(1, "location_x"), 0.5, kType, "found 0.5"},
        {videoMixBody, LAYOUT(1, "location_y"), "0", kType, "must be an integer"},
        {videoMixBody, LAYOUT(1, "color"), "0x000000", kUnknown, "unknown field"},
        {cancelMixBody, "/output_param/output_stream_id", streamIdOf(9), kValue, "must be"},
        {cancelMixBody, "/input_stream_list/0/input_stream_id", streamIdOf(9), kValue, "must be"},
        {cancelMixBody, "/input_stream_list", json::array(), kValue,
         "found 0 inputs, must be the session's own stream alone"},
        {cancelMixBody, LAYOUT(0, "image_layer"), 2, kValue, "must be the integer 1"},
        {cancelMixBody, LAYOUT(0, "input_type"), 0, kUnknown, "unknown field"},
        {cancelMixBody, "/input_stream_list/0/user", 1, kUnknown, "unknown field"},
        {cancelMixBody, "/use_mix_crop_center", 1, kMissing, "missing", "output_param.output_stream_type"},
        {cancelMixBody, "/output_param/output_sei", "{}", kMissing, "missing", "output_param.output_stream_type"},
    };
#undef LAYOUT
    for (const auto& row : rows) {
        SCOPED_TRACE(row.pointer + (" = " + row.value.dump()));
        json body = row.body();
        const std::string interfaceName = interfaceOf(body);
        body[json::json_pointer(row.pointer)] = row.value;
        const auto result = vexalive::checkRequest(interfaceName, kGoodQuery, body.dump(), kSuffix);
        expectRefusal(row.code, row.field ? row.field : fieldAt(row.pointer), row.reason, refusalOf(result));
    }
}

TEST(RequestCheck, MoreThanSeventeenUsersAreRefusedAndSeventeenAreNot) {
    json body = audioMixBody();
    json& inputs = body["input_stream_list"];
    while (inputs.size() < 18) {
        inputs.push_back(inputs.back());
        inputs.back()["layout_params"]["image_layer"] = inputs.size();
    }
    const Refusal refusal = refusalOf(check(body));
    EXPECT_EQ("input_stream_list", refusal.field);
    EXPECT_THAT(refusal.message, HasSubstr("more than 17"));

    inputs.erase(17);
    EXPECT_EQ(17u, accepted(body).inputs.size());
}

// ---- The query ------------------------------------------------------------------------------------------------------

TEST(RequestCheck, AMalformedQueryIsRefusedByNameWithoutShowingASecret) {
#define REST "&random=1&usersig=SECRET&parivMapKey="
    const struct {
        const char* query;
        const char* field;
        const char* reason;
    } rows[] = {
        {"", "query: sdkappid", "missing"},
        {"random=1&usersig=SECRET&parivMapKey=SECRET", "query: sdkappid", "missing"},
        {"sdkappid=1&usersig=SECRET&parivMapKey=SECRET", "query: random", "missing"},
        {"sdkappid=1&random=1&parivMapKey=SECRET", "query: usersig", "missing"},
        {"sdkappid=1&random=1&usersig=SECRET", "query: parivMapKey", "missing"},
        {"sdkappid=abc" REST, "query: sdkappid", "found \"abc\", must be an integer"},
        {"sdkappid=SEC\xf7RET1" REST, "query: sdkappid", "found \"SEC\\ufffdRET1\""},
        {"sdkappid=a23456789012345678901234567890123456789012345\xe2\x82\xac and more" REST, "query: sdkappid",
         "found \"a23456789012345678901234567890123456789012345\\u20ac...\""},
        {"sdkappid=a2345678901234567890123456789012345678901234567\xe2\x82\xac and more" REST, "query: sdkappid",
         "found \"a2345678901234567890123456789012345678901234567...\""},
        {"sdkappid=" REST, "query: sdkappid", "found \"\""},
        {"sdkappid=2147483648" REST, "query: sdkappid", "to 2147483647"},
        {"sdkappid=99999999999999999999" REST, "query: sdkappid", "to 2147483647"},
        {"sdkappid=+1" REST, "query: sdkappid", "found \"+1\""},
        {"sdkappid=1&random=-1&usersig=SECRET&parivMapKey=", "query: random", "0 to 9999"},
        {"sdkappid=1&random=10000&usersig=SECRET&parivMapKey=", "query: random", "found \"10000\""},
        {"sdkappid=1&random=007&usersig=SECRET&parivMapKey=", "query: random", "found \"007\""},
        {"sdkappid=1&random=1&usersig=&parivMapKey=SECRET", "query: usersig", "found it empty"},
        {"sdkappid=1&random=1&usersig=SECRET&parivMapKey=SECRET&SECRET=1", "query", "parameter 5"},
        {"sdkappid=1&random=1&usersig=a&SECRET&parivMapKey=SECRET", "query", "parameter 4"},
        {"sdkappid&random=1&usersig=SECRET&parivMapKey=SECRET", "query", "parameter 1"},
        {"sdkappid=1&&random=1&usersig=SECRET&parivMapKey=SECRET", "query", "parameter 2"},
        {"sdkappid=1&random=1&usersig=SECRET&parivMapKey=SECRET&sdkappid=2", "query: sdkappid", "twice"},
        {"sdkappid=1&random=1&usersig=SECRET&usersig=SECRET&parivMapKey=SECRET", "query: usersig", "twice"},
    };
#undef REST
    for (const auto& row : rows) {
        SCOPED_TRACE(row.query);
        const Refusal refusal = refusalOf(check(addRelayBody(), row.query));
        expectRefusal(Refusal::kQuery, row.field, row.reason, refusal);
        EXPECT_THAT(refusal.message + vexalive::maskQuery(row.query), Not(HasSubstr("SECRET")));
    }
}

TEST(RequestCheck, TheMapKeyMayBeEmptyAndTheAppIdNegative) {
    accepted(addRelayBody(), "sdkappid=-5&random=0&usersig=a=b&parivMapKey=");
    accepted(addRelayBody(), "parivMapKey=k&usersig=s&random=9999&sdkappid=2147483647");
}

TEST(RequestCheck, AMaskedQueryShowsOnlyTheNumbers) {
    EXPECT_EQ("sdkappid=1400&random=42&usersig=***&parivMapKey=***", vexalive::maskQuery(kGoodQuery));
    EXPECT_EQ("sdkappid=1&random=2&usersig=***&***&***&parivMapKey=",
              vexalive::maskQuery("sdkappid=1&random=2&usersig=a&b&c=d&parivMapKey="));
    EXPECT_EQ("sdkappid=***&sdkappid=***&random=1&random=***",
              vexalive::maskQuery("sdkappid=abc&sdkappid=2&random=1&random=2"));
    EXPECT_EQ("", vexalive::maskQuery(""));
}

// ---- Bodies that are no object --------------------------------------------------------------------------------------

TEST(RequestCheck, AnUnreadableBodyIsRefused) {
    const struct {
        std::string body;
        const char* field;
        const char* reason;
    } rows[] = {
        {"", "body", "invalid JSON at byte"},
        {"hello", "body", "invalid JSON at byte"},
        {"{\"interface\":\"add_rel", "body", "invalid JSON"},
        {"{} {}", "body", "invalid JSON"},
        {std::string("{\"a\":\0}", 7), "body", "invalid JSON at byte 6"},
        {std::string("{\"a\":\"\0\"}", 9), "body", "invalid JSON"},
        {"{\"a\":\"\xff\xfe\"}", "body", "invalid JSON"},
        {"{\"a\":\"\\ud800\"}", "body", "invalid JSON"},
        {"{\"a\":1e999}", "body", "invalid JSON"},
        {"[1]", "body", "found an array, must be a JSON object"},
        {"null", "body", "found null"},
        {"{\"path\":\"live\",\"path\":\"live\"}", "path", "twice"},
        {"{\"a\":[0,{\"b\":1,\"b\":2}]}", "a[1].b", "twice"},
        {"{\"\":1,\"\":2}", "\"\"", "twice"},
        {"{\"a\":{\"\":1,\"\":2}}", "a.\"\"", "twice"},
        {R"({"a":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{"a":)", "body",
         "deeper than 16"},
        {std::string(1'000'000, '['), "body", "deeper than 16"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.body.substr(0, 100));
        const Refusal refusal =
            refusalOf(vexalive::checkRequest("add_relay_stream_url", kGoodQuery, row.body, kSuffix));
        expectRefusal(Refusal::kUnreadable, row.field, row.reason, refusal);
        EXPECT_LT(refusal.message.size(), 300u);
    }
}

TEST(RequestCheck, AMessageStaysShortAndAsciiWhateverWasFound) {
    json body = addRelayBody();
    body["dest_stream_url"] = std::string(100'000, 'x') + "\xc3\xa9";
    body["path"] = "\xc3\xa9\xe2\x82\xac\n\x01" + std::string(1000, 'y');
    const std::string message = refusalOf(check(body)).message;
    EXPECT_LT(message.size(), 200u);
    for (const char c : message) {
        EXPECT_TRUE(c >= ' ' && c <= '~') << static_cast<int>(c);
    }

    json strange = addRelayBody();
    strange[std::string(100'000, 'k') + "\xc3\xa9"] = 1;
    EXPECT_LT(refusalOf(check(strange)).message.size(), 200u);
}

// ---- What is accepted -----------------------------------------------------------------------------------------------

TEST(RequestCheck, AnAcceptedRelayHasItsFields) {
    const AcceptedRequest add = accepted(addRelayBody());
    EXPECT_EQ(AcceptedRequest::Kind::kAddRelay, add.kind);
    EXPECT_EQ(1234, add.appId);
    EXPECT_EQ(8888, add.bizId);
    EXPECT_EQ(ownStreamId(), add.streamId);
    EXPECT_EQ("rtmp://cdn.test/live/one", add.destination);
    EXPECT_TRUE(add.cropsCenter);

    const AcceptedRequest remove = accepted(removeRelayBody());
    EXPECT_EQ(AcceptedRequest::Kind::kRemoveRelay, remove.kind);
    EXPECT_EQ(ownStreamId(), remove.streamId);
}

TEST(RequestCheck, AnyUrlSchemeIsAccepted) {
    for (const char* url : {"rtmps://a/b", "http://a", "https://a:1/b?c=d", "srt://a:9000?streamid=x", "a+b-1.c://x"}) {
        EXPECT_EQ(url, accepted(relayOf(1, url)).destination);
    }
}

TEST(RequestCheck, ANegativeBizIdIsAccepted) {
    json body = removeRelayBody();
    body["domain"] = std::string("-7.") + kSuffix;
    body["stream_id"] = "-7_0123456789abcdef0123456789abcdef";
    EXPECT_EQ(-7, accepted(body).bizId);
}

// The canvas, inputs and output of a mix are checked in WorkerPoolTest.
TEST(RequestCheck, AStartAndACancelOfAMixDifferByTheirBodies) {
    EXPECT_EQ(AcceptedRequest::Kind::kStartMix, accepted(videoMixBody()).kind);
    EXPECT_EQ("{}", accepted(videoMixBody()).sei);
    EXPECT_EQ(AcceptedRequest::Kind::kStartMix, accepted(audioMixBody()).kind);
    EXPECT_EQ(AcceptedRequest::Kind::kCancelMix, accepted(cancelMixBody()).kind);
    EXPECT_EQ(ownStreamId(), accepted(cancelMixBody()).streamId);
}
