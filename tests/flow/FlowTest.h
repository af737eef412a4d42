// The fixture of the adapter's tests: an adapter on fakes, a listener that records its calls, and helper functions.

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
#include <vector>

#include "Com/LiveTranscodingAdapter.h"
#include "FakePlatform.h"
#include "VirtualTime.h"
#include "base/KstMessageLoop.h"
#include "support/Oracle.h"
#include "support/RoomMember.h"

using oracle::kAddRelay;
using oracle::kCancelMix;
using oracle::Kind;
using oracle::kNotInRoom;
using oracle::kRemoveRelay;
using oracle::kStartMix;
using oracle::rulesOf;
using oracle::startOf;
using oracle::traceSegment;

// One room event report, without the arguments that are the same in all of them.
struct Reported {
    int event;
    std::string information;
    std::string detail;
    auto members() const { return std::tie(event, information, detail); }
};

// One log line, without file and line number.
struct Logged {
    int level;
    std::string function;
    std::string text;
    auto members() const { return std::tie(level, function, text); }
};

template <class Record>
auto operator==(const Record& a, const Record& b) -> decltype(a.members() == b.members()) {
    return a.members() == b.members();
}
template <class Record>
auto operator<<(std::ostream& out, const Record& record) -> decltype(record.members(), out) {
    return out << ::testing::PrintToString(record.members());
}

constexpr bool isRelay(Kind kind) {
    return oracle::familyOf(kind) == oracle::kRelay;
}
constexpr bool isStart(Kind kind) {
    return kind == kAddRelay || kind == kStartMix;
}
constexpr Kind stopOf(Kind kind) {
    return isRelay(kind) ? kRemoveRelay : kCancelMix;
}

inline const auto kAllKinds = ::testing::Values(kAddRelay, kRemoveRelay, kStartMix, kCancelMix);
std::string nameOfKind(const ::testing::TestParamInfo<Kind>& kind);

// The log lines of a send and of a response. `retries`: the printed counter; 0 means a first send.
Logged sendLog(Kind kind, int index, int retries, const std::string& body);
Logged responseLog(Kind kind, int index, bool isRetry, const std::string& retCode, const std::string& response);

class FlowTest : public ::testing::Test {
protected:
    using Milliseconds = std::chrono::milliseconds;

    static constexpr int64_t kSdkAppId = 1400123;
    static constexpr const char* kUserSig = "signature-of-alice";
    static constexpr const char* kMapKey = "map-key-of-room7";
    static constexpr int kAppId = 12345;
    static constexpr int kBizId = 8888;
    static constexpr const char* kUrl = "rtmp://cdn.test/live/alice";
    static constexpr const char* kOtherUrl = "rtmp://cdn.test/live/other";
    // Stream ids for the biz id 8888, with the MD5 digests of room7_alice_main, room7_bob_main, room7_bob_aux and
    // room9_carol_main.
    static constexpr const char* kAliceMain = "8888_fcbd0847daa9c600a757e0d48049b252";
    static constexpr const char* kBobMain = "8888_b2d700c9449aa7a1002cd7ceaceabdca";
    static constexpr const char* kBobAux = "8888_ce6e4df164874a065e29aa850597c657";
    static constexpr const char* kCarolInRoom9 = "8888_c267e750c1ce9dcf82badee0c60aaef8";

    static constexpr const char* kOk = R"({"code":0,"message":"fine"})";
    static constexpr int kRetryable = 1;  // the return code that is always retried
    // The first event id of the process: (1,700,000,000,000 ms modulo 2^32) in seconds, plus 11.
    static constexpr int kFirstEventId = 3'487'929;

    FlowTest();
    ~FlowTest() override;

    // ---- Given
    void makeAdapter();  // replaces mAdapter
    void givenUser();    // the local user is alice
    void givenInRoom();  // alice is in room7
    void givenNoListener() { mListener.reset(); }
    // A request of this kind was sent. The records contain no earlier effect.
    void givenSent(Kind kind);
    // The same; then the first response has led to a retry, which was sent.
    void givenRetrySent(Kind kind);
    void clearAllButRequests();
    // Checks the invariants of the recorded effects, and then clears the records.
    void clearRecords();

