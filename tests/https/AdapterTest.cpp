// The adapter on the real platform against the local service, over real HTTPS.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/Md5.h"
#include "base/RetrySchedule.h"
#include "base/ServiceAddress.h"
#include "platform/Platform.h"
#include "service/LiveService.h"
#include "support/Poll.h"
#include "support/RoomMember.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;
using vexalive::Fault;
using vexalive::HttpExchange;
using vexalive::LiveService;

LiveService* service = nullptr;
Journal<vexalive::LiveServiceEvent> served;

Fault of(Fault::Kind kind) {
    Fault fault;
    fault.kind = kind;
    return fault;
}

Fault failing(int count) {
    Fault fault = of(Fault::Kind::kStatus);
    fault.count = count;
    return fault;
}

constexpr int kUntilCleared = 0;  // for `count`

// While it exists, the service carries requests out and withholds the responses.
class HeldResponses {
public:
    HeldResponses() { setHolds(true); }
    ~HeldResponses() { setHolds(false); }
    HeldResponses(const HeldResponses&) = delete;
    HeldResponses& operator=(const HeldResponses&) = delete;

    // On a thread of the service, before it responds.
    static void wait() {
        std::unique_lock<std::mutex> lock(state().mutex);
        state().changed.wait(lock, [] { return !state().holds; });
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        bool holds = false;
    };
    static State& state() {
        static State only;
        return only;
    }
    static void setHolds(bool holds) {
        const std::lock_guard<std::mutex> lock(state().mutex);
        state().holds = holds;
        state().changed.notify_all();
    }
};

// The last owner may be a task that is just ending.
bool waitUntilDestroyed(const std::weak_ptr<LiveTranscodingAdapter>& adapter) {
    return pollUntil([&] { return adapter.expired(); });
}

std::string streamOf(const std::string& userId) {
    return "8888_" + kstmedia::getMD5("r1_" + userId + "_main");
}

// What the service has carried out for a member.
std::vector<std::string> operationsFor(const std::string& userId) {
    std::vector<std::string> operations;
    for (const vexalive::LiveServiceEvent& event : served.all()) {
        if (event.streamId == streamOf(userId)) {
            operations.push_back(event.operation);
        }
    }
    return operations;
}

int countThreads() {
    const auto threads = std::filesystem::directory_iterator("/proc/self/task");
    return static_cast<int>(std::distance(begin(threads), end(threads)));
}

// All exchanges of the process, by the member that they are for.
class ExchangeLog {
public:
    struct Exchange {
        HttpExchange::Phase phase;
        std::string streamId;
        std::string text;  // everything that the observer receives
        std::chrono::steady_clock::time_point when;
    };

    void add(const HttpExchange& exchange) {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (exchange.phase == HttpExchange::kStarted) {
            const auto body = nlohmann::json::parse(exchange.body);
            mStreams[exchange.id] = body.at(body.contains("session_id") ? "session_id" : "stream_id");
        }
        mJournal.add({exchange.phase, mStreams[exchange.id],
                      std::string(exchange.interfaceName) + std::string(exchange.body) + std::string(exchange.response),
                      std::chrono::steady_clock::now()});
    }

    void clear() { mJournal.clear(); }

    // Waits until the member's exchanges have passed that many phases, three for each.
    std::vector<Exchange> waitFor(size_t phases, const std::string& userId) const {
        return mJournal.waitFor(phases, [&](const Exchange& each) { return each.streamId == streamOf(userId); });
    }

    // Waits for so many requests of the member; also returns what came beyond.
    std::vector<Exchange> waitForSends(size_t count, const std::string& userId) const {
        return mJournal.waitFor(count, [&](const Exchange& each) {
            return each.phase == HttpExchange::kStarted && each.streamId == streamOf(userId);
        });
    }
    std::vector<Exchange> sends(const std::string& userId) const { return waitForSends(0, userId); }

    // Waits until the responses to all requests of the member are delivered or dropped.
    void waitForSilence(const std::string& userId) const { waitFor(3 * sends(userId).size(), userId); }

