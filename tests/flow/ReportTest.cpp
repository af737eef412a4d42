// The room event report made when a task ends.

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ReportTest : public FlowTest {
protected:
    void expectWarned(const std::string& text) {
        EXPECT_EQ(log().back(), (Logged{4, "operator()", text}));
        EXPECT_THAT(mPlatform.reports, SizeIs(1));
    }
    void expectNotWarned() {
        for (const Logged& line : log()) {
            EXPECT_EQ(line.text.find("self->mUserId"), std::string::npos) << line.text;
        }
        EXPECT_THAT(mPlatform.reports, SizeIs(1));
    }
};

TEST_F(ReportTest, SevenArgumentsOfARelayReport) {
    givenInRoom();

    startRelay(relay(""));

    ASSERT_THAT(mPlatform.reports, SizeIs(1));
    const FakePlatform::Report& report = mPlatform.reports[0];
    EXPECT_EQ(report.sdkAppId, 1400123);
    EXPECT_EQ(report.reserved, 0u);
    EXPECT_EQ(report.roomUser, "room7_alice");
    EXPECT_EQ(report.eventType, 10004);
    EXPECT_EQ(report.event, 30);
    EXPECT_EQ(report.information, "sdkver:9.8.7 appId:12345, bizId:8888, url:");
    EXPECT_EQ(report.detail, "startPublishStreamUrl failure, param is invalid");
    expectNotWarned();
}

TEST_F(ReportTest, WithoutAnAppIdItWarnsAndReportsZero) {
    mAdapter->updateUserInfo(0, kUserSig, "alice");

    startRelay();

    expectWarned("mSdkAppId:0, self->mUserId:alice");
    EXPECT_EQ(mPlatform.reports[0].sdkAppId, 0);
}

TEST_F(ReportTest, WithoutAUserItWarnsAndReports) {
    mAdapter->updateUserInfo(1400, kUserSig, "");
    enterRoom();

    startRelay(relay(""));

    expectWarned("mSdkAppId:1400, self->mUserId:");
    EXPECT_EQ(mPlatform.reports[0].roomUser, "room7_");
}

TEST_F(ReportTest, WithoutAnyIdentityItWarnsOnceAndReports) {
    startRelay();

    EXPECT_THAT(log(), ElementsAre(Logged{2, "operator()", "not enterRoom status"},
                                   Logged{4, "operator()", "mSdkAppId:0, self->mUserId:"}));
    EXPECT_EQ(mPlatform.reports.at(0).roomUser, "_");
}

TEST_F(ReportTest, EmptyRoomGivesARoomUserThatStartsWithTheUnderscore) {
    givenUser();

    startRelay();

    EXPECT_EQ(mPlatform.reports.at(0).roomUser, "_alice");
    expectNotWarned();
}

TEST_F(ReportTest, AppIdIsReportedAsItsLow32BitsAndMissingOnlyIfAll64Are0) {
    const std::pair<int64_t, int> cases[] = {
        {int64_t{2147483648}, -2147483647 - 1}, {int64_t{4294967296}, 0}, {int64_t{4294967301}, 5}, {-1, -1}};
    for (const auto& [sdkAppId, reported] : cases) {
        clearRecords();
        mAdapter->updateUserInfo(sdkAppId, kUserSig, "alice");

        startRelay();

        expectNotWarned();
        EXPECT_EQ(mPlatform.reports[0].sdkAppId, reported);
    }
}

TEST_F(ReportTest, WarningPrintsTheAppIdsLow32Bits) {
    mAdapter->updateUserInfo(int64_t{4294967296} + 2147483648, kUserSig, "");

    startRelay();

    expectWarned("mSdkAppId:-2147483648, self->mUserId:");
}

TEST_F(ReportTest, ReportIsATaskOfTheWorker) {
    givenSent(kAddRelay);

    mPlatform.respond(0, 0, kOk);

    EXPECT_THAT(notified(), SizeIs(1));
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_EQ(VirtualTime::queuedTasks(), 1u);
    run();
    EXPECT_THAT(reports(), SizeIs(1));
}

TEST_F(ReportTest, IdentityIsThatOfTheTimeTheReportIsMade) {
    givenSent(kAddRelay);
    mAdapter->updateUserInfo(77, kUserSig, "bob");
    mAdapter->updateEnterRoomInfo("room9", kMapKey);

    mPlatform.respond(0, 0, kOk);
    mAdapter->updateUserInfo(88, kUserSig, "carol");  // behind the report
    run();

    EXPECT_EQ(mPlatform.reports.at(0).sdkAppId, 77);
    EXPECT_EQ(mPlatform.reports.at(0).roomUser, "room9_bob");
}

TEST_F(ReportTest, ZeroByteEndsAStringOfTheReportAndOfTheLog) {
    mAdapter->updateUserInfo(kSdkAppId, kUserSig, std::string("ali\0ce", 6));
    enterRoom(std::string("ro\0om", 5));
    startRelay(relay(std::string("rtmp://a\0b", 10)));
    EXPECT_THAT(body(0), testing::HasSubstr(R"("dest_stream_url":"rtmp://a\u0000b")"));

    respondToAll(0, std::string("no\0json", 7));

    EXPECT_EQ(mPlatform.reports.at(0).roomUser, "ro");
    EXPECT_EQ(reports()[0].information, "appId:12345, bizId:8888, url:rtmp://a");
    EXPECT_EQ(reports()[0].detail, body(0) + " [tryHttp:cnt-10]retCode:0, respData:no");
    EXPECT_THAT(log().back().text, "retryAddPublishUrlInner index: 1, ret: 0, respData: no");
}

TEST_F(ReportTest, LongStringsAreReportedWhole) {
    givenInRoom();
    std::vector<kstmedia::VexaMixUserInternal> users;
    for (int i = 0; i <= 16; ++i) {
        users.push_back(user(std::string(5000, 'u'), i));
    }
    startMix(mix(users));
    const std::string reply = R"({"code":0,"padding":")" + std::string(10000, 'p') + "\"}";

    respond(0, reply);

    EXPECT_EQ(reports().at(0).information, mix(users).to_string());
    EXPECT_GT(reports()[0].information.size(), 17u * 259);
    EXPECT_THAT(reports()[0].detail, testing::EndsWith(traceSegment(10, 0, reply)));
}
