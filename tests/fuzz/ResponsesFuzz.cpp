// Hostile responses: the adapter on fakes in virtual time, compared with an oracle of its rules.
//
// An input is a scenario with one step in each line:
//
//   A   a relay is started      R   it is stopped      E   the room is entered     N   the listener goes
//   M   a mix is started        C   it is cancelled    X   the room is left        T   five seconds pass
//   0 {"code":0}    the oldest open request gets this return code and body; if none is open, time passes
//                   until one is
//   *               the last response again, until no request comes any more

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
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
constexpr size_t kMaxRequests = 60;  // of a scenario; the last of them are left open

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
                leaveRoom();
                mAdapter->resetInfo();
                break;
            case 'N':
                mListener.reset();
                break;
            case 'T':
                VirtualTime::advance(Milliseconds(5000));
                break;
            case '*':
                while (answer(mLastCode, mLastBody)) {
                }
                break;
            default:
                mLastCode = numberOf<int>(takeWord(line));
                mLastBody = line;
                answer(mLastCode, mLastBody);
                break;
        }
        VirtualTime::runDue();
        compare();
    }

    // Answers nothing more.
    void end() {
        VirtualTime::runUntilQuiet();
        compare();
        for (const Retry& retry : mRetries) {
            require(isStale(retry.kind, retry.index) && !rulesOf(retry.kind).sendsStaleRetry, "each retry is sent");
        }
        mAdapter.reset();
        require(VirtualTime::queuedTasks() + VirtualTime::delayedTasks() == 0, "no task outlives the adapter");
    }