    std::vector<Exchange> all() const { return mJournal.all(); }

private:
    std::mutex mMutex;
    std::map<uint64_t, std::string> mStreams;  // by exchange
    Journal<Exchange> mJournal;
};

// ---- What differs ---------------------------------------------------------------------------------------------------

using Operation = void (*)(LiveTranscodingAdapter& adapter);

void startRelay(LiveTranscodingAdapter& adapter) {
    adapter.startPublishStreamUrl(relayParam());
}

void startMix(LiveTranscodingAdapter& adapter) {
    adapter.setLiveMixTranscoding(mixConfig(2));
}

struct Request {
    const char* name;
    oracle::Kind kind;
    Operation before;  // has to be done already; may be null
    Operation ask;
    const char* information;              // part of the report
    std::vector<std::string> operations;  // of the service, in the end

    const oracle::KindRules& rules() const { return oracle::rulesOf(kind); }

    // The stop of a relay traces the counter of its start, which is at 0.
    std::string traceSegment(int attemptsLeft) const {
        const int shown = rules().tracedCounter == kind ? attemptsLeft : 0;
        return " [tryHttp:cnt-" + std::to_string(shown) + "]";
    }
};

void PrintTo(const Request& request, std::ostream* out) {
    *out << request.name;
}

const std::vector<Request> kRequests = {
    {"RelayStart",
     oracle::kAddRelay,
     nullptr,
     startRelay,
     "appId:1234, bizId:8888, url:rtmp://cdn.example/live/stream",
     {"add"}},
    {"RelayStop",
     oracle::kRemoveRelay,
     startRelay,
     [](LiveTranscodingAdapter& adapter) { adapter.stopPublishStreamUrl(); },
     "\"interface\":\"remove_relay_stream_url\"",
     {"add", "remove"}},
    {"MixStart", oracle::kStartMix, nullptr, startMix, "appId:1234, bizId:8888, width:720, height:1280", {"start"}},
    {"MixUpdate",
     oracle::kStartMix,
     startMix,
     [](LiveTranscodingAdapter& adapter) { adapter.setLiveMixTranscoding(mixConfig(3)); },
     " mixUser3:[userId:guest3",
     {"start", "update"}},
    {"MixCancel",
     oracle::kCancelMix,
     startMix,
     [](LiveTranscodingAdapter& adapter) { adapter.stopLiveMixTranscoding(); },
     "\"layout_params\":{\"image_layer\":1}",
     {"start", "cancel"}},
};

// Calls that the adapter refuses: a task on the worker notifies the listener.
struct RefusedCall {
    const char* name;
    Operation ask;
    Call notified;
    size_t reports;
};

void PrintTo(const RefusedCall& refused, std::ostream* out) {
    *out << refused.name;
}

const std::vector<RefusedCall> kRefusedCalls = {
    {"RelayWithoutParameter",
     [](LiveTranscodingAdapter& adapter) { adapter.startPublishStreamUrl({}); },
     {"startRelay", -3323, "startPublishStreamUrl failure, param is invalid"},
     1},
    {"RelayStopOfNothing",
     [](LiveTranscodingAdapter& adapter) { adapter.stopPublishStreamUrl(); },
     {"stopMix", -3323, "stopPublishStreamUrl error, appid = 0, should call startPublishStreamUrl before"},
     0},
    {"MixWithoutFields",
     [](LiveTranscodingAdapter& adapter) { adapter.setLiveMixTranscoding({}); },
     {"startRelay", -3324, "setLiveMixTranscoding failure, param is invalid"},
     1},
    {"MixOfNobody",
     [](LiveTranscodingAdapter& adapter) { adapter.setLiveMixTranscoding(mixConfig(0)); },
     {"startRelay", -3324, "mixUsersArray is invalid"},
     1},
    {"MixCancelOfNothing",
     [](LiveTranscodingAdapter& adapter) { adapter.stopLiveMixTranscoding(); },
     {"stopMix", -3324, "stopLiveMixTranscoding error, appid = 0, should call startMixTranscoding before"},
     0},
};

