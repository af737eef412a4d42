// Fuzzes the responses to the adapter. The adapter runs on fakes in virtual time, and is compared with an oracle.
//
// Each line of an input is a step of a scenario:
//
//   A   start a relay     R   stop it      E   enter the room    N   destroy the listener
//   M   start a mix       C   cancel it    X   reset             T   wait for five seconds
//   0 {"code":0}    respond to the oldest open request with this return code and body; if none is open, wait for one
//   *               repeat the last response until no further request is sent

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "FakePlatform.h"
#include "Fuzzing.h"
#include "VirtualTime.h"
#include "support/RoomMember.h"

namespace {

using namespace fuzzing;
using Json = nlohmann::json;
using Milliseconds = std::chrono::milliseconds;
using oracle::Family;
using oracle::kAddRelay;
using oracle::kCancelMix;
using oracle::Kind;
using oracle::kRemoveRelay;
using oracle::kStartMix;
using oracle::Notification;
using oracle::rulesOf;

constexpr const char* kUserSig = "signature-of-alice";
constexpr const char* kMapKey = "map-key-of-room7";
constexpr size_t kMaxSteps = 100;
constexpr size_t kMaxRequests = 60;  // for each scenario; the last of them get no response

// ---- The scenario ---------------------------------------------------------------------------------------------------

class Scenario {
public:
    Scenario() {
        mPlatform.reset();
        mAdapter->setLiveTranscodingDelegate(mListener);
        mAdapter->updateUserInfo(1400123, kUserSig, "alice");
        VirtualTime::runDue();
    }

    void step(std::string_view line) {
        switch (line.empty() ? '\0' : line.front()) {
            case 'A':
                start(kAddRelay);
                mAdapter->startPublishStreamUrl(relayParam());
                break;
            case 'M':
                start(kStartMix);
                mAdapter->setLiveMixTranscoding(mixConfig());
                break;
            case 'R':
                stop(kRemoveRelay);
                mAdapter->stopPublishStreamUrl();
                break;
            case 'C':
                stop(kCancelMix);
                mAdapter->stopLiveMixTranscoding();
                break;
            case 'E':
                enterRoom();
                mAdapter->updateEnterRoomInfo("room7", kMapKey);
                break;
            case 'X':
                reset();
                mAdapter->resetInfo();
                break;
            case 'N':
                mListener.reset();
                break;
            case 'T':
                VirtualTime::advance(Milliseconds(5000));
                break;
            case '*':
                while (respond(mLastCode, mLastBody)) {
                }
                break;
            default:
                mLastCode = parseNumber<int>(takeWord(line));
                mLastBody = line;
                respond(mLastCode, mLastBody);
                break;
        }
        VirtualTime::runDue();
        compare();
    }

    // Ends the scenario. Open requests get no response.
    void end() {
        VirtualTime::runUntilQuiet();
        compare();
        for (const Sent& retry : mRetries) {
            require(isStale(retry) && !rulesOf(retry.kind).sendsStaleRetry, "each retry is sent");
        }
        mAdapter.reset();
        require(VirtualTime::queuedTasks() + VirtualTime::delayedTasks() == 0, "no task outlives the adapter");
    }

private:
    struct Sent {
        Kind kind;
        int index;  // generation of the operation
        bool isRetry;
        VirtualTime::TimePoint due;  // only for a retry
    };
    struct Task {
        std::string firstBody;
        std::string responses;  // the part of the trace that describes the responses
        int sends = 0;
        bool isReported = false;
    };
    struct Report {
        int event;
        std::string opener;  // the start of the trace; for a mix start, only the beginning of it
        std::string responses;
        bool isMixStart;
    };

    Task& taskOf(const Sent& sent) { return mTasks[{rulesOf(sent.kind).family, sent.index}]; }

    bool isStale(const Sent& sent) const { return sent.index != mGenerations[rulesOf(sent.kind).family]; }

    // ---- Expected effects

    void supersede(size_t family) {
        ++mGenerations[family];
        mCounters[2 * family] = mCounters[2 * family + 1] = 0;
    }

