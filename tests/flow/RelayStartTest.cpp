// Starting the relay of the local stream.

#include "FlowTest.h"

using kstmedia::VexaPublishCDNParamInternal;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class RelayStartTest : public FlowTest {
protected:
    static constexpr const char* kInvalid = "startPublishStreamUrl failure, param is invalid";

    static VexaPublishCDNParamInternal param(int appId, int bizId, const std::string& url) {
        VexaPublishCDNParamInternal made = relay(url);
        made.appId = appId;
        made.bizId = bizId;
        return made;
    }

    std::string relayBody(size_t number, const std::string& url, int timestamp) {
        return R"({"appid":12345,"dest_stream_url":")" + url + R"(","domain":"8888.push.test","event_id":)" +
               std::to_string(eventId(number)) + R"(,"interface":"add_relay_stream_url","path":"live","stream_id":")" +
               kAliceMain + R"(","timestamp":)" + std::to_string(timestamp) + R"(,"use_mix_crop_center":1})";
    }
};

// ---- Refused --------------------------------------------------------------------------------------------------------

TEST_F(RelayStartTest, IncompleteParameterIsNotifiedAndReportedAndNothingIsSent) {
    const std::pair<VexaPublishCDNParamInternal, const char*> cases[] = {
        {param(12345, 8888, ""), "appId:12345, bizId:8888"},
        {param(0, 8888, "rtmp://a"), "appId:0, bizId:8888"},
        {param(12345, 0, "rtmp://a"), "appId:12345, bizId:0"},
        {param(0, 0, ""), "appId:0, bizId:0"},
    };
    givenInRoom();
    for (const auto& [incomplete, ids] : cases) {
        clearRecords();

        startRelay(incomplete);

        EXPECT_THAT(log(),
                    ElementsAre(Logged{4, "operator()", "error: url invalid url = " + incomplete.url + ", " + ids}));
        EXPECT_THAT(notified(), ElementsAre(Call{"startRelay", -3323, kInvalid}));
        EXPECT_THAT(reports(), ElementsAre(Reported{30, ids + (", url:" + incomplete.url), kInvalid}));
        EXPECT_THAT(requests(), IsEmpty());
    }
}

TEST_F(RelayStartTest, NegativeIdsAreAccepted) {
    givenInRoom();

    startRelay(param(-1, -2, "rtmp://a"));

    EXPECT_THAT(notified(), IsEmpty());
    EXPECT_THAT(body(0), HasSubstr(R"({"appid":-1,"dest_stream_url":"rtmp://a","domain":"-2.push.test",)"));
    EXPECT_THAT(body(0), HasSubstr(R"("stream_id":"-2_fcbd0847daa9c600a757e0d48049b252",)"));
}

TEST_F(RelayStartTest, RefusedParameterDoesNotReplaceTheStoredOne) {
    givenSent(kAddRelay);
    respond(kRetryable, "");

    startRelay(relay(""));
    pass(Milliseconds(1000));

    // Intended: the retry of a relay start is sent even if it is superseded. It still has the first address.
    EXPECT_THAT(body(1), HasSubstr(member("dest_stream_url", kUrl)));
}

TEST_F(RelayStartTest, ParameterIsCopiedInTheCall) {
    givenInRoom();
    VexaPublishCDNParamInternal changing = relay();

    mAdapter->startPublishStreamUrl(changing);
    changing.url = kOtherUrl;
    run();

    EXPECT_THAT(body(0), HasSubstr(kUrl));
}

// ---- Sent -----------------------------------------------------------------------------------------------------------

TEST_F(RelayStartTest, StartInTheRoomSendsTheRelaysBodyAndReportsIt) {
    givenInRoom();

    startRelay();

    ASSERT_THAT(requests(), SizeIs(1));
    EXPECT_EQ(body(0), relayBody(0, kUrl, 1000));
    expectNeitherNotifiedNorReported();

    respondOk();

    EXPECT_THAT(notified(), ElementsAre(Call{"startRelay", 0, "sucess"}));
    EXPECT_THAT(reports(),
                ElementsAre(Reported{30, relay().to_string(),
                                     body(0) + R"( [tryHttp:cnt-10]retCode:0, respData:{"code":0,"message":"fine"})"}));
}

TEST_F(RelayStartTest, DestinationOfAnyCharactersIsSentAsJsonAndReportedWhole) {
    const std::string longUrl = "rtmp://" + std::string(5000, 'u');
    const std::pair<std::string, std::string> cases[] = {
        {"rtmp://h/\"q\" \\b\t\n\x01 é中 %d", R"(rtmp://h/\"q\" \\b\t\n\u0001 é中 %d)"},
        {longUrl, longUrl},
        {"rtmp://\xff/a", "rtmp://\xef\xbf\xbd/a"}};
    givenInRoom();
    for (const auto& [url, sent] : cases) {
        clearRecords();

        startRelay(relay(url));
        respondOk();

        EXPECT_EQ(body(0), relayBody(0, sent, 1000));
        EXPECT_THAT(reports(), ElementsAre(Reported{30, "appId:12345, bizId:8888, url:" + url,
                                                    body(0) + traceSegment(10, 0, kOk)}));
    }
}

// ---- Retried --------------------------------------------------------------------------------------------------------

TEST_F(RelayStartTest, WaitingRetrySendsTheNewestAddressEvenWhenSuperseded) {
    givenSent(kAddRelay);
    respond(kRetryable, "");
    startRelay(relay(kOtherUrl));
    pass(Milliseconds(500));
    respondTo(1, kRetryable, "");
    clearRecords();

    pass(Milliseconds(1000));

    ASSERT_THAT(requests(), SizeIs(2));
    EXPECT_EQ(body(0), relayBody(0, kOtherUrl, 1001));
    EXPECT_EQ(body(1), relayBody(1, kOtherUrl, 1001));
    // Both log lines print the counter of the newest start.
    EXPECT_THAT(log(), ElementsAre(sendLog(kAddRelay, 1, 1, body(0)), sendLog(kAddRelay, 2, 1, body(1))));
}

TEST_F(RelayStartTest, StopWhileARetryWaitsLetsItSendTheAddressAndZeroesItsCounter) {
    givenSent(kAddRelay);
    respond(kRetryable, "");
    begin(kRemoveRelay);

    pass(Milliseconds(1000));

    ASSERT_THAT(requests(), SizeIs(3));
    EXPECT_EQ(body(2), relayBody(2, kUrl, 1001));
    EXPECT_EQ(log().back(), sendLog(kAddRelay, 1, 10, body(2)));
}