// Every test records reports and log lines, and clears the faults of the service at its end.
class AdapterOverHttps : public testing::Test {
protected:
    AdapterOverHttps() {
        vexalive::setEventSink([reports = mReports](const vexalive::EventReport& report) { reports->add(report); });
        vexalive::setLogSink([lines = mLines](int, const char*, int, const char* function, const std::string& message) {
            lines->add(function + (": " + message));
        });
        vexalive::setHttpObserver([exchanges = mExchanges](const HttpExchange& exchange) { exchanges->add(exchange); });
    }

    ~AdapterOverHttps() override {
        vexalive::setEventSink(nullptr);
        vexalive::setLogSink(nullptr);
        vexalive::setHttpObserver(nullptr);
        service->clearFaults();
    }

    // A member who can ask for this. Nothing is in flight, and nothing notified, reported or exchanged until now
    // counts.
    std::unique_ptr<Member> ready(const Request& request, const std::string& userId,
                                  const std::string& userSig = "signature", const std::string& mapKey = "key") {
        auto member = std::make_unique<Member>(userId, userSig, mapKey);
        if (request.before) {
            request.before(*member->adapter);
            EXPECT_EQ(0, member->listener->calls.waitFor(1).at(0).code);
            mExchanges->waitFor(3, userId);
            waitForReport(userId);
            member->listener = std::make_shared<Listener>();
            member->adapter->setLiveTranscodingDelegate(member->listener);
        }
        mExchanges->clear();
        mReports->clear();
        return member;
    }

    // One of them for each request.
    std::vector<std::unique_ptr<Member>> readyForEach(const std::string& prefix) {
        std::vector<std::unique_ptr<Member>> members;
        for (const Request& request : kRequests) {
            members.push_back(ready(request, prefix + request.name));
        }
        return members;
    }

    vexalive::EventReport waitForReport(const std::string& userId) const {
        return mReports->waitFor(1, [&](const auto& report) { return report.roomUser == "r1_" + userId; }).at(0);
    }

    // Everything that was logged, reported, notified, observed of exchanges and recorded by the service.
    std::string allOutput(const Listener& listener) const {
        std::string all = service->stateJson();
        for (const std::string& line : mLines->all()) {
            all += line + "\n";
        }
        for (const vexalive::EventReport& report : mReports->all()) {
            all += report.roomUser + report.information + report.detail + "\n";
        }
        for (const ExchangeLog::Exchange& exchange : mExchanges->all()) {
            all += exchange.text + "\n";
        }
        for (const Call& call : listener.calls.all()) {
            all += call.message.value_or("") + "\n";
        }
        return all;
    }

    // Shared with the hooks, of which a last call may outlive the test.
    std::shared_ptr<Journal<vexalive::EventReport>> mReports = std::make_shared<Journal<vexalive::EventReport>>();
    std::shared_ptr<Journal<std::string>> mLines = std::make_shared<Journal<std::string>>();
    std::shared_ptr<ExchangeLog> mExchanges = std::make_shared<ExchangeLog>();
};

class EachRequest : public AdapterOverHttps, public testing::WithParamInterface<Request> {
protected:
    // The listener call for a request that failed without a response.
    static Call transportFailure(int retCode) {
        return oracle::evaluate(GetParam().kind, retCode, "").notifications[0];
    }
    static Call success() { return {GetParam().rules().name, 0, "sucess"}; }
};

class EachRefusedCall : public AdapterOverHttps, public testing::WithParamInterface<RefusedCall> {};

constexpr auto kByName = [](const auto& test) { return test.param.name; };
INSTANTIATE_TEST_SUITE_P(, EachRequest, testing::ValuesIn(kRequests), kByName);
INSTANTIATE_TEST_SUITE_P(, EachRefusedCall, testing::ValuesIn(kRefusedCalls), kByName);

// ---- Requests -------------------------------------------------------------------------------------------------------

TEST_F(AdapterOverHttps, AnAdapterThatHasSentNothingOwnsNoThread) {
    const int threads = countThreads();
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    EXPECT_EQ(threads, countThreads());
}