private:
    struct Sent {
        Kind kind;
        int index;
        bool isRetry;
    };
    struct Retry {
        Kind kind;
        int index;
        VirtualTime::TimePoint due;
    };
    struct Task {
        int sends = 0;
        int reports = 0;
        std::string firstBody;
        std::string answers;  // of the trace
    };
    struct Report {
        int event;
        std::string detail;               // whole, or
        const Task* mixStart;             // what it ends with, and
        std::string mixStartDescription;  // begins with
    };

    Task& taskOf(Kind kind, int index) { return mTasks[{rulesOf(kind).family, index}]; }

    bool isStale(Kind kind, int index) const { return index != mGenerations[rulesOf(kind).family]; }

    // ---- What is to come

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
            mReports.push_back({rulesOf(kind).event, oracle::kNotInRoom, nullptr, ""});
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

    void leaveRoom() {
        mIsInRoom = mPending[0] = mPending[1] = false;
        supersede(0);
        supersede(1);
    }

    void expectNotifications(std::vector<Notification> notifications) {
        if (mListener) {
            mExpected.insert(mExpected.end(), notifications.begin(), notifications.end());
        }
    }

    // The number of requests if none is open.
    size_t oldestOpenRequest() const {
        const auto& requests = mPlatform.requests;
        const auto isOpen = [](const FakePlatform::Request& request) { return request.callback != nullptr; };
        return static_cast<size_t>(std::find_if(requests.begin(), requests.end(), isOpen) - requests.begin());
    }

    bool answer(int retCode, const std::string& body) {
        if (oldestOpenRequest() == mSent.size()) {
            VirtualTime::runUntilQuiet();
            compare();
        }
        const size_t request = oldestOpenRequest();
        if (request == mSent.size() || mSent.size() > kMaxRequests) {
            return false;
        }
        expectAfterAnswer(mSent[request], retCode, body);
        mPlatform.respond(request, retCode, body);
        VirtualTime::runDue();
        compare();
        return true;
    }

    void expectAfterAnswer(const Sent& sent, int retCode, const std::string& body) {
        const oracle::KindRules& rules = rulesOf(sent.kind);
        if (isStale(sent.kind, sent.index) && (!sent.isRetry || rules.dropsStaleRetry)) {
            return;
        }
        Task& task = taskOf(sent.kind, sent.index);
        task.answers += oracle::traceSegment(mCounters[rules.tracedCounter], retCode, body);
        const oracle::Evaluation evaluation = oracle::evaluate(sent.kind, retCode, body);
        if (evaluation.isRetryable && mCounters[sent.kind] > 0) {
            const int retry = oracle::kMaxRetries + 1 - mCounters[sent.kind]--;
            mRetries.push_back({sent.kind, sent.index, VirtualTime::now() + Milliseconds(oracle::retryPause(retry))});
            return;
        }
        expectNotifications(evaluation.notifications);
        require(++task.reports == 1, "a finished task is reported once");
        if (sent.kind == kStartMix) {
            mReports.push_back({rules.event, "", &task, "task_id:" + std::to_string(sent.index) + ", "});
        } else {
            const std::string opener = sent.kind == kAddRelay ? task.firstBody : "";
            mReports.push_back({rules.event, upToZero(opener + task.answers), nullptr, ""});
        }
    }

    // ---- What has come

    void compare() {
        while (mSent.size() < mPlatform.requests.size()) {
            compareRequest(mPlatform.requests[mSent.size()]);
        }
        require(mFirstSends.empty(), "what is begun is sent");
        compareCalls();
        compareReports();
        for (; mLogSeen < mPlatform.log.size(); ++mLogSeen) {
            requireNoSecretIn(mPlatform.log[mLogSeen].text);
        }
    }

    // The index of the send that this line logs; none for another line.
    static std::optional<int> indexOfSend(const std::string& line) {
        const size_t index = line.find("index: ");
        const size_t end = line.find(", retry", index);
        if (index > sizeof "retryRemovePublishUrlInner" || end == std::string::npos ||
            line.find_first_not_of("0123456789", index + 7) != end) {
            return std::nullopt;
        }
        return numberOf<int>(std::string_view(line).substr(index + 7));
    }

    int indexOfNextSend() {
        for (; mLogRead < mPlatform.log.size(); ++mLogRead) {
            if (const auto index = indexOfSend(mPlatform.log[mLogRead].text)) {
                ++mLogRead;
                return *index;
            }
        }
        require(false, "each send is logged");
        return 0;
    }

    void compareRequest(const FakePlatform::Request& request) {
        const Kind kind = static_cast<Kind>(request.client);
        const int index = indexOfNextSend();
        Task& task = taskOf(kind, index);
        const bool isRetry = task.sends > 0;
        require(++task.sends <= oracle::kMaxRetries + 1, "a request is sent 11 times at most");
        if (isRetry) {
            const auto retry = std::find_if(mRetries.begin(), mRetries.end(), [&](const Retry& planned) {
                return planned.kind == kind && planned.index == index;
            });
            require(retry != mRetries.end(), "nothing is sent again without a reason");
            require(retry->due == request.sentAt, "a retry is sent at its time");
            mRetries.erase(retry);
        } else {
            require(!mFirstSends.empty() && mFirstSends.front() == kind && !isStale(kind, index),
                    "nothing is sent that was not begun");
            mFirstSends.erase(mFirstSends.begin());
            mCounters[kind] = oracle::kMaxRetries;
            task.firstBody = request.body;
        }
        require(Json::accept(request.body), "a body is JSON", request.body);
        requireNoSecretIn(request.body);
        require(request.url.find(kUserSig) != std::string::npos, "an address holds the signature", request.url);
        mSent.push_back({kind, index, isRetry});
    }

    void compareCalls() {
        const std::vector<Call> calls = mListener ? mListener->calls.all() : std::vector<Call>();
        require(calls.size() == mExpected.size(), "the listener is called as often as the rules say");
        for (size_t i = 0; i < calls.size(); ++i) {
            const Call& call = calls[i];
            require(call.operation == mExpected[i].operation && call.code == mExpected[i].code, "the listener's code",
                    call.operation + " " + std::to_string(call.code));
            require(!mExpected[i].message || call.message == mExpected[i].message, "the listener's message",
                    *call.message);
            requireNoSecretIn(*call.message);
        }
        mExpected.clear();
        if (mListener) {
            mListener->calls.clear();
        }
    }

    void compareReports() {
        require(mPlatform.reports.size() == mReports.size(), "there are as many reports as the rules say");
        for (size_t i = 0; i < mReports.size(); ++i) {
            const FakePlatform::Report& report = mPlatform.reports[i];
            const Report& expected = mReports[i];
            require(report.event == expected.event, "a report's event", report.detail);
            if (expected.mixStart) {
                const std::string end = upToZero(expected.mixStart->answers);
                require(startsWith(report.detail, expected.mixStartDescription) && endsWith(report.detail, end),
                        "a mix start's trace", report.detail);
                const size_t brace = report.detail.find('{');
                require(Json::accept(report.detail.substr(brace, report.detail.size() - end.size() - brace)),
                        "a mix start's description is JSON", report.detail);
            } else {
                require(report.detail == expected.detail, "a report's trace", report.detail);
            }
            requireNoSecretIn(report.roomUser);
            requireNoSecretIn(report.information);
            requireNoSecretIn(report.detail);
        }
        mReports.clear();
        mPlatform.reports.clear();
    }

    static void requireNoSecretIn(const std::string& text) {
        require(text.find(kUserSig) == std::string::npos, "the signature is shown nowhere", text);
        require(text.find(kMapKey) == std::string::npos, "the map key is shown nowhere", text);
    }

    FakePlatform& mPlatform = FakePlatform::instance();
    std::shared_ptr<Listener> mListener = std::make_shared<Listener>();
    std::shared_ptr<LiveTranscodingAdapter> mAdapter = std::make_shared<LiveTranscodingAdapter>();
    int mLastCode = 0;
    std::string mLastBody;

    // As the rules have it.
    bool mIsInRoom = false;
    bool mIsAnythingStarted = false;
    std::array<bool, 2> mPending{};
    std::array<int, 2> mGenerations{};
    std::array<int, 4> mCounters{};
    std::map<std::pair<size_t, int>, Task> mTasks;
    std::vector<Retry> mRetries;
    std::vector<Kind> mFirstSends;
    std::vector<Notification> mExpected;
    std::vector<Report> mReports;

    // As they came.
    std::vector<Sent> mSent;
    size_t mLogSeen = 0;
    size_t mLogRead = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    if (input.find(kUserSig) != std::string_view::npos || input.find(kMapKey) != std::string_view::npos) {
        return 0;  // what an answer holds may be shown
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