    void start(Kind kind) {
        const Family family = rulesOf(kind).family;
        supersede(family);
        mIsAnythingStarted = true;
        mPending[family] = !mIsInRoom;
        if (mIsInRoom) {
            mFirstSends.push_back(kind);
        } else {
            mReports.push_back({rulesOf(kind).event, oracle::kNotInRoom, "", false});
        }
    }

    void stop(Kind kind) {
        const Family family = rulesOf(kind).family;
        supersede(family);
        mPending[family] = false;
        if (mIsAnythingStarted) {
            mFirstSends.push_back(kind);
        } else {
            expectNotifications({{rulesOf(kCancelMix).name, rulesOf(kind).unreadableCode, std::nullopt}});
        }
    }

    void enterRoom() {
        mIsInRoom = true;
        for (const Kind kind : {kAddRelay, kStartMix}) {
            if (mPending[rulesOf(kind).family]) {
                start(kind);
            }
        }
    }

    void reset() {
        mIsInRoom = mPending[0] = mPending[1] = false;
        supersede(0);
        supersede(1);
    }

    void expectNotifications(std::vector<Notification> notifications) {
        if (mListener) {
            mExpected.insert(mExpected.end(), notifications.begin(), notifications.end());
        }
    }

    // The index of the oldest open request. If none is open, the number of requests.
    size_t oldestOpenRequest() const {
        const auto& requests = mPlatform.requests;
        const auto isOpen = [](const FakePlatform::Request& request) { return request.callback != nullptr; };
        return static_cast<size_t>(std::find_if(requests.begin(), requests.end(), isOpen) - requests.begin());
    }

    bool respond(int retCode, const std::string& body) {
        if (oldestOpenRequest() == mSent.size()) {
            VirtualTime::runUntilQuiet();
            compare();
        }
        const size_t request = oldestOpenRequest();
        if (request == mSent.size() || mSent.size() > kMaxRequests) {
            return false;
        }
        expectAfterResponse(mSent[request], retCode, body);
        mPlatform.respond(request, retCode, body);
        VirtualTime::runDue();
        compare();
        return true;
    }

    void expectAfterResponse(const Sent& sent, int retCode, const std::string& body) {
        const oracle::KindRules& rules = rulesOf(sent.kind);
        if (isStale(sent) && (!sent.isRetry || rules.dropsStaleRetry)) {
            return;
        }
        Task& task = taskOf(sent);
        task.responses += oracle::traceSegment(mCounters[rules.tracedCounter], retCode, body);
        const oracle::Evaluation evaluation = oracle::evaluate(sent.kind, retCode, body);
        if (evaluation.isRetryable && mCounters[sent.kind] > 0) {
            const Milliseconds pause(oracle::retryPause(oracle::kMaxRetries + 1 - mCounters[sent.kind]--));
            mRetries.push_back({sent.kind, sent.index, true, VirtualTime::now() + pause});
            return;
        }
        expectNotifications(evaluation.notifications);
        require(!std::exchange(task.isReported, true), "a finished task is reported once");
        const bool isMixStart = sent.kind == kStartMix;
        const std::string opener = isMixStart               ? "task_id:" + std::to_string(sent.index) + ", "
                                   : sent.kind == kAddRelay ? task.firstBody
                                                            : "";
        mReports.push_back({rules.event, opener, task.responses, isMixStart});
    }

    // ---- Actual effects

    void compare() {
        while (mSent.size() < mPlatform.requests.size()) {
            compareRequest(mPlatform.requests[mSent.size()]);
        }
        require(mFirstSends.empty(), "each operation is sent");
        compareCalls();
        compareReports();
        for (const FakePlatform::LogLine& line : mPlatform.log) {
            requireNoSecretIn(line.text);
        }
        mPlatform.log.clear();
    }