TEST_P(EachRequest, SucceedsOnTheThirdAttempt) {
    const std::string userId = std::string("u-third-") + GetParam().name;
    const auto member = ready(GetParam(), userId);
    service->inject(failing(2));
    GetParam().ask(*member->adapter);
    EXPECT_THAT(member->listener->calls.waitFor(1), ElementsAre(success()));

    const vexalive::EventReport report = waitForReport(userId);
    EXPECT_EQ(1400, report.sdkAppId);
    EXPECT_EQ(10004, report.eventType);
    EXPECT_EQ(GetParam().rules().event, report.event);
    EXPECT_THAT(report.information, HasSubstr(GetParam().information));
    const std::string& trace = report.detail;
    size_t at = 0;
    const std::pair<int, const char*> segments[] = {
        {10, "retCode:1, respData:"}, {9, "retCode:1, respData:"}, {8, "retCode:0, respData:{"}};
    for (const auto& [counter, response] : segments) {
        at = trace.find(GetParam().traceSegment(counter) + response, at);
        ASSERT_NE(std::string::npos, at) << trace;
        ++at;
    }
    EXPECT_EQ(3u, mExchanges->sends(userId).size());
    EXPECT_EQ(GetParam().operations, operationsFor(userId));
}

TEST_F(AdapterOverHttps, ARelayAndAMixOfOneMemberRunSideBySide) {
    Member member("u-both");
    const auto state = [] { return nlohmann::json::parse(service->stateJson()); };
    const auto isRelayed = [&] { return state().at("relays").dump().find(streamOf("u-both")) != std::string::npos; };
    startMix(*member.adapter);
    EXPECT_EQ((Call{"setMix", 0, "sucess"}), member.listener->calls.waitFor(1).back());
    startRelay(*member.adapter);
    EXPECT_EQ((Call{"startRelay", 0, "sucess"}), member.listener->calls.waitFor(2).back());
    EXPECT_TRUE(isRelayed());
    member.adapter->setLiveMixTranscoding(mixConfig(3));
    EXPECT_EQ((Call{"setMix", 0, "sucess"}), member.listener->calls.waitFor(3).back());
    member.adapter->stopPublishStreamUrl();
    EXPECT_EQ((Call{"stopRelay", 0, "sucess"}), member.listener->calls.waitFor(4).back());
    EXPECT_FALSE(isRelayed());
    member.adapter->stopLiveMixTranscoding();
    EXPECT_EQ((Call{"stopMix", 0, "sucess"}), member.listener->calls.waitFor(5).back());

    const auto mixes = state().at("mixes");
    const auto mix = std::find_if(mixes.begin(), mixes.end(),
                                  [](const auto& each) { return each.at("output_stream_id") == streamOf("u-both"); });
    ASSERT_NE(mixes.end(), mix);
    EXPECT_EQ(false, mix->at("running"));
    EXPECT_EQ(3u, mix->at("inputs").size());
    EXPECT_EQ(1280, mix->at("canvas").at("height"));
    std::vector<std::pair<std::string, int>> history;
    for (const auto& update : mix->at("history")) {
        history.emplace_back(update.at("operation"), update.at("inputs"));
    }
    EXPECT_THAT(history, ElementsAre(Pair("start", 2), Pair("update", 3), Pair("cancel", testing::_)));
}

