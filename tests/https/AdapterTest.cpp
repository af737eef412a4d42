// The adapter on the real platform against the local service, over real HTTPS.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/Md5.h"
#include "platform/Platform.h"
#include "service/LiveService.h"
#include "support/OwnService.h"
#include "support/Poll.h"
#include "support/RoomMember.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;
using vexalive::Fault;
using vexalive::HttpExchange;
using vexalive::LiveService;

LiveService* service = nullptr;

Fault makeFault(Fault::Kind kind) {
    Fault fault;
    fault.kind = kind;
    return fault;
}

Fault statusFault(int count) {
    Fault fault = makeFault(Fault::Kind::kStatus);
    fault.count = count;
    return fault;
}

constexpr int kUntilCleared = 0;  // as `Fault::count`: the fault applies until clearFaults()

// While true, the service executes each request but withholds the response.
std::atomic<bool> holdsResponses{false};

// Waits because a task that is about to end may still own the adapter.
bool waitUntilDestroyed(const std::weak_ptr<LiveTranscodingAdapter>& adapter) {
    return pollUntil([&] { return adapter.expired(); });
}

std::string streamIdOf(const std::string& userId) {
    return "8888_" + kstmedia::getMD5("r1_" + userId + "_main");
}

// Records the phases of all HTTP exchanges of the process. Queries select those of one member.
class ExchangeLog {
public:
    struct Exchange {
        HttpExchange::Phase phase;
        std::string streamId;
        std::string text;  // interface name, request body and response, as the observer received them
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

    // Waits for `phases` phases of the member's exchanges. A complete exchange has three phases.
    std::vector<Exchange> waitFor(size_t phases, const std::string& userId) const {
        return mJournal.waitFor(phases, [&](const Exchange& each) { return each.streamId == streamIdOf(userId); });
    }

    // Waits until the member has sent `count` requests; returns all sends so far.
    std::vector<Exchange> waitForSends(size_t count, const std::string& userId) const {
        return mJournal.waitFor(count, [&](const Exchange& each) {
            return each.phase == HttpExchange::kStarted && each.streamId == streamIdOf(userId);
        });
    }
    std::vector<Exchange> sends(const std::string& userId) const { return waitForSends(0, userId); }

    // Waits until each response to the member is delivered or dropped.
    void waitUntilIdle(const std::string& userId) const { waitFor(3 * sends(userId).size(), userId); }

    std::vector<Exchange> all() const { return mJournal.all(); }

private:
    std::mutex mMutex;
    std::map<uint64_t, std::string> mStreams;  // stream id by exchange id
    Journal<Exchange> mJournal;
};

// ---- Fixtures -------------------------------------------------------------------------------------------------------

constexpr oracle::Kind kKinds[] = {oracle::kAddRelay, oracle::kRemoveRelay, oracle::kStartMix, oracle::kCancelMix};

Call success(oracle::Kind kind) {
    return {oracle::rulesOf(kind).name, 0, "sucess"};
}

std::string userOf(const std::string& prefix, oracle::Kind kind) {
    return prefix + oracle::rulesOf(kind).name;
}

// Records exchanges, reports and log lines; clears the faults of the service at the end of each test.
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
        holdsResponses = false;
    }

    // A member for which an operation of this kind sends a request. A stop or cancel needs an earlier start: it is
    // complete, and its exchanges, reports and notifications are cleared.
    std::unique_ptr<Member> makeReadyMember(oracle::Kind kind, const std::string& userId,
                                            const std::string& userSig = "signature",
                                            const std::string& mapKey = "key") {
        auto member = std::make_unique<Member>(userId, userSig, mapKey);
        if (const oracle::Kind start = oracle::startOf(kind); start != kind) {
            callOperation(*member->adapter, start);
            EXPECT_EQ(0, member->listener->calls.waitFor(1).at(0).code);
            mExchanges->waitFor(3, userId);
            mReports->waitFor(1, [&](const auto& report) { return report.roomUser == "r1_" + userId; });
            member->listener = std::make_shared<Listener>();
            member->adapter->setLiveTranscodingDelegate(member->listener);
        }
        mExchanges->clear();
        mReports->clear();
        return member;
    }

    // All log lines, event reports, listener messages and exchanges, and the state of the service.
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

    // Shared with the hooks: their last calls may come after the end of the test.
    std::shared_ptr<Journal<vexalive::EventReport>> mReports = std::make_shared<Journal<vexalive::EventReport>>();
    std::shared_ptr<Journal<std::string>> mLines = std::make_shared<Journal<std::string>>();
    std::shared_ptr<ExchangeLog> mExchanges = std::make_shared<ExchangeLog>();
};