    // In each step, first sends come before retries: they are sent while the operation runs.
    void compareRequest(const FakePlatform::Request& request) {
        const Kind kind = static_cast<Kind>(request.client);
        Sent sent{kind, mGenerations[rulesOf(kind).family], mFirstSends.empty(), request.sentAt};
        if (sent.isRetry) {
            const auto retry = std::find_if(mRetries.begin(), mRetries.end(), [&](const Sent& planned) {
                return planned.kind == kind && planned.due == request.sentAt &&
                       (rulesOf(kind).sendsStaleRetry || !isStale(planned));
            });
            require(retry != mRetries.end(), "a request is repeated for a reason and at its time");
            sent = *retry;
            mRetries.erase(retry);
        } else {
            require(mFirstSends.front() == kind, "operations are sent in their order");
            mFirstSends.erase(mFirstSends.begin());
            mCounters[kind] = oracle::kMaxRetries;
            taskOf(sent).firstBody = request.body;
        }
        require(++taskOf(sent).sends <= oracle::kMaxRetries + 1, "a request is sent 11 times at most");
        require(Json::accept(request.body), "a body is JSON", request.body);
        requireNoSecretIn(request.body);
        require(request.url.find(kUserSig) != std::string::npos, "an address holds the signature", request.url);
        mSent.push_back(sent);
    }

    void compareCalls() {
        const std::vector<Call> calls = mListener ? mListener->calls.all() : std::vector<Call>();
        require(calls.size() == mExpected.size(), "the number of listener calls");
        for (size_t i = 0; i < calls.size(); ++i) {
            const Call& call = calls[i];
            require(call == mExpected[i], "the listener's call",
                    call.operation + " " + std::to_string(call.code) + " " + *call.message);
            requireNoSecretIn(*call.message);
        }
        mExpected.clear();
        if (mListener) {
            mListener->calls.clear();
        }
    }

    void compareReports() {
        require(mPlatform.reports.size() == mReports.size(), "the number of reports");
        for (size_t i = 0; i < mReports.size(); ++i) {
            const FakePlatform::Report& report = mPlatform.reports[i];
            const Report& expected = mReports[i];
            require(report.event == expected.event, "a report's event", report.detail);
            if (expected.isMixStart) {
                const std::string end = upToZero(expected.responses);
                require(startsWith(report.detail, expected.opener) && endsWith(report.detail, end),
                        "a mix start's trace", report.detail);
                const size_t brace = report.detail.find('{');
                require(Json::accept(report.detail.substr(brace, report.detail.size() - end.size() - brace)),
                        "a mix start's description is JSON", report.detail);
            } else {
                require(report.detail == upToZero(expected.opener + expected.responses), "a report's trace",
                        report.detail);
            }
            requireNoSecretIn(report.roomUser + report.information + report.detail);
        }
        mReports.clear();
        mPlatform.reports.clear();
    }

    static void requireNoSecretIn(const std::string& text) {
        require(text.find(kUserSig) == std::string::npos, "the signature appears in addresses only", text);
        require(text.find(kMapKey) == std::string::npos, "the map key appears in addresses only", text);
    }

    FakePlatform& mPlatform = FakePlatform::instance();
    std::shared_ptr<Listener> mListener = std::make_shared<Listener>();
    std::shared_ptr<LiveTranscodingAdapter> mAdapter = std::make_shared<LiveTranscodingAdapter>();
    int mLastCode = 0;
    std::string mLastBody;

    // The expected state.
    bool mIsInRoom = false;
    bool mIsAnythingStarted = false;
    std::array<bool, 2> mPending{};
    std::array<int, 2> mGenerations{};
    std::array<int, 4> mCounters{};
    std::map<std::pair<size_t, int>, Task> mTasks;
    std::vector<Sent> mRetries;  // in posting order
    std::vector<Kind> mFirstSends;
    std::vector<Notification> mExpected;
    std::vector<Report> mReports;

    std::vector<Sent> mSent;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    if (input.find(kUserSig) != std::string_view::npos || input.find(kMapKey) != std::string_view::npos) {
        return 0;  // logs and reports show responses, so the check for secrets would fail
    }
    Scenario scenario;
    std::vector<std::string> lines = linesOf(input);
    lines.resize(std::min(lines.size(), kMaxSteps));
    for (const std::string& line : lines) {
        scenario.step(line);
    }
    scenario.end();
    return 0;
}