// The subject is the retry timer, so this measures time.
TEST_F(AdapterOverHttps, TheWholeScheduleOfEachRequestOnTheRealClock) {
    const auto members = readyForEach("u-schedule-");
    service->inject(failing(kUntilCleared));
    for (size_t i = 0; i < members.size(); ++i) {
        kRequests[i].ask(*members[i]->adapter);
    }
    for (size_t i = 0; i < members.size(); ++i) {
        const Request& request = kRequests[i];
        const std::string userId = std::string("u-schedule-") + request.name;
        EXPECT_THAT(members[i]->listener->calls.waitFor(1),
                    testing::ContainerEq(oracle::evaluate(request.kind, 1, "").notifications));
        const auto sends = mExchanges->sends(userId);
        ASSERT_EQ(11u, sends.size()) << request.name;
        const int pauses[] = {1, 1, 2, 2, 2, 5, 5, 5, 5, 5};
        std::printf("%s, seconds before each retry:", request.name);
        for (size_t n = 0; n < 10; ++n) {
            const std::chrono::duration<double> pause = sends[n + 1].when - sends[n].when;
            EXPECT_GE(pause.count(), pauses[n]) << request.name << ", retry " << n + 1;
            RecordProperty(request.name + std::to_string(n + 1), std::to_string(pause.count()));
            std::printf(" %.3f", pause.count());
        }
        std::printf("\n");
        const std::string trace = waitForReport(userId).detail;
        size_t at = 0;
        for (int counter = kRetryBudget; counter >= 0; --counter) {
            at = trace.find(request.traceSegment(counter) + "retCode:1, respData:", at);
            ASSERT_NE(std::string::npos, at) << request.name << ": " << trace;
            ++at;
        }
    }
}

// ---- Listeners that block -------------------------------------------------------------------------------------------

TEST_F(AdapterOverHttps, ListenersOfEveryRequestThatBlockDelayNoOtherAdapter) {
    Journal<bool> entered;
    Gate mayReturn;  // outlives the members
    const auto blocked = readyForEach("u-blocked-");
    for (size_t i = 0; i < blocked.size(); ++i) {
        blocked[i]->listener->during = [&](const Call&) {
            entered.add(true);
            EXPECT_TRUE(mayReturn.pass());
        };
        kRequests[i].ask(*blocked[i]->adapter);
    }
    ASSERT_TRUE(entered.await(blocked.size()));
    std::this_thread::sleep_for(3s);  // longer than an idle thread lives

    // The responses, retries and refusals of the others are delivered while all of these still block.
    service->inject(failing(2));
    std::vector<std::unique_ptr<Member>> others;
    for (int i = 0; i < 10; ++i) {
        others.push_back(std::make_unique<Member>("u-other" + std::to_string(i)));
        startRelay(*others.back()->adapter);
        startMix(*others.back()->adapter);
    }
    Member refused("u-refused");
    refused.adapter->setLiveMixTranscoding({});
    for (const auto& other : others) {
        EXPECT_THAT(other->listener->calls.waitFor(2),
                    UnorderedElementsAre(Call{"startRelay", 0, "sucess"}, Call{"setMix", 0, "sucess"}));
    }
    EXPECT_EQ(1u, refused.listener->calls.waitFor(1).size());
    for (const auto& each : blocked) {
        EXPECT_TRUE(each->listener->calls.all().empty());
    }
    mayReturn.open();
    for (size_t i = 0; i < blocked.size(); ++i) {
        EXPECT_THAT(blocked[i]->listener->calls.waitFor(1), ElementsAre(Call{kRequests[i].rules().name, 0, "sucess"}));
    }
}

// ---- The adapter's end ----------------------------------------------------------------------------------------------

// Drops the adapter in the listener call that `ask` leads to.
void expectDropInListenerCall(Member& member, Operation ask, const Call& expected) {
    const std::weak_ptr<LiveTranscodingAdapter> adapter = member.adapter;
    Gate asked;
    member.listener->during = [&](const Call&) {
        EXPECT_TRUE(asked.pass());
        member.adapter.reset();
    };
    ask(*member.adapter);
    asked.open();
    EXPECT_THAT(member.listener->calls.waitFor(1), ElementsAre(expected));
    EXPECT_TRUE(waitUntilDestroyed(adapter));
}

TEST_P(EachRequest, ItsListenerCallMayDropTheAdapter) {
    for (int i = 0; i < 20; ++i) {
        expectDropInListenerCall(*ready(GetParam(), "u-dropped"), GetParam().ask, success());
    }
}

TEST_P(EachRefusedCall, ItsListenerCallMayDropTheAdapter) {
    for (int i = 0; i < 20; ++i) {
        Member member("u-dropped");
        expectDropInListenerCall(member, GetParam().ask, GetParam().notified);
    }
}