class EachRequest : public AdapterOverHttps, public testing::WithParamInterface<oracle::Kind> {
protected:
    // The notification of a request that failed without a response.
    static Call transportFailure(int retCode) { return oracle::evaluate(GetParam(), retCode, "").notifications[0]; }
};

INSTANTIATE_TEST_SUITE_P(, EachRequest, testing::ValuesIn(kKinds),
                         [](const auto& test) { return oracle::rulesOf(test.param).name; });

// ---- Requests -------------------------------------------------------------------------------------------------------

TEST_F(AdapterOverHttps, ARelayAndAMixOfOneMemberRunSideBySide) {
    Member member("u-both");
    const auto state = [] { return nlohmann::json::parse(service->stateJson()); };
    const auto isRelayed = [&] { return state().at("relays").dump().find(streamIdOf("u-both")) != std::string::npos; };
    auto expectSuccess = [&, count = size_t{0}](oracle::Kind kind, int users = 2) mutable {
        callOperation(*member.adapter, kind, users);
        EXPECT_EQ(success(kind), member.listener->calls.waitFor(++count).back());
    };
    expectSuccess(oracle::kStartMix);
    expectSuccess(oracle::kAddRelay);
    EXPECT_TRUE(isRelayed());
    expectSuccess(oracle::kStartMix, 3);
    expectSuccess(oracle::kRemoveRelay);
    EXPECT_FALSE(isRelayed());
    expectSuccess(oracle::kCancelMix);

    const auto mixes = state().at("mixes");
    const auto mix = std::find_if(mixes.begin(), mixes.end(),
                                  [](const auto& each) { return each.at("output_stream_id") == streamIdOf("u-both"); });
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

// Exception to the rule that no test asserts elapsed time: the retry delays are under test.
TEST_F(AdapterOverHttps, EachRequestIsRetriedOnItsScheduleInRealTime) {
    std::map<oracle::Kind, std::unique_ptr<Member>> members;
    for (const oracle::Kind kind : kKinds) {
        members[kind] = makeReadyMember(kind, userOf("u-schedule-", kind));
    }
    service->inject(statusFault(kUntilCleared));
    for (const auto& [kind, member] : members) {
        callOperation(*member->adapter, kind);
    }
    for (const auto& [kind, member] : members) {
        EXPECT_THAT(member->listener->calls.waitFor(1),
                    testing::ContainerEq(oracle::evaluate(kind, 1, "").notifications));
        const auto sends = mExchanges->sends(userOf("u-schedule-", kind));
        ASSERT_EQ(size_t{oracle::kMaxRetries} + 1, sends.size());
        std::printf("%s, seconds before each retry:", oracle::rulesOf(kind).name);
        for (size_t retry = 1; retry < sends.size(); ++retry) {
            const auto pause = sends[retry].when - sends[retry - 1].when;
            EXPECT_GE(pause, std::chrono::milliseconds(oracle::retryPause(static_cast<int>(retry))));
            std::printf(" %.3f", std::chrono::duration<double>(pause).count());
        }
        std::printf("\n");
    }
}

// ---- Destruction ----------------------------------------------------------------------------------------------------

// Responses are delivered on the client's thread, which therefore destroys the adapter.
TEST_P(EachRequest, ItsListenerCallMayDropTheAdapterWithAnotherSuchRequestInFlight) {
    for (int i = 0; i < 20; ++i) {
        const std::string userId = userOf("u-twice" + std::to_string(i), GetParam());
        const auto member = makeReadyMember(GetParam(), userId);
        const std::weak_ptr<LiveTranscodingAdapter> adapter = member->adapter;
        Gate called;
        member->listener->during = [&](const Call&) {
            EXPECT_TRUE(called.pass());
            holdsResponses = true;
            callOperation(*member->adapter, GetParam());
            EXPECT_EQ(2u, mExchanges->waitForSends(2, userId).size());
            member->adapter.reset();
        };
        callOperation(*member->adapter, GetParam());
        called.open();
        EXPECT_EQ(1u, member->listener->calls.waitFor(1).size());
        ASSERT_TRUE(waitUntilDestroyed(adapter));
        holdsResponses = false;
        mExchanges->waitUntilIdle(userId);
        EXPECT_THAT(member->listener->calls.all(), ElementsAre(success(GetParam())));
    }
}

// An operation that the adapter refuses without a request. A task on the loop's worker notifies the listener.
struct RefusedCall {
    const char* name;
    std::optional<oracle::Kind> inFlight;  // request of the other family that is in flight at the refused call
    std::function<void(LiveTranscodingAdapter& adapter)> call;
};

void PrintTo(const RefusedCall& refused, std::ostream* out) {
    *out << refused.name;
}

class EachRefusedCall : public AdapterOverHttps, public testing::WithParamInterface<RefusedCall> {};

INSTANTIATE_TEST_SUITE_P(
    , EachRefusedCall,
    testing::Values(
        RefusedCall{"RelayStart", oracle::kStartMix, [](auto& adapter) { adapter.startPublishStreamUrl({}); }},
        RefusedCall{"RelayStop", std::nullopt, [](auto& adapter) { adapter.stopPublishStreamUrl(); }},
        RefusedCall{"MixStart", oracle::kAddRelay, [](auto& adapter) { adapter.setLiveMixTranscoding({}); }},
        RefusedCall{"MixCancel", std::nullopt, [](auto& adapter) { adapter.stopLiveMixTranscoding(); }}),
    [](const auto& test) { return test.param.name; });

TEST_P(EachRefusedCall, ItsListenerCallMayDropTheAdapter) {
    for (int i = 0; i < 20; ++i) {
        const std::string userId = "u-worker" + std::to_string(i);
        Member member(userId);
        const std::weak_ptr<LiveTranscodingAdapter> adapter = member.adapter;
        Gate called;
        member.listener->during = [&](const Call&) {
            EXPECT_TRUE(called.pass());
            member.adapter.reset();
        };
        holdsResponses = true;
        if (GetParam().inFlight) {
            callOperation(*member.adapter, *GetParam().inFlight);
            EXPECT_EQ(1u, mExchanges->waitForSends(1, userId).size());
        }
        GetParam().call(*member.adapter);
        called.open();
        EXPECT_EQ(1u, member.listener->calls.waitFor(1).size());
        ASSERT_TRUE(waitUntilDestroyed(adapter));
        holdsResponses = false;
        mExchanges->waitUntilIdle(userId);
        EXPECT_EQ(1u, member.listener->calls.size());
    }
}

// ---- Secrets --------------------------------------------------------------------------------------------------------

constexpr const char* kSignature = "S1gn4tur3";
constexpr const char* kMapKey = "M4pK3y";

// Covers four outcomes: success after a retry, a refusal by the service, and two failures of the transport.
TEST_P(EachRequest, ShowsTheSignatureAndTheMapKeyInNoOutput) {
    const auto member = makeReadyMember(GetParam(), "u-secret", kSignature, kMapKey);
    auto call = [&member, count = size_t{0}]() mutable {
        callOperation(*member->adapter, GetParam());
        return member->listener->calls.waitFor(++count).back();
    };
    service->inject(makeFault(Fault::Kind::kGarbage));
    EXPECT_EQ(success(GetParam()), call());
    Fault refusal = makeFault(Fault::Kind::kCode);
    refusal.code = 77;
    service->inject(refusal);
    EXPECT_EQ(oracle::rulesOf(GetParam()).serverBase - 77, call().code);
    service->inject(makeFault(Fault::Kind::kHuge));
    EXPECT_EQ(transportFailure(1063), call());
    member->adapter->updateUserInfo(1400, std::string(kSignature) + " with a blank", "u-secret");
    EXPECT_EQ(transportFailure(1003), call());
    EXPECT_EQ(4u, mReports->waitFor(4).size());
    EXPECT_EQ(5u, mExchanges->sends("u-secret").size());  // four calls; only the first was retried

    const std::string all = allOutput(*member->listener);
    EXPECT_THAT(all, HasSubstr("r1_u-secret"));           // proves that `all` contains the reports
    EXPECT_THAT(all, HasSubstr(streamIdOf("u-secret")));  // and the requests
    EXPECT_THAT(all, Not(HasSubstr(kSignature)));
    EXPECT_THAT(all, Not(HasSubstr(kMapKey)));
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    const auto folder = std::filesystem::temp_directory_path() / ("vexalive-adapter-test-" + std::to_string(getpid()));
    vexalive::LiveServiceOptions serviceOptions;
    serviceOptions.port = static_cast<uint16_t>(ownServicePort());
    serviceOptions.stateFolder = folder;
    serviceOptions.observer = [](auto&&...) { pollUntil([] { return !holdsResponses; }); };
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
