// The parts that all requests have in common: address, common fields, timestamps and ids.

#include <cstdlib>
#include <thread>

#include "FlowTest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

std::string& firstBodyOfTheProcess() {
    static std::string& body = *new std::string();
    return body;
}

// Sends the first request of the process before any test, at a known time: the first event id depends on the clock.
class FirstRequest : public ::testing::Environment {
    void SetUp() override {
        FakePlatform& platform = FakePlatform::instance();
        platform.reset();
        const auto adapter = std::make_shared<LiveTranscodingAdapter>();
        adapter->updateEnterRoomInfo("room", "");
        kstmedia::VexaPublishCDNParamInternal param;
        param.appId = param.bizId = 1;
        param.url = "rtmp://cdn.test/first";
        adapter->startPublishStreamUrl(param);
        VirtualTime::runDue();
        firstBodyOfTheProcess() = platform.requests.at(0).body;
    }
};

const auto* const kFirstRequest = ::testing::AddGlobalTestEnvironment(new FirstRequest());

std::string nextRandom() {
    return std::to_string(std::rand() % 10000);
}

}  // namespace

class EnvelopeTest : public FlowTest {
protected:
    void givenInRoomAs(int64_t sdkAppId, const std::string& userSig, const std::string& userId,
                       const std::string& roomId, const std::string& mapKey) {
        mAdapter->updateUserInfo(sdkAppId, userSig, userId);
        enterRoom(roomId, mapKey);
    }
};

TEST_F(EnvelopeTest, FirstEventIdOfTheProcessIsTheUtcClocksLow32BitsInSecondsPlusEleven) {
    // 1,700,000,000,000 ms - 395 * 2^32 ms = 3,487,918,080 ms.
    EXPECT_THAT(firstBodyOfTheProcess(), HasSubstr(R"("event_id":3487929,)"));
}

TEST_F(EnvelopeTest, AddressIsBaseInterfaceAppIdRandomNumberSignatureAndMapKey) {
    const std::string odd = "a b&c=d?/#%41%s\"é中";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"abc", "key", "&usersig=abc&parivMapKey=key"},
        {"abc", "", "&usersig=abc&parivMapKey="},
        {odd, odd, "&usersig=" + odd + "&parivMapKey=" + odd},
        {std::string("ab\0cd", 5), "key", "&usersig=ab&parivMapKey=key"}};
    mSecrets = {odd};
    for (const auto& [userSig, mapKey, end] : cases) {
        clearRecords();
        givenInRoomAs(1400, userSig, "alice", "room7", mapKey);
        std::srand(42);
        const std::string number = nextRandom();
        std::srand(42);

        startRelay();

        EXPECT_EQ(request(0).url,
                  "https://live.test:8443/v3/liveinterface/add_relay_stream_url?sdkappid=1400&random=" + number + end);
    }
}

TEST_F(EnvelopeTest, EverySendDrawsOneRandomNumberRetriesIncluded) {
    givenInRoom();
    std::srand(44);
    const std::string first = nextRandom();
    const std::string second = nextRandom();
    const std::string third = nextRandom();

    std::srand(44);
    startRelay();
    failAndWaitForRetry();
    respondOk();
    startMix();

    EXPECT_THAT(request(0).url, HasSubstr("&random=" + first + "&"));
    EXPECT_THAT(request(1).url, HasSubstr("&random=" + second + "&"));
    EXPECT_THAT(request(2).url, HasSubstr("&random=" + third + "&"));
}

TEST_F(EnvelopeTest, AppIdIsPrintedAsItsLow32BitsWithSign) {
    const std::pair<int64_t, const char*> cases[] = {
        {int64_t{2147483647}, "?sdkappid=2147483647&"}, {int64_t{2147483648}, "?sdkappid=-2147483648&"},
        {int64_t{4294967295}, "?sdkappid=-1&"},         {int64_t{4294967296}, "?sdkappid=0&"},
        {int64_t{0x7fffffff00000005}, "?sdkappid=5&"},  {int64_t{-7}, "?sdkappid=-7&"},
    };
    for (const auto& [sdkAppId, printed] : cases) {
        givenInRoomAs(sdkAppId, kUserSig, "alice", "room7", kMapKey);

        startRelay();

        EXPECT_THAT(requests().back().url, HasSubstr(printed));
    }
}

TEST_F(EnvelopeTest, AddressIsCutAt4094Characters) {
    std::srand(45);
    const std::string head =
        "https://live.test:8443/v3/liveinterface/add_relay_stream_url?sdkappid=1400&random=" + nextRandom() +
        "&usersig=";
    const std::string tail = "&parivMapKey=";
    for (const size_t size : {size_t{5000}, 4094 - head.size() - tail.size()}) {
        clearRecords();
        givenInRoomAs(1400, std::string(size, 's'), "alice", "room7", "never-seen");
        std::srand(45);

        startRelay();

        EXPECT_EQ(request(0).url, (head + std::string(size, 's') + tail).substr(0, 4094));
    }
}

