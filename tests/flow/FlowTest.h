// What every scenario about the adapter starts from: an adapter on fakes, a listener that records its calls,
// and words for what is given, what happens and what is to be seen.

#ifndef VEXALIVE_FLOW_FLOW_TEST_H
#define VEXALIVE_FLOW_FLOW_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "Com/LiveTranscodingAdapter.h"
#include "FakePlatform.h"
#include "VirtualTime.h"
#include "base/KstMessageLoop.h"

// One call of the listener.
struct Notified {
    std::string operation;
    int code;
    std::string message;
};

// One room event report, without the arguments that are the same in all of them.
struct Reported {
    int event;
    std::string information;
    std::string detail;
};

// One log line, without file and line number.
struct Logged {
    int level;
    std::string function;
    std::string text;
};

template <class Record>
using EnableForRecord = std::enable_if_t<std::is_same_v<Record, Notified> || std::is_same_v<Record, Reported> ||
                                         std::is_same_v<Record, Logged>>;
template <class Record, class = EnableForRecord<Record>>
auto membersOf(const Record& record) {
    const auto& [first, second, third] = record;
    return std::tie(first, second, third);
}
template <class Record, class = EnableForRecord<Record>>
bool operator==(const Record& a, const Record& b) {
    return membersOf(a) == membersOf(b);
}
template <class Record, class = EnableForRecord<Record>>
std::ostream& operator<<(std::ostream& out, const Record& record) {
    return out << ::testing::PrintToString(membersOf(record));
}

// A printf format with its fields replaced by these texts, in order.
std::string filled(std::string format, const std::vector<std::string>& texts);

class RecordingListener : public ILiveTrancodingDelegate {
public:
    explicit RecordingListener(std::vector<Notified>& notified) : mNotified(notified) {}

    void onStartPublishStreamUrl(int code, std::string text) override { add("onStartPublishStreamUrl", code, text); }
    void onStopPublishStreamUrl(int code, std::string text) override { add("onStopPublishStreamUrl", code, text); }
    void onSetLiveMixTranscoding(int code, std::string text) override { add("onSetLiveMixTranscoding", code, text); }
    void onStopLiveMixTranscoding(int code, std::string text) override { add("onStopLiveMixTranscoding", code, text); }

    std::function<void()> onCall;  // what the application does inside the call

private:
    void add(const char* operation, int code, const std::string& text);

    std::vector<Notified>& mNotified;
};

// One kind of request, for the tests that hold for several.
struct Kind {
    const char* name;
    bool isRelay;
    bool isStart;
    size_t client;
    const char* interfaceName;
    const char* operation;
    int transportCode;
    int unreadableCode;
    int serverBase;
    int event;
    const char* sendFunction;
    const char* sendLog;  // the formats of the log lines
    const char* responseLog;
    const char* retrySendLog;
    const char* retryResponseLog;
};
extern const Kind kAddRelay;
extern const Kind kRemoveRelay;
extern const Kind kStartMix;
extern const Kind kCancelMix;
std::ostream& operator<<(std::ostream& out, const Kind& kind);
std::string nameOfKind(const ::testing::TestParamInfo<Kind>& kind);

class FlowTest : public ::testing::Test {
protected:
    using Milliseconds = std::chrono::milliseconds;

    static constexpr int64_t kSdkAppId = 1400123;
    static constexpr const char* kUserSig = "signature-of-alice";
    static constexpr const char* kMapKey = "map-key-of-room7";
    static constexpr int kAppId = 12345;
    static constexpr int kBizId = 8888;
    static constexpr const char* kUrl = "rtmp://cdn.test/live/alice";
    // The text of relay(), as reports show it.
    static constexpr const char* kRelayText = "appId:12345, bizId:8888, url:rtmp://cdn.test/live/alice";
    // The stream id of user alice in room7 under biz id 8888; the digits are the MD5 digest of room7_alice_main.
    static constexpr const char* kAliceMain = "8888_fcbd0847daa9c600a757e0d48049b252";
    // Digests of room7_bob_main, room7_bob_aux and room9_carol_main.
    static constexpr const char* kBobMain = "8888_b2d700c9449aa7a1002cd7ceaceabdca";
    static constexpr const char* kBobAux = "8888_ce6e4df164874a065e29aa850597c657";
    static constexpr const char* kCarolInRoom9 = "8888_c267e750c1ce9dcf82badee0c60aaef8";

