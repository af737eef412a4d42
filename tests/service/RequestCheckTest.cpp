// Every rule by which a request is refused, one row each, and what is accepted.

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <optional>

#include "service/RequestCheck.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using vexalive::AcceptedRequest;
using vexalive::Refusal;
using vexalive::Result;

namespace {

Result<AcceptedRequest, Refusal> check(const json& body, const std::string& query = kGoodQuery) {
    return vexalive::checkRequest(interfaceOf(body), query, body.dump(), kSuffix);
}

// The refusal, or one with code 0 if the request was accepted.
Refusal refusalOf(const Result<AcceptedRequest, Refusal>& result) {
    return result ? Refusal{0, "", "accepted"} : result.error();
}

// Accepted; the test fails if not.
AcceptedRequest accepted(const json& body, const std::string& query = kGoodQuery) {
    const auto result = check(body, query);
    EXPECT_EQ("accepted", refusalOf(result).message);
    return result.value_or(AcceptedRequest());
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

// ---- One field changed ----------------------------------------------------------------------------------------------

namespace {

const json kLeftOut = json::value_t::discarded;

struct FieldRow {
    const char* name;
    json (*body)();
    const char* pointer;  // what is changed
    json value;           // what it is changed to
    int code;
    const char* field;  // that the refusal names
    const char* says;   // part of its message
};

std::ostream& operator<<(std::ostream& stream, const FieldRow& row) {
    return stream << row.name;
}

class ChangedField : public testing::TestWithParam<FieldRow> {};

json changed(const FieldRow& row) {
    json body = row.body();
    const json::json_pointer pointer(row.pointer);
    if (row.value.is_discarded()) {
        json& parent = body.at(pointer.parent_pointer());
        if (parent.is_array()) {
            parent.erase(std::stoul(pointer.back()));
        } else {
            parent.erase(pointer.back());
        }
    } else {
        body[pointer] = row.value;
    }
    return body;
}

}  // namespace

TEST_P(ChangedField, IsRefusedByNameWithAReason) {
    const FieldRow& row = GetParam();
    ASSERT_EQ("accepted", refusalOf(check(row.body())).message);
    const std::string interfaceName = interfaceOf(row.body());

    const Refusal refusal = refusalOf(vexalive::checkRequest(interfaceName, kGoodQuery, changed(row).dump(), kSuffix));

    EXPECT_EQ(row.code, refusal.code);
    EXPECT_EQ(row.field, refusal.field);
    EXPECT_EQ(0u, refusal.message.find(refusal.field + ": ")) << refusal.message;
    EXPECT_TRUE(contains(refusal.message, row.says)) << refusal.message;
}

#define LAYOUT(index, key) "/input_stream_list/" #index "/layout_params/" key
#define LAYOUT_FIELD(index, key) "input_stream_list[" #index "].layout_params." key

INSTANTIATE_TEST_SUITE_P(
    CommonFields, ChangedField,
    testing::Values(
        FieldRow{"NoInterface", addRelayBody, "/interface", kLeftOut, Refusal::kMissing, "interface", "missing"},
        FieldRow{"InterfaceNumber", addRelayBody, "/interface", 1, Refusal::kType, "interface", "must be a string"},
        FieldRow{"InterfaceOther", addRelayBody, "/interface", "remove_relay_stream_url", Refusal::kValue, "interface",
                 "found \"remove_relay_stream_url\", must be \"add_relay_stream_url\""},
        FieldRow{"NoTimestamp", removeRelayBody, "/timestamp", kLeftOut, Refusal::kMissing, "timestamp", "missing"},
        FieldRow{"TimestampText", removeRelayBody, "/timestamp", "4711", Refusal::kType, "timestamp",
                 "found \"4711\", must be an integer"},
        FieldRow{"TimestampFraction", removeRelayBody, "/timestamp", 1.5, Refusal::kType, "timestamp", "found 1.5"},
        FieldRow{"TimestampNegative", removeRelayBody, "/timestamp", -1, Refusal::kValue, "timestamp", "found -1"},
        FieldRow{"TimestampOfTheWallClock", removeRelayBody, "/timestamp", 1700000000, Refusal::kValue, "timestamp",
                 "from 0 to 4294967"},
        FieldRow{"NoEventId", audioMixBody, "/event_id", kLeftOut, Refusal::kMissing, "event_id", "missing"},
        FieldRow{"EventIdZero", audioMixBody, "/event_id", 0, Refusal::kValue, "event_id", "must not be 0"},
        FieldRow{"EventIdTooLarge", audioMixBody, "/event_id", int64_t{1} << 31, Refusal::kValue, "event_id",
                 "found 2147483648"},
        FieldRow{"EventIdBeyond64Bits", audioMixBody, "/event_id", std::numeric_limits<uint64_t>::max(),
                 Refusal::kValue, "event_id", "found 18446744073709551615"},
        FieldRow{"NoAppid", cancelMixBody, "/appid", kLeftOut, Refusal::kMissing, "appid", "missing"},
        FieldRow{"AppidZero", cancelMixBody, "/appid", 0, Refusal::kValue, "appid", "must not be 0"},
        FieldRow{"AppidTrue", cancelMixBody, "/appid", true, Refusal::kType, "appid", "found true"},
        FieldRow{"NoPath", addRelayBody, "/path", kLeftOut, Refusal::kMissing, "path", "missing"},
        FieldRow{"PathOther", addRelayBody, "/path", "vod", Refusal::kValue, "path", "found \"vod\", must be \"live\""},
        FieldRow{"PathNull", addRelayBody, "/path", nullptr, Refusal::kType, "path", "found null"},
        FieldRow{"NoDomain", addRelayBody, "/domain", kLeftOut, Refusal::kMissing, "domain", "missing"},
        FieldRow{"DomainOfAnotherSuffix", addRelayBody, "/domain", "8888.other.test", Refusal::kValue, "domain",
                 "\".push.test\""},
        FieldRow{"DomainWithoutBiz", addRelayBody, "/domain", "push.test", Refusal::kValue, "domain", "biz id"},
        FieldRow{"DomainBizZero", addRelayBody, "/domain", "0.push.test", Refusal::kValue, "domain", "other than 0"},
        FieldRow{"DomainBizLeadingZero", addRelayBody, "/domain", "08888.push.test", Refusal::kValue, "domain",
                 "biz id"},
        FieldRow{"DomainBizTooLarge", addRelayBody, "/domain", "2147483648.push.test", Refusal::kValue, "domain",
                 "32-bit"},
        FieldRow{"DomainAlone", addRelayBody, "/domain", "8888", Refusal::kValue, "domain", "found \"8888\""},
        FieldRow{"UnknownKey", addRelayBody, "/colour", 1, Refusal::kUnknown, "colour", "not known"},
        FieldRow{"EmptyKey", addRelayBody, "/", 1, Refusal::kUnknown, "\"\"", "not known"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Relay, ChangedField,
    testing::Values(
        FieldRow{"AddWithoutStream", addRelayBody, "/stream_id", kLeftOut, Refusal::kMissing, "stream_id", "missing"},
        FieldRow{"AddStreamNumber", addRelayBody, "/stream_id", 8888, Refusal::kType, "stream_id", "must be a string"},
        FieldRow{"AddStreamOfAnotherBiz", addRelayBody, "/stream_id", "8889_00000000000000000000000000000001",
                 Refusal::kValue, "stream_id", "must be \"8888_\" and 32 lower-case hex digits"},
        FieldRow{"AddStreamUpperCase", addRelayBody, "/stream_id", "8888_0000000000000000000000000000000A",
                 Refusal::kValue, "stream_id", "lower-case"},
        FieldRow{"AddStreamShort", addRelayBody, "/stream_id", "8888_0000", Refusal::kValue, "stream_id",
                 "found \"8888_0000\""},
        FieldRow{"AddStreamLong", addRelayBody, "/stream_id", "8888_000000000000000000000000000000010", Refusal::kValue,
                 "stream_id", "32"},
        FieldRow{"AddWithoutDestination", addRelayBody, "/dest_stream_url", kLeftOut, Refusal::kMissing,
                 "dest_stream_url", "missing"},
        FieldRow{"DestinationEmpty", addRelayBody, "/dest_stream_url", "", Refusal::kValue, "dest_stream_url",
                 "found \"\", must be an address"},
        FieldRow{"DestinationWithoutScheme", addRelayBody, "/dest_stream_url", "cdn.test/live", Refusal::kValue,
                 "dest_stream_url", "must be an address"},
        FieldRow{"DestinationSchemeAlone", addRelayBody, "/dest_stream_url", "rtmp://", Refusal::kValue,
                 "dest_stream_url", "must be an address"},
        FieldRow{"DestinationSchemeMalformed", addRelayBody, "/dest_stream_url", "1rtmp://a", Refusal::kValue,
                 "dest_stream_url", "must be an address"},
        FieldRow{"DestinationWithBlank", addRelayBody, "/dest_stream_url", "rtmp://a b", Refusal::kValue,
                 "dest_stream_url", "must be an address"},
        FieldRow{"DestinationNumber", addRelayBody, "/dest_stream_url", 5, Refusal::kType, "dest_stream_url",
                 "found 5"},
        FieldRow{"AddWithoutCrop", addRelayBody, "/use_mix_crop_center", kLeftOut, Refusal::kMissing,
                 "use_mix_crop_center", "missing"},
        FieldRow{"CropTrue", addRelayBody, "/use_mix_crop_center", true, Refusal::kType, "use_mix_crop_center",
                 "found true, must be an integer from 0 to 1"},
        FieldRow{"CropTwo", addRelayBody, "/use_mix_crop_center", 2, Refusal::kValue, "use_mix_crop_center", "found 2"},
        FieldRow{"RemoveWithoutStream", removeRelayBody, "/stream_id", kLeftOut, Refusal::kMissing, "stream_id",
                 "missing"},
        FieldRow{"RemoveStreamMalformed", removeRelayBody, "/stream_id", "stream", Refusal::kValue, "stream_id", "hex"},
        FieldRow{"RemoveWithDestination", removeRelayBody, "/dest_stream_url", "rtmp://a/b", Refusal::kUnknown,
                 "dest_stream_url", "not known"},
        FieldRow{"RemoveWithCrop", removeRelayBody, "/use_mix_crop_center", 1, Refusal::kUnknown, "use_mix_crop_center",
                 "not known"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    MixOutput, ChangedField,
    testing::Values(
        FieldRow{"NoSession", videoMixBody, "/session_id", kLeftOut, Refusal::kMissing, "session_id", "missing"},
        FieldRow{"SessionMalformed", videoMixBody, "/session_id", "8888-1", Refusal::kValue, "session_id", "hex"},
        FieldRow{"NoOutput", videoMixBody, "/output_param", kLeftOut, Refusal::kMissing, "output_param", "missing"},
        FieldRow{"OutputArray", videoMixBody, "/output_param", json::array(), Refusal::kType, "output_param",
                 "found an array, must be an object"},
        FieldRow{"NoOutputStream", videoMixBody, "/output_param/output_stream_id", kLeftOut, Refusal::kMissing,
                 "output_param.output_stream_id", "missing"},
        FieldRow{"OutputStreamOther", videoMixBody, "/output_param/output_stream_id", streamIdOf(7), Refusal::kValue,
                 "output_param.output_stream_id", "must be \"8888_0"},
        FieldRow{"NoOutputType", videoMixBody, "/output_param/output_stream_type", kLeftOut, Refusal::kMissing,
                 "output_param.output_stream_type", "missing"},
        FieldRow{"OutputTypeOne", videoMixBody, "/output_param/output_stream_type", 1, Refusal::kValue,
                 "output_param.output_stream_type", "must be the integer 0"},
        FieldRow{"BitrateText", videoMixBody, "/output_param/output_stream_bitrate", "1500", Refusal::kType,
                 "output_param.output_stream_bitrate", "must be an integer"},
        FieldRow{"GopNull", videoMixBody, "/output_param/output_stream_gop", nullptr, Refusal::kType,
                 "output_param.output_stream_gop", "found null"},
        FieldRow{"FrameRateFraction", videoMixBody, "/output_param/output_stream_frame_rate", 29.97, Refusal::kType,
                 "output_param.output_stream_frame_rate", "found 29.97"},
        FieldRow{"SampleRateTooLarge", videoMixBody, "/output_param/output_audio_sample_rate", int64_t{1} << 40,
                 Refusal::kValue, "output_param.output_audio_sample_rate", "to 2147483647"},
        FieldRow{"AudioBitrateTrue", videoMixBody, "/output_param/output_audio_bitrate", true, Refusal::kType,
                 "output_param.output_audio_bitrate", "found true"},
        FieldRow{"ChannelsObject", videoMixBody, "/output_param/output_audio_channels", json::object(), Refusal::kType,
                 "output_param.output_audio_channels", "found an object"},
        FieldRow{"NoSei", videoMixBody, "/output_param/output_sei", kLeftOut, Refusal::kMissing,
                 "output_param.output_sei", "missing"},
        FieldRow{"SeiObject", videoMixBody, "/output_param/output_sei", json::object(), Refusal::kType,
                 "output_param.output_sei", "found an object, must be a string"},
        FieldRow{"OutputUnknownKey", videoMixBody, "/output_param/output_width", 1, Refusal::kUnknown,
                 "output_param.output_width", "not known"},
        FieldRow{"NoCrop", videoMixBody, "/use_mix_crop_center", kLeftOut, Refusal::kMissing, "use_mix_crop_center",
                 "missing"},
        FieldRow{"CropThree", videoMixBody, "/use_mix_crop_center", 3, Refusal::kValue, "use_mix_crop_center",
                 "found 3"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    MixInputs, ChangedField,
    testing::Values(FieldRow{"NoInputs", videoMixBody, "/input_stream_list", kLeftOut, Refusal::kMissing,
                             "input_stream_list", "missing"},
                    FieldRow{"InputsObject", videoMixBody, "/input_stream_list", json::object(), Refusal::kType,
                             "input_stream_list", "must be an array"},
                    FieldRow{"InputsEmpty", videoMixBody, "/input_stream_list", json::array(), Refusal::kValue,
                             "input_stream_list", "no user's input"},
                    FieldRow{"InputNumber", audioMixBody, "/input_stream_list/1", 5, Refusal::kType,
                             "input_stream_list[1]", "must be an object"},
                    FieldRow{"CanvasMissing", videoMixBody, "/input_stream_list/0", kLeftOut, Refusal::kValue,
                             "input_stream_list[0]", "must be the canvas"},
                    FieldRow{"CanvasWithoutVideo", videoMixBody, LAYOUT(1, "input_type"), 4, Refusal::kValue,
                             "input_stream_list[0]", "no video input"},
                    FieldRow{"CanvasSecond", videoMixBody, LAYOUT(2, "input_type"), 3, Refusal::kValue,
                             LAYOUT_FIELD(2, "input_type"), "of the first input only"},
                    FieldRow{"CanvasOfAnotherName", videoMixBody, "/input_stream_list/0/input_stream_id", "canvas2",
                             Refusal::kValue, "input_stream_list[0].input_stream_id", "must be \"canvas1\""},
                    FieldRow{"CanvasLayerTwo", videoMixBody, LAYOUT(0, "image_layer"), 2, Refusal::kValue,
                             LAYOUT_FIELD(0, "image_layer"), "must be the integer 1"},
                    FieldRow{"CanvasWidthZero", videoMixBody, LAYOUT(0, "image_width"), 0, Refusal::kValue,
                             LAYOUT_FIELD(0, "image_width"), "from 1"},
                    FieldRow{"CanvasHeightNegative", videoMixBody, LAYOUT(0, "image_height"), -1, Refusal::kValue,
                             LAYOUT_FIELD(0, "image_height"), "from 1"},
                    FieldRow{"CanvasOffLeft", videoMixBody, LAYOUT(0, "location_x"), 1, Refusal::kValue,
                             LAYOUT_FIELD(0, "location_x"), "must be the integer 0"},
                    FieldRow{"CanvasOffTop", videoMixBody, LAYOUT(0, "location_y"), 1, Refusal::kValue,
                             LAYOUT_FIELD(0, "location_y"), "must be the integer 0"},
                    FieldRow{"NoCanvasColor", videoMixBody, LAYOUT(0, "color"), kLeftOut, Refusal::kMissing,
                             LAYOUT_FIELD(0, "color"), "missing"},
                    FieldRow{"CanvasColorNumber", videoMixBody, LAYOUT(0, "color"), 0, Refusal::kType,
                             LAYOUT_FIELD(0, "color"), "must be a string"},
                    FieldRow{"CanvasColorShort", videoMixBody, LAYOUT(0, "color"), "0x000", Refusal::kValue,
                             LAYOUT_FIELD(0, "color"), "six hex digits"},
                    FieldRow{"CanvasColorNotHex", videoMixBody, LAYOUT(0, "color"), "0x00000g", Refusal::kValue,
                             LAYOUT_FIELD(0, "color"), "six hex digits"},
                    FieldRow{"CanvasColorHash", videoMixBody, LAYOUT(0, "color"), "#x000000", Refusal::kValue,
                             LAYOUT_FIELD(0, "color"), "\"0x\""},
                    FieldRow{"CanvasUnknownKey", videoMixBody, LAYOUT(0, "alpha"), 1, Refusal::kUnknown,
                             LAYOUT_FIELD(0, "alpha"), "not known"},
                    FieldRow{"NoInputStream", videoMixBody, "/input_stream_list/1/input_stream_id", kLeftOut,
                             Refusal::kMissing, "input_stream_list[1].input_stream_id", "missing"},
                    FieldRow{"InputStreamOfAnotherBiz", videoMixBody, "/input_stream_list/1/input_stream_id",
                             "1_00000000000000000000000000000001", Refusal::kValue,
                             "input_stream_list[1].input_stream_id", "must be \"8888_\""},
                    FieldRow{"InputUnknownKey", videoMixBody, "/input_stream_list/1/user", "u", Refusal::kUnknown,
                             "input_stream_list[1].user", "not known"},
                    FieldRow{"NoLayout", audioMixBody, "/input_stream_list/0/layout_params", kLeftOut,
                             Refusal::kMissing, "input_stream_list[0].layout_params", "missing"},
                    FieldRow{"LayoutText", audioMixBody, "/input_stream_list/0/layout_params", "{}", Refusal::kType,
                             "input_stream_list[0].layout_params", "must be an object"},
                    FieldRow{"NoInputType", audioMixBody, LAYOUT(1, "input_type"), kLeftOut, Refusal::kMissing,
                             LAYOUT_FIELD(1, "input_type"), "missing"},
                    FieldRow{"InputTypeOne", audioMixBody, LAYOUT(1, "input_type"), 1, Refusal::kValue,
                             LAYOUT_FIELD(1, "input_type"), "must be 0 (video), 4 (audio)"},
                    FieldRow{"InputTypeText", audioMixBody, LAYOUT(1, "input_type"), "4", Refusal::kType,
                             LAYOUT_FIELD(1, "input_type"), "must be an integer"},
                    FieldRow{"LayerSkipsOne", videoMixBody, LAYOUT(2, "image_layer"), 4, Refusal::kValue,
                             LAYOUT_FIELD(2, "image_layer"), "found 4, must be the integer 3"},
                    FieldRow{"FirstAudioLayerTwo", audioMixBody, LAYOUT(0, "image_layer"), 2, Refusal::kValue,
                             LAYOUT_FIELD(0, "image_layer"), "must be the integer 1"},
                    FieldRow{"NoLayer", audioMixBody, LAYOUT(0, "image_layer"), kLeftOut, Refusal::kMissing,
                             LAYOUT_FIELD(0, "image_layer"), "missing"},
                    FieldRow{"WidthNegative", videoMixBody, LAYOUT(1, "image_width"), -1, Refusal::kValue,
                             LAYOUT_FIELD(1, "image_width"), "from 0"},
                    FieldRow{"HeightNegative", videoMixBody, LAYOUT(1, "image_height"), -5, Refusal::kValue,
                             LAYOUT_FIELD(1, "image_height"), "from 0"},
                    FieldRow{"NoWidth", videoMixBody, LAYOUT(1, "image_width"), kLeftOut, Refusal::kMissing,
                             LAYOUT_FIELD(1, "image_width"), "missing"},
                    FieldRow{"LeftFraction", videoMixBody, LAYOUT(1, "location_x"), 0.5, Refusal::kType,
                             LAYOUT_FIELD(1, "location_x"), "found 0.5"},
                    FieldRow{"TopText", videoMixBody, LAYOUT(1, "location_y"), "0", Refusal::kType,
                             LAYOUT_FIELD(1, "location_y"), "must be an integer"},
                    FieldRow{"UserWithColor", videoMixBody, LAYOUT(1, "color"), "0x000000", Refusal::kUnknown,
                             LAYOUT_FIELD(1, "color"), "not known"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    MixCancel, ChangedField,
    testing::Values(FieldRow{"NoSession", cancelMixBody, "/session_id", kLeftOut, Refusal::kMissing, "session_id",
                             "missing"},
                    FieldRow{"OtherOutput", cancelMixBody, "/output_param/output_stream_id", streamIdOf(9),
                             Refusal::kValue, "output_param.output_stream_id", "must be"},
                    FieldRow{"OtherInput", cancelMixBody, "/input_stream_list/0/input_stream_id", streamIdOf(9),
                             Refusal::kValue, "input_stream_list[0].input_stream_id", "must be"},
                    FieldRow{"NoInput", cancelMixBody, "/input_stream_list", json::array(), Refusal::kValue,
                             "input_stream_list", "found 0 inputs, must be the session's own stream alone"},
                    FieldRow{"LayerTwo", cancelMixBody, LAYOUT(0, "image_layer"), 2, Refusal::kValue,
                             LAYOUT_FIELD(0, "image_layer"), "must be the integer 1"},
                    FieldRow{"InputWithType", cancelMixBody, LAYOUT(0, "input_type"), 0, Refusal::kUnknown,
                             LAYOUT_FIELD(0, "input_type"), "not known"},
                    FieldRow{"InputUnknownKey", cancelMixBody, "/input_stream_list/0/user", 1, Refusal::kUnknown,
                             "input_stream_list[0].user", "not known"},
                    FieldRow{"WithCrop", cancelMixBody, "/use_mix_crop_center", 1, Refusal::kMissing,
                             "output_param.output_stream_type", "missing"},
                    FieldRow{"WithSei", cancelMixBody, "/output_param/output_sei", "{}", Refusal::kMissing,
                             "output_param.output_stream_type", "missing"}),
    [](const auto& row) { return row.param.name; });

TEST(RequestCheck, MoreThanSeventeenUsersAreRefusedAndSeventeenAreNot) {
    json body = audioMixBody();
    json& inputs = body["input_stream_list"];
    while (inputs.size() < 17) {
        json next = inputs.back();
        next["layout_params"]["image_layer"] = inputs.size() + 1;
        inputs.push_back(next);
    }
    EXPECT_EQ(17u, accepted(body).inputs.size());

    json next = inputs.back();
    next["layout_params"]["image_layer"] = 18;
    inputs.push_back(next);
    const Refusal refusal = refusalOf(check(body));

    EXPECT_EQ("input_stream_list", refusal.field);
    EXPECT_TRUE(contains(refusal.message, "more than 17")) << refusal.message;
}

// ---- The query ------------------------------------------------------------------------------------------------------

namespace {

struct QueryRow {
    const char* name;
    const char* query;
    const char* field;
    const char* says;
};

std::ostream& operator<<(std::ostream& stream, const QueryRow& row) {
    return stream << row.name;
}

class WrongQuery : public testing::TestWithParam<QueryRow> {};

}  // namespace

TEST_P(WrongQuery, IsRefusedByNameWithoutShowingASecret) {
    const QueryRow& row = GetParam();

    const Refusal refusal = refusalOf(check(addRelayBody(), row.query));

    EXPECT_EQ(Refusal::kQuery, refusal.code);
    EXPECT_EQ(row.field, refusal.field);
    EXPECT_TRUE(contains(refusal.message, row.says)) << refusal.message;
    EXPECT_FALSE(contains(refusal.message + vexalive::maskQuery(row.query), "SECRET"));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, WrongQuery,
    testing::Values(
        QueryRow{"Empty", "", "query: sdkappid", "missing"},
        QueryRow{"NoAppId", "random=1&usersig=SECRET&parivMapKey=SECRET", "query: sdkappid", "missing"},
        QueryRow{"NoRandom", "sdkappid=1&usersig=SECRET&parivMapKey=SECRET", "query: random", "missing"},
        QueryRow{"NoSignature", "sdkappid=1&random=1&parivMapKey=SECRET", "query: usersig", "missing"},
        QueryRow{"NoMapKey", "sdkappid=1&random=1&usersig=SECRET", "query: parivMapKey", "missing"},
        QueryRow{"AppIdText", "sdkappid=abc&random=1&usersig=SECRET&parivMapKey=", "query: sdkappid",
                 "found \"abc\", must be an integer"},
        QueryRow{"AppIdNotUtf8", "sdkappid=SEC\xf7RET1&random=1&usersig=SECRET&parivMapKey=", "query: sdkappid",
                 "found \"SEC\\ufffdRET1\""},
        QueryRow{"AppIdCutBesideALetter",
                 "sdkappid=a23456789012345678901234567890123456789012345\xe2\x82\xac and more"
                 "&random=1&usersig=SECRET&parivMapKey=",
                 "query: sdkappid", "found \"a23456789012345678901234567890123456789012345\\u20ac...\""},
        QueryRow{"AppIdCutInsideALetter",
                 "sdkappid=a2345678901234567890123456789012345678901234567\xe2\x82\xac and more"
                 "&random=1&usersig=SECRET&parivMapKey=",
                 "query: sdkappid", "found \"a2345678901234567890123456789012345678901234567...\""},
        QueryRow{"AppIdEmpty", "sdkappid=&random=1&usersig=SECRET&parivMapKey=", "query: sdkappid", "found \"\""},
        QueryRow{"AppIdBeyond32Bits", "sdkappid=2147483648&random=1&usersig=SECRET&parivMapKey=", "query: sdkappid",
                 "to 2147483647"},
        QueryRow{"AppIdBeyond64Bits", "sdkappid=99999999999999999999&random=1&usersig=SECRET&parivMapKey=",
                 "query: sdkappid", "to 2147483647"},
        QueryRow{"AppIdPlus", "sdkappid=+1&random=1&usersig=SECRET&parivMapKey=", "query: sdkappid", "found \"+1\""},
        QueryRow{"RandomNegative", "sdkappid=1&random=-1&usersig=SECRET&parivMapKey=", "query: random", "0 to 9999"},
        QueryRow{"RandomTooLarge", "sdkappid=1&random=10000&usersig=SECRET&parivMapKey=", "query: random",
                 "found \"10000\""},
        QueryRow{"RandomLeadingZero", "sdkappid=1&random=007&usersig=SECRET&parivMapKey=", "query: random",
                 "found \"007\""},
        QueryRow{"SignatureEmpty", "sdkappid=1&random=1&usersig=&parivMapKey=SECRET", "query: usersig",
                 "found it empty"},
        QueryRow{"UnknownKey", "sdkappid=1&random=1&usersig=SECRET&parivMapKey=SECRET&SECRET=1", "query",
                 "parameter 5"},
        QueryRow{"SignatureWithAmpersand", "sdkappid=1&random=1&usersig=a&SECRET&parivMapKey=SECRET", "query",
                 "parameter 4"},
        QueryRow{"KeyWithoutValue", "sdkappid&random=1&usersig=SECRET&parivMapKey=SECRET", "query", "parameter 1"},
        QueryRow{"EmptyParameter", "sdkappid=1&&random=1&usersig=SECRET&parivMapKey=SECRET", "query", "parameter 2"},
        QueryRow{"AppIdTwice", "sdkappid=1&random=1&usersig=SECRET&parivMapKey=SECRET&sdkappid=2", "query: sdkappid",
                 "twice"},
        QueryRow{"SignatureTwice", "sdkappid=1&random=1&usersig=SECRET&usersig=SECRET&parivMapKey=SECRET",
                 "query: usersig", "twice"}),
    [](const auto& row) { return row.param.name; });

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

namespace {

struct TextRow {
    const char* name;
    std::string text;
    const char* field;
    const char* says;
};

std::ostream& operator<<(std::ostream& stream, const TextRow& row) {
    return stream << row.name;
}

class UnreadableBody : public testing::TestWithParam<TextRow> {};

}  // namespace

TEST_P(UnreadableBody, IsRefused) {
    const TextRow& row = GetParam();

    const Refusal refusal = refusalOf(vexalive::checkRequest("add_relay_stream_url", kGoodQuery, row.text, kSuffix));

    EXPECT_EQ(Refusal::kUnreadable, refusal.code);
    EXPECT_EQ(row.field, refusal.field);
    EXPECT_TRUE(contains(refusal.message, row.says)) << refusal.message;
    EXPECT_LT(refusal.message.size(), 300u);
}

INSTANTIATE_TEST_SUITE_P(Rows, UnreadableBody,
                         testing::Values(TextRow{"Empty", "", "body", "not JSON at byte"},
                                         TextRow{"Text", "hello", "body", "not JSON at byte"},
                                         TextRow{"Half", "{\"interface\":\"add_rel", "body", "not JSON"},
                                         TextRow{"Tail", "{} {}", "body", "not JSON"},
                                         TextRow{"Nul", std::string("{\"a\":\0}", 7), "body", "not JSON at byte 6"},
                                         TextRow{"NulInText", std::string("{\"a\":\"\0\"}", 9), "body", "not JSON"},
                                         TextRow{"NotUtf8", "{\"a\":\"\xff\xfe\"}", "body", "not JSON"},
                                         TextRow{"HalfSurrogate", "{\"a\":\"\\ud800\"}", "body", "not JSON"},
                                         TextRow{"NumberTooLarge", "{\"a\":1e999}", "body", "not JSON"},
                                         TextRow{"Array", "[1]", "body", "found an array, must be a JSON object"},
                                         TextRow{"Null", "null", "body", "found null"},
                                         TextRow{"DoubledKey", "{\"path\":\"live\",\"path\":\"live\"}", "path",
                                                 "twice"},
                                         TextRow{"DoubledDeepKey", "{\"a\":[0,{\"b\":1,\"b\":2}]}", "a[1].b", "twice"},
                                         TextRow{"EmptyKeys", "{\"\":1,\"\":2}", "\"\"", "twice"},
                                         TextRow{"DeepEmptyKeys", "{\"a\":{\"\":1,\"\":2}}", "a.\"\"", "twice"},
                                         TextRow{"DeepArrays", std::string(1'000'000, '['), "body", "deeper than 16"},
                                         TextRow{"DeepObjects",
                                                 [] {
                                                     std::string text;
                                                     for (int depth = 0; depth < 100'000; ++depth) {
                                                         text += "{\"a\":";
                                                     }
                                                     return text;
                                                 }(),
                                                 "body", "deeper than 16"}),
                         [](const auto& row) { return row.param.name; });

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

TEST(RequestCheck, AnAcceptedRelayTellsItsFields) {
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
        json body = addRelayBody();
        body["dest_stream_url"] = url;
        EXPECT_EQ(url, accepted(body).destination);
    }
}

TEST(RequestCheck, ANegativeBizIdIsAccepted) {
    json body = removeRelayBody();
    body["domain"] = std::string("-7.") + kSuffix;
    body["stream_id"] = "-7_0123456789abcdef0123456789abcdef";
    EXPECT_EQ(-7, accepted(body).bizId);
}

TEST(RequestCheck, AVideoMixTellsItsCanvasAndInputs) {
    const AcceptedRequest mix = accepted(videoMixBody());
    EXPECT_EQ(AcceptedRequest::Kind::kStartMix, mix.kind);
    ASSERT_TRUE(mix.canvas);
    EXPECT_EQ(1280, mix.canvas->width);
    EXPECT_EQ(720, mix.canvas->height);
    EXPECT_EQ("0x000000", mix.canvas->color);
    ASSERT_EQ(2u, mix.inputs.size());
    EXPECT_EQ(streamIdOf(1), mix.inputs[0].streamId);
    EXPECT_FALSE(mix.inputs[0].isAudio);
    EXPECT_EQ(2, mix.inputs[0].layer);
    EXPECT_EQ(320, mix.inputs[0].width);
    EXPECT_EQ(240, mix.inputs[0].height);
    EXPECT_EQ(10, mix.inputs[0].x);
    EXPECT_EQ(20, mix.inputs[0].y);
    EXPECT_TRUE(mix.inputs[1].isAudio);
    EXPECT_EQ(3, mix.inputs[1].layer);
    EXPECT_EQ(6u, mix.output.size());
    EXPECT_EQ(1500, mix.output.at("output_stream_bitrate"));
    EXPECT_EQ("{}", mix.sei);
}

TEST(RequestCheck, AnAudioMixHasNoCanvasAndItsOptionalOutputFieldsMayBeAbsent) {
    json body = audioMixBody();
    body["output_param"] = {{"output_stream_id", ownStreamId()}, {"output_stream_type", 0}, {"output_sei", "{}"}};
    const AcceptedRequest mix = accepted(body);
    EXPECT_EQ(AcceptedRequest::Kind::kStartMix, mix.kind);
    EXPECT_FALSE(mix.canvas);
    EXPECT_EQ(2u, mix.inputs.size());
    EXPECT_TRUE(mix.output.empty());
}

TEST(RequestCheck, ACancelIsToldFromAStartByItsBody) {
    const AcceptedRequest cancel = accepted(cancelMixBody());
    EXPECT_EQ(AcceptedRequest::Kind::kCancelMix, cancel.kind);
    EXPECT_EQ(ownStreamId(), cancel.streamId);
}