TEST_F(EnvelopeTest, TimestampIsTheTickCountsLow32BitsInSeconds) {
    const std::pair<uint64_t, const char*> cases[] = {
        {0, R"("timestamp":0,)"},
        {999, R"("timestamp":0,)"},
        {1'999, R"("timestamp":1,)"},
        {0xffffffff, R"("timestamp":4294967,)"},
        {0x1'0000'0000, R"("timestamp":0,)"},
        {0x5'0000'0000 + 1'234'567, R"("timestamp":1234,)"},
    };
    givenInRoom();
    for (const auto& [tick, field] : cases) {
        mPlatform.tickAtReset = tick;

        startRelay();

        EXPECT_THAT(requests().back().body, HasSubstr(field));
    }
}

TEST_F(EnvelopeTest, EventIdsAreConsecutiveOverKindsRetriesAdaptersAndThreads) {
    givenInRoom();
    const int first = kFirstEventId + mPlatform.requestsEver;
    mPlatform.utcAtReset = 5'000;  // event ids do not depend on later changes of the clock

    startRelay();
    failAndWaitForRetry();
    startMix();
    const auto other = std::make_shared<LiveTranscodingAdapter>();
    std::thread([&] {  // simulates the worker of the second adapter
        other->updateEnterRoomInfo("room8", "");
        other->setLiveMixTranscoding(mix());
        run();
    })
        .join();
    begin(kCancelMix);
    begin(kRemoveRelay);

    ASSERT_EQ(requests().size(), 6u);
    for (int i = 0; i < 6; ++i) {
        EXPECT_THAT(body(static_cast<size_t>(i)), HasSubstr("\"event_id\":" + std::to_string(first + i) + ","));
    }
}

TEST_F(EnvelopeTest, RoomAndUserAreThoseOfTheMomentOfSending) {
    givenSent(kAddRelay);
    respond(kRetryable, "");
    mAdapter->updateUserInfo(kSdkAppId, "another-signature", "bob");
    enterRoom("room7", "another-key");

    pass(Milliseconds(1000));

    EXPECT_THAT(request(1).url, HasSubstr("&usersig=another-signature&parivMapKey=another-key"));
    EXPECT_THAT(body(1), HasSubstr(member("stream_id", kBobMain)));
}

class EveryKindsEnvelopeTest : public KindTest {};

INSTANTIATE_TEST_SUITE_P(Kinds, EveryKindsEnvelopeTest, kAllKinds, nameOfKind);

TEST_P(EveryKindsEnvelopeTest, FirstSendAndRetriesGoThroughTheKindsOwnClientToItsInterface) {
    const std::string interfaceName = rulesOf(kind()).interfaceName;

    givenRetrySent(kind());

    EXPECT_THAT(sent(), ElementsAre(kind(), kind()));
    for (const FakePlatform::Request& request : requests()) {
        EXPECT_THAT(request.url, StartsWith("https://live.test:8443/v3/liveinterface/" + interfaceName +
                                            "?sdkappid=1400123&random="));
        EXPECT_THAT(request.body, HasSubstr(member("interface", interfaceName)));
    }
}

TEST_P(EveryKindsEnvelopeTest, BodyOfARetryDiffersInItsEventIdAndTimestampOnly) {
    givenRetrySent(kind());

    std::string expected = body(0);
    const auto exchange = [&expected](const std::string& from, const std::string& to) {
        ASSERT_THAT(expected, HasSubstr(from));
        expected.replace(expected.find(from), from.size(), to);
    };
    exchange("\"event_id\":" + std::to_string(eventId(0)), "\"event_id\":" + std::to_string(eventId(1)));
    exchange("\"timestamp\":1000", "\"timestamp\":1001");
    EXPECT_EQ(body(1), expected);
}

TEST_P(EveryKindsEnvelopeTest, SendsAndResponsesAreLoggedWithIndexRetriesAndContent) {
    const int index = isStart(kind()) ? 1 : 2;
    givenSent(kind());

    respond(1, "try later");
    pass(Milliseconds(1000));
    respond(-5, "");
    pass(Milliseconds(1000));
    respond(0, kOk);

    std::vector<Logged> expected = {
        sendLog(kind(), index, 0, body(0)), responseLog(kind(), index, false, "1", "try later"),
        sendLog(kind(), index, 1, body(1)), responseLog(kind(), index, true, "4294967291", ""),
        sendLog(kind(), index, 2, body(2)), responseLog(kind(), index, true, "0", kOk),
    };
    if (kind() == kStartMix) {
        expected.insert(expected.begin(), {2, "operator()", "bPureAudio:0"});
    }
    EXPECT_EQ(log(), expected);
    EXPECT_THAT(mPlatform.order,
                ElementsAre("request 0", "request 1", "request 2", rulesOf(kind()).name, reportEvent()));
}