    static constexpr const char* kOk = R"({"code":0,"message":"fine"})";
    static constexpr int kTryAgain = 1;  // the return code that is always retried
    static constexpr int kFirstEventId =
        3'487'929;  // of the process: 1,700,000,000,000 ms by 32 bits, in seconds, + 11

    FlowTest();
    ~FlowTest() override;

    // ---- given
    void givenUser();    // alice
    void givenInRoom();  // alice in room7
    void givenNoListener() { mListener.reset(); }
    // A request of this kind has been sent, with nothing recorded before it.
    void givenSent(const Kind& kind);
    // The same, with its first response retried and the first retry sent.
    void givenRetrySent(const Kind& kind);
    void clearAllButRequests();
    // Starts the record anew. What was recorded so far is checked for what never may be in it.
    void clearRecords();

    // ---- records
    static kstmedia::VexaPublishCDNParamInternal relay(const std::string& url = kUrl);
    static kstmedia::VexaMixUserInternal user(const std::string& userId, int zOrder);
    static kstmedia::VexaMixUserInternal audioUser(const std::string& userId);
    // A complete configuration with these inputs, for kAppId and kBizId.
    static kstmedia::VexaTranscodingConfigInternal mix(std::vector<kstmedia::VexaMixUserInternal> users);
    static kstmedia::VexaTranscodingConfigInternal mix() { return mix({user("alice", 1)}); }
    // The text of mix() with these inputs' texts, as reports show it.
    static std::string mixText(const std::string& users);
    static std::string mixText();

    // ---- when
    // Each of these runs all that is due afterwards.
    void startRelay(const kstmedia::VexaPublishCDNParamInternal& param = relay());
    void startMix(const kstmedia::VexaTranscodingConfigInternal& config = mix());
    void begin(const Kind& kind);  // the kind's own operation
    void enterRoom(const std::string& roomId = "room7", const std::string& mapKey = kMapKey);
    void reset();
    // The kind's own operation, and a start of the kind with a missing field; both without running the task.
    void call(const Kind& kind);
    void callRefused(const Kind& start);
    static void stopLoop();  // of the newest adapter
    void run() { VirtualTime::runDue(); }
    void pass(Milliseconds time) { VirtualTime::advance(time); }
    // Responds to the oldest request without an response, or one of the requests; and then runs all that is due.
    void respond(int retCode, const std::string& body);
    void respondOk() { respond(0, kOk); }
    void respondTo(size_t request, int retCode, const std::string& body);
    // Responds to "try again" and lets the time pass until the retry has been sent.
    void failAndWaitForRetry();
    // Responds to every request with these until none comes any more.
    void respondToAll(int retCode, const std::string& body);

    // ---- then
    const std::vector<Notified>& notified() const { return mNotified; }
    std::vector<Reported> reports() const;
    std::vector<Logged> log() const;
    const std::vector<FakePlatform::Request>& requests() const { return mPlatform.requests; }
    const FakePlatform::Request& request(size_t number) const { return mPlatform.requests.at(number); }
    const std::string& body(size_t number) const { return request(number).body; }
    bool hasOpenRequest() const;
    // Of a request since the record began: each request of the process has one more than the one before.
    int eventId(size_t request) const;
    // One response in a trace.
    static std::string traceSegment(int counter, int retCode, const std::string& response);
    // When each request was sent, in milliseconds from the one before.
    std::vector<int64_t> delays() const;
    void expectNoEffects() const;

    // Runs once, inside the next digest of a stream id.
    inline static std::function<void()> onDigest;

    FakePlatform& mPlatform = FakePlatform::instance();
    std::vector<std::string> mSecrets{kUserSig, kMapKey};  // what may be seen nowhere but in addresses
    std::vector<Notified> mNotified;
    std::shared_ptr<RecordingListener> mListener = std::make_shared<RecordingListener>(mNotified);
    std::shared_ptr<LiveTranscodingAdapter> mAdapter;

private:
    void checkInvariants() const;
    size_t oldestOpenRequest() const;
};

#endif