TEST_P(EachRequest, ItsListenerCallMayDropTheAdapterWithAnotherSuchRequestInFlight) {
    for (int i = 0; i < 20; ++i) {
        const std::string userId = "u-twice" + std::to_string(i) + GetParam().name;
        const auto member = ready(GetParam(), userId);
        const std::weak_ptr<LiveTranscodingAdapter> adapter = member->adapter;
        std::optional<HeldResponses> held;
        Gate asked;
        member->listener->during = [&](const Call&) {
            EXPECT_TRUE(asked.pass());
            held.emplace();
            GetParam().ask(*member->adapter);
            EXPECT_EQ(2u, mExchanges->waitForSends(2, userId).size());
            member->adapter.reset();
        };
        GetParam().ask(*member->adapter);
        asked.open();
        EXPECT_EQ(1u, member->listener->calls.waitFor(1).size());
        ASSERT_TRUE(waitUntilDestroyed(adapter));
        held.reset();
        mExchanges->waitForSilence(userId);
        EXPECT_THAT(member->listener->calls.all(), ElementsAre(success()));
    }
}

TEST_F(AdapterOverHttps, ARefusalsListenerCallMayDropTheAdapterWithARelayAndAMixInFlight) {
    for (int i = 0; i < 20; ++i) {
        const std::string userId = "u-worker" + std::to_string(i);
        Member member(userId);
        const std::weak_ptr<LiveTranscodingAdapter> adapter = member.adapter;
        Gate asked;
        member.listener->during = [&](const Call&) {
            EXPECT_TRUE(asked.pass());
            member.adapter.reset();
        };
        std::optional<HeldResponses> held(std::in_place);
        startRelay(*member.adapter);
        startMix(*member.adapter);
        EXPECT_EQ(2u, mExchanges->waitForSends(2, userId).size());
        member.adapter->startPublishStreamUrl({});  // refused by a task, on the worker
        asked.open();
        EXPECT_EQ(1u, member.listener->calls.waitFor(1).size());
        ASSERT_TRUE(waitUntilDestroyed(adapter));
        held.reset();
        mExchanges->waitForSilence(userId);
        EXPECT_THAT(member.listener->calls.all(), ElementsAre(kRefusedCalls[0].notified));
        EXPECT_THAT(operationsFor(userId), UnorderedElementsAre("add", "start"));  // both did arrive
    }
}

TEST_P(EachRequest, NoListenerCallBeginsOnceTheAdapterIsDroppedWithItInFlight) {
    struct Gone {
        std::string userId;
        std::shared_ptr<Listener> listener;
        size_t calls;  // made until then
    };
    std::vector<Gone> gone;
    for (size_t i = 0; i < 40; ++i) {
        const std::string userId = "u-inflight" + std::to_string(i) + GetParam().name;
        const auto member = ready(GetParam(), userId);
        GetParam().ask(*member->adapter);
        mExchanges->waitFor(i % 4, userId);  // dropped when posted, sent, complete or notified
        const std::weak_ptr<LiveTranscodingAdapter> adapter = member->adapter;
        member->adapter.reset();
        if (adapter.expired()) {  // otherwise a listener call holds it
            gone.push_back({userId, member->listener, member->listener->calls.all().size()});
        }
    }
    EXPECT_FALSE(gone.empty());
    for (const Gone& each : gone) {
        mExchanges->waitForSilence(each.userId);
        EXPECT_EQ(each.calls, each.listener->calls.all().size());
    }
}

