// The room event report at the end of a task.

#include <limits>

#include "FlowTest.h"

using ::testing::IsEmpty;
using ::testing::SizeIs;

class ReportTest : public FlowTest {};

TEST_F(ReportTest, ReportWithoutAnAppIdOrUserIsMadeAndLoggedAsAnError) {
    constexpr int64_t kBit32 = int64_t{1} << 32;
    constexpr int kLowest = std::numeric_limits<int>::min();
    const std::tuple<int64_t, const char*, const char*, int> cases[] = {
        {1400, "alice", nullptr, 1400},
        {0, "alice", "mSdkAppId:0, self->mUserId:alice", 0},
        {0, "", "mSdkAppId:0, self->mUserId:", 0},
        {1400, "", "mSdkAppId:1400, self->mUserId:", 1400},
        {kBit32 + kBit32 / 2, "", "mSdkAppId:-2147483648, self->mUserId:", kLowest},
        {kBit32 / 2, "alice", nullptr, kLowest},  // reports contain only the low 32 bits
        {kBit32, "alice", nullptr, 0},
        {kBit32 + 5, "alice", nullptr, 5},
        {-1, "alice", nullptr, -1},
    };
    for (const auto& [sdkAppId, userId, warning, reported] : cases) {
        clearRecords();
        mAdapter->updateUserInfo(sdkAppId, kUserSig, userId);

        startRelay();

        EXPECT_THAT(log(), SizeIs(warning ? 2 : 1));
        EXPECT_EQ(log().back(), (warning ? Logged{4, "operator()", warning} : Logged{2, "operator()", kNotInRoom}));
        ASSERT_THAT(mPlatform.reports, SizeIs(1));
        EXPECT_EQ(mPlatform.reports[0].sdkAppId, reported);
        EXPECT_EQ(mPlatform.reports[0].roomUser, std::string("_") + userId);
    }
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

TEST_F(ReportTest, IdentityIsReadWhenTheReportIsMade) {
    givenSent(kAddRelay);
    mAdapter->updateUserInfo(77, kUserSig, "bob");
    mAdapter->updateEnterRoomInfo("room9", kMapKey);

    mPlatform.respond(0, 0, kOk);
    mAdapter->updateUserInfo(88, kUserSig, "carol");  // runs after the task of the report
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
    EXPECT_EQ(log().back(), responseLog(kAddRelay, 1, true, "0", "no"));
}