    // ---- Records
    static kstmedia::VexaPublishCDNParamInternal relay(const std::string& url = kUrl);
    static kstmedia::VexaMixUserInternal user(const std::string& userId, int zOrder);
    static kstmedia::VexaMixUserInternal audioUser(const std::string& userId);
    // A complete configuration with these inputs, for kAppId and kBizId.
    static kstmedia::VexaTranscodingConfigInternal mix(std::vector<kstmedia::VexaMixUserInternal> users);
    static kstmedia::VexaTranscodingConfigInternal mix() { return mix({user("alice", 1)}); }
    // The information in reports about relay() or mix().
    static std::string startInformation(Kind kind) { return isRelay(kind) ? relay().to_string() : mix().to_string(); }
    static std::string member(const std::string& key, const std::string& value) {
        return '"' + key + "\":\"" + value + '"';  // a JSON member
    }

    // ---- When
    // The next three functions only post a task.
    void call(Kind kind);          // the operation of this kind
    void callOther(Kind start);    // a start with other parameters
    void callRefused(Kind start);  // a start with a missing field
    // All other functions then run the tasks that are due.
    void run() { VirtualTime::runDue(); }
    void pass(Milliseconds time) { VirtualTime::advance(time); }
    void begin(Kind kind);  // the operation of this kind
    void startRelay(const kstmedia::VexaPublishCDNParamInternal& param = relay());
    void startMix(const kstmedia::VexaTranscodingConfigInternal& config = mix());
    void enterRoom(const std::string& roomId = "room7", const std::string& mapKey = kMapKey);
    void reset();
    // Responds to the oldest open request.
    void respond(int retCode, const std::string& body);
    void respondOk() { respond(0, kOk); }
    void respondTo(size_t request, int retCode, const std::string& body);
    // Fails the oldest open request and waits until its retry has been sent.
    void failAndWaitForRetry();
    // Responds to each request until no further request is sent.
    void respondToAll(int retCode, const std::string& body);

    // ---- Then
    const std::vector<Call>& notified() const { return mNotified; }
    std::vector<Reported> reports() const;
    std::vector<Logged> log() const;
    const std::vector<FakePlatform::Request>& requests() const { return mPlatform.requests; }
    const FakePlatform::Request& request(size_t number) const { return mPlatform.requests.at(number); }
    const std::string& body(size_t number) const { return request(number).body; }
    std::vector<Kind> sent() const;  // the kinds of all requests
    bool hasOpenRequest() const;
    // The expected event id of a request; 0 is the first request since the last clearRecords().
    int eventId(size_t request) const;
    // The milliseconds between consecutive requests.
    std::vector<int64_t> delays() const;
    void expectNeitherNotifiedNorReported() const;
    void expectNoEffects() const;

    // A hook that runs once, while the next digest of a stream id is calculated.
    inline static std::function<void()> onDigest;

    FakePlatform& mPlatform = FakePlatform::instance();
    std::vector<std::string> mSecrets{kUserSig, kMapKey};  // strings that may only appear in addresses
    std::vector<Call> mNotified;
    std::function<void()> onCall;  // runs inside each listener call
    std::shared_ptr<Listener> mListener = std::make_shared<Listener>();
    std::shared_ptr<LiveTranscodingAdapter> mAdapter;

private:
    void checkInvariants() const;
    size_t oldestOpenRequest() const;
};

// The base of test suites that run for several kinds.
class KindTest : public FlowTest, public ::testing::WithParamInterface<Kind> {
protected:
    Kind kind() const { return GetParam(); }
    Kind start() const { return startOf(kind()); }
    Kind startOfTheOtherFamily() const { return isRelay(kind()) ? kStartMix : kAddRelay; }
    std::string reportEvent() const { return "report " + std::to_string(rulesOf(kind()).event); }
    Call succeeded() const { return {rulesOf(kind()).name, 0, "sucess"}; }
    Call failedWithRetCode1() const {
        return {rulesOf(kind()).name, rulesOf(kind()).transportCode, "http post return error\uff0c retcode:1"};
    }
};

#endif