TEST_F(AdapterOverHttps, MayBeDroppedWhileARetryWaits) {
    const auto members = readyForEach("u-waiting-");
    service->inject(failing(kUntilCleared));
    for (size_t i = 0; i < members.size(); ++i) {
        kRequests[i].ask(*members[i]->adapter);
    }
    for (size_t i = 0; i < members.size(); ++i) {
        // Started, completed, delivered: the retry is posted.
        EXPECT_EQ(3u, mExchanges->waitFor(3, std::string("u-waiting-") + kRequests[i].name).size());
        members[i]->adapter.reset();
    }
    // Their retries would have been sent before a retry that was posted later.
    Member later("u-later");
    startRelay(*later.adapter);
    mExchanges->waitFor(3, "u-later");
    service->clearFaults();
    EXPECT_THAT(later.listener->calls.waitFor(1), ElementsAre(Call{"startRelay", 0, "sucess"}));
    for (size_t i = 0; i < members.size(); ++i) {
        EXPECT_EQ(1u, mExchanges->sends(std::string("u-waiting-") + kRequests[i].name).size());
        EXPECT_TRUE(members[i]->listener->calls.all().empty());
    }
}

// ---- Secrets --------------------------------------------------------------------------------------------------------

constexpr const char* kSignature = "S1gn4tur3";
constexpr const char* kMapKey = "M4pK3y";

// Success after a retry, refusal by the service, and two failures of the transport.
TEST_P(EachRequest, ShowsTheSignatureAndTheMapKeyInNoOutput) {
    const auto member = ready(GetParam(), "u-secret", kSignature, kMapKey);
    auto ask = [&member, count = size_t{0}]() mutable {
        GetParam().ask(*member->adapter);
        return member->listener->calls.waitFor(++count).back();
    };
    service->inject(of(Fault::Kind::kGarbage));
    EXPECT_EQ(success(), ask());
    Fault refusal = of(Fault::Kind::kCode);
    refusal.code = 77;
    service->inject(refusal);
    EXPECT_EQ(GetParam().rules().serverBase - 77, ask().code);
    service->inject(of(Fault::Kind::kHuge));
    EXPECT_EQ(transportFailure(1063), ask());
    member->adapter->updateUserInfo(1400, std::string(kSignature) + " with a blank", "u-secret");
    EXPECT_EQ(transportFailure(1003), ask());
    EXPECT_EQ(4u, mReports->waitFor(4).size());
    EXPECT_EQ(5u, mExchanges->sends("u-secret").size());  // only the first was retried

    const std::string all = allOutput(*member->listener);
    EXPECT_THAT(all, HasSubstr("r1_u-secret"));  // this is where they would be
    EXPECT_THAT(all, HasSubstr(streamOf("u-secret")));
    EXPECT_THAT(all, Not(HasSubstr(kSignature)));
    EXPECT_THAT(all, Not(HasSubstr(kMapKey)));
}

TEST_P(EachRefusedCall, ShowsTheSignatureAndTheMapKeyInNoOutput) {
    Member member("u-secret", kSignature, kMapKey);
    GetParam().ask(*member.adapter);
    EXPECT_THAT(member.listener->calls.waitFor(1), ElementsAre(GetParam().notified));
    EXPECT_EQ(GetParam().reports, mReports->waitFor(GetParam().reports).size());
    EXPECT_FALSE(mLines->all().empty());
    const std::string all = allOutput(*member.listener);
    EXPECT_THAT(all, Not(HasSubstr(kSignature)));
    EXPECT_THAT(all, Not(HasSubstr(kMapKey)));
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    const auto folder = std::filesystem::temp_directory_path() / ("vexalive-adapter-test-" + std::to_string(getpid()));
    const std::string host = kstf_get_live_service_host();
    vexalive::LiveServiceOptions serviceOptions;
    serviceOptions.port = static_cast<uint16_t>(std::stoi(host.substr(host.find(':') + 1)));
    serviceOptions.stateFolder = folder;
    serviceOptions.observer = [](const vexalive::LiveServiceEvent& event) {
        served.add(event);
        HeldResponses::wait();
    };
    int result = 1;
    {
        LiveService running(serviceOptions);
        service = &running;
        if (const vexalive::Result<void> started = running.start(); !started) {
            std::fprintf(stderr, "%s\n", started.error().message.c_str());
            return 1;
        }
        vexalive::HttpOptions options;
        options.caFile = running.caFile();
        result = vexalive::setHttpOptions(options) ? RUN_ALL_TESTS() : 1;
    }
    std::filesystem::remove_all(folder);
    return result;
}
