// The adapter on the real platform against the local service, over real HTTPS.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "Room.h"
#include "base/RetrySchedule.h"
#include "base/ServiceAddress.h"
#include "platform/Platform.h"
#include "service/LiveService.h"

// This program's own service, in place of the platform's address: fixed before main, as the adapter asks for it then.
const char* kstf_get_live_service_host() {
    static const std::string host = "127.0.0.1:" + std::to_string(freePort());
    return host.c_str();
}

const char* kstf_get_push_domain_suffix() {
    return "livepush.vexa.example";
}

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using vexalive::HttpExchange;
using vexalive::LiveService;
using vexalive::Misbehaviour;

LiveService* service = nullptr;

Misbehaviour failing(int times) {
    Misbehaviour misbehaviour;
    misbehaviour.kind = Misbehaviour::Kind::kStatus;
    misbehaviour.status = 503;
    misbehaviour.times = times;
    return misbehaviour;
}

Misbehaviour of(Misbehaviour::Kind kind) {
    Misbehaviour misbehaviour;
    misbehaviour.kind = kind;
    return misbehaviour;
}

size_t countRelays() {
    return nlohmann::json::parse(service->stateJson()).at("relays").size();
}

int countThreads() {
    const auto threads = std::filesystem::directory_iterator("/proc/self/task");
    return static_cast<int>(std::distance(begin(threads), end(threads)));
}

// Opens once.
class Gate {
public:
    void open() { mPassed.add(true); }
    bool pass() { return !mPassed.waitFor(1).empty(); }

private:
    Journal<bool> mPassed;
};

// Every test listens to the reports and sees what comes of log lines, and leaves the service well behaved.
class AdapterOverHttps : public testing::Test {
protected:
    struct Exchange {
        HttpExchange::Phase phase;
        int retCode;
        std::chrono::steady_clock::time_point when;
    };

    AdapterOverHttps() {
        vexalive::setEventSink([reports = mReports](const vexalive::EventReport& report) { reports->add(report); });
        vexalive::setLogSink([lines = mLines](int, const char*, int, const char* function, const std::string& message) {
            lines->add(function + (": " + message));
        });
        vexalive::setHttpObserver([exchanges = mExchanges](const HttpExchange& exchange) {
            exchanges->add({exchange.phase, exchange.retCode, std::chrono::steady_clock::now()});
        });
    }

    ~AdapterOverHttps() override {
        vexalive::setEventSink(nullptr);
        vexalive::setLogSink(nullptr);
        vexalive::setHttpObserver(nullptr);
        service->clearMisbehaviours();
    }

    std::vector<Exchange> sends() const {
        std::vector<Exchange> all = mExchanges->all();
        all.erase(std::remove_if(all.begin(), all.end(),
                                 [](const Exchange& each) { return each.phase != HttpExchange::kStarted; }),
                  all.end());
        return all;
    }

    // Shared with the hooks, of which a last call may outlive the test.
    std::shared_ptr<Journal<vexalive::EventReport>> mReports = std::make_shared<Journal<vexalive::EventReport>>();
    std::shared_ptr<Journal<std::string>> mLines = std::make_shared<Journal<std::string>>();
    std::shared_ptr<Journal<Exchange>> mExchanges = std::make_shared<Journal<Exchange>>();
};

TEST_F(AdapterOverHttps, AnAdapterThatHasSentNothingOwnsNoThread) {
    const int threads = countThreads();
    const auto adapter = std::make_shared<LiveTranscodingAdapter>();
    EXPECT_EQ(threads, countThreads());
}

TEST_F(AdapterOverHttps, ARelayStartsOnTheThirdAttemptAndStops) {
    Member member("u-third");
    service->misbehave(failing(2));

    member.adapter->startPublishStreamUrl(relayParam());
    EXPECT_THAT(member.listener->calls.waitFor(1), ElementsAre(Call{"startRelay", 0, "sucess"}));
    const auto reports = mReports->waitFor(1);
    ASSERT_EQ(1u, reports.size());
    EXPECT_EQ(1400, reports[0].sdkAppId);
    EXPECT_EQ("r1_u-third", reports[0].roomUser);
    EXPECT_EQ(10004, reports[0].eventType);
    EXPECT_EQ(30, reports[0].event);
    EXPECT_THAT(reports[0].information, HasSubstr("appId:1234, bizId:8888, url:rtmp://cdn.example/live/stream"));
    const std::string& trace = reports[0].detail;
    const size_t first = trace.find(" [tryHttp:cnt-10]retCode:1, respData:");
    const size_t second = trace.find(" [tryHttp:cnt-9]retCode:1, respData:");
    const size_t third = trace.find(" [tryHttp:cnt-8]retCode:0, respData:{");
    EXPECT_TRUE(first < second && second < third && third != std::string::npos) << trace;
    EXPECT_EQ(1u, countRelays());

    member.adapter->stopPublishStreamUrl();
    EXPECT_EQ((Call{"stopRelay", 0, "sucess"}), member.listener->calls.waitFor(2).back());
    EXPECT_EQ(0u, countRelays());
}

TEST_F(AdapterOverHttps, AMixStartsIsUpdatedAndIsCancelled) {
    Member member("u-mix");
    member.adapter->setLiveMixTranscoding(mixConfig(2));
    EXPECT_EQ((Call{"setMix", 0, "sucess"}), member.listener->calls.waitFor(1).back());
    member.adapter->setLiveMixTranscoding(mixConfig(3));
    EXPECT_EQ((Call{"setMix", 0, "sucess"}), member.listener->calls.waitFor(2).back());
    member.adapter->stopLiveMixTranscoding();
    EXPECT_EQ((Call{"stopMix", 0, "sucess"}), member.listener->calls.waitFor(3).back());
    EXPECT_EQ(31, mReports->waitFor(3).back().event);
}

TEST_F(AdapterOverHttps, ARefusalOfTheServiceIsToldWithItsCode) {
    Member member("u-refused");
    Misbehaviour refusal = of(Misbehaviour::Kind::kServerCode);
    refusal.code = -77;
    refusal.message = "no such app";
    service->misbehave(refusal);
    member.adapter->startPublishStreamUrl(relayParam());
    EXPECT_THAT(member.listener->calls.waitFor(1), ElementsAre(Call{"startRelay", -200077, "no such app"}));
    EXPECT_EQ(1u, sends().size());
}

TEST_F(AdapterOverHttps, TheWholeScheduleOnTheRealClock) {
    Member member("u-schedule");
    service->misbehave(failing(kRetryBudget + 1));
    member.adapter->startPublishStreamUrl(relayParam());
    EXPECT_THAT(member.listener->calls.waitFor(1),
                ElementsAre(Call{"startRelay", -3321, "http post return error， retcode:1"}));
    const auto all = sends();
    ASSERT_EQ(11u, all.size());
    const int pauses[] = {1, 1, 2, 2, 2, 5, 5, 5, 5, 5};
    for (size_t i = 0; i < 10; ++i) {
        const std::chrono::duration<double> pause = all[i + 1].when - all[i].when;
        EXPECT_GE(pause.count(), pauses[i]);
        RecordProperty("pause" + std::to_string(i + 1), std::to_string(pause.count()));
        std::printf("pause before retry %zu: %.3f s\n", i + 1, pause.count());
    }
    const auto reports = mReports->waitFor(1);
    for (int count = 10; count >= 0; --count) {
        EXPECT_THAT(reports[0].detail, HasSubstr(" [tryHttp:cnt-" + std::to_string(count) + "]retCode:1, respData:"));
    }
}

TEST_F(AdapterOverHttps, AnAddressThatNoUrlMayHoldIsToldAndNotRetried) {
    Member member("u-blank", "a signature with blanks");
    member.adapter->startPublishStreamUrl(relayParam());
    EXPECT_THAT(member.listener->calls.waitFor(1),
                ElementsAre(Call{"startRelay", -3321, "http post return error， retcode:1003"}));
    EXPECT_EQ(1u, sends().size());
}

TEST_F(AdapterOverHttps, AnAnswerOverTheLimitIsToldAndNotRetried) {
    Member member("u-huge");
    service->misbehave(of(Misbehaviour::Kind::kHuge));
    member.adapter->startPublishStreamUrl(relayParam());
    EXPECT_THAT(member.listener->calls.waitFor(1),
                ElementsAre(Call{"startRelay", -3321, "http post return error， retcode:1063"}));
    EXPECT_EQ(1u, sends().size());
}

TEST_F(AdapterOverHttps, EmptyGarbledAndCutAnswersAreRetried) {
    Member member("u-hostile");
    service->misbehave(of(Misbehaviour::Kind::kEmpty));
    service->misbehave(of(Misbehaviour::Kind::kGarbage));
    service->misbehave(of(Misbehaviour::Kind::kCut));
    member.adapter->startPublishStreamUrl(relayParam());
    EXPECT_THAT(member.listener->calls.waitFor(1), ElementsAre(Call{"startRelay", 0, "sucess"}));
    EXPECT_EQ(4u, sends().size());
    member.adapter->stopPublishStreamUrl();
    member.listener->calls.waitFor(2);
}

TEST_F(AdapterOverHttps, AListenerThatBlocksDelaysNoOtherAdapter) {
    Member blocked("u-blocked");
    Gate entered;
    Gate leave;
    blocked.listener->during = [&](const Call&) {
        entered.open();
        EXPECT_TRUE(leave.pass());
    };
    blocked.adapter->startPublishStreamUrl(relayParam());
    ASSERT_TRUE(entered.pass());

    // The others' answers, retries and refusals all come while the first still blocks.
    service->misbehave(failing(2));
    std::vector<std::unique_ptr<Member>> others;
    for (int i = 0; i < 10; ++i) {
        others.push_back(std::make_unique<Member>("u-other" + std::to_string(i)));
        others.back()->adapter->startPublishStreamUrl(relayParam());
        others.back()->adapter->setLiveMixTranscoding({});
    }
    for (const auto& other : others) {
        EXPECT_EQ(2u, other->listener->calls.waitFor(2).size());
    }
    EXPECT_TRUE(blocked.listener->calls.all().empty());
    leave.open();
    EXPECT_THAT(blocked.listener->calls.waitFor(1), ElementsAre(Call{"startRelay", 0, "sucess"}));
}

TEST_F(AdapterOverHttps, AListenerThatSleepsThreeSecondsDelaysNoOtherAdapter) {
    Member sleeper("u-sleeper");
    Gate entered;
    sleeper.listener->during = [&](const Call&) {
        entered.open();
        std::this_thread::sleep_for(3s);
    };
    sleeper.adapter->startPublishStreamUrl(relayParam());
    ASSERT_TRUE(entered.pass());
    Member other("u-awake");
    other.adapter->startPublishStreamUrl(relayParam());
    EXPECT_THAT(other.listener->calls.waitFor(1), ElementsAre(Call{"startRelay", 0, "sucess"}));
    EXPECT_TRUE(sleeper.listener->calls.all().empty());  // asleep all the while
    sleeper.listener->calls.waitFor(1);
}

// ---- The adapter's end ----------------------------------------------------------------------------------------------

TEST_F(AdapterOverHttps, MayBeDroppedInItsOwnListenerCallOnTheDeliveryThread) {
    for (int i = 0; i < 20; ++i) {
        auto member = std::make_unique<Member>("u-dropped");
        const auto listener = member->listener;
        Gate dropped;
        listener->during = [&](const Call&) {
            member->adapter.reset();
            dropped.open();
        };
        member->adapter->startPublishStreamUrl(relayParam());
        ASSERT_TRUE(dropped.pass());
        EXPECT_EQ(1u, listener->calls.waitFor(1).size());
    }
}

TEST_F(AdapterOverHttps, MayBeDroppedInItsOwnListenerCallOnTheWorker) {
    for (int i = 0; i < 20; ++i) {
        auto member = std::make_unique<Member>("u-dropped");
        const auto listener = member->listener;
        listener->during = [&](const Call&) { member->adapter.reset(); };
        member->adapter->startPublishStreamUrl({});  // refused by a task
        EXPECT_THAT(listener->calls.waitFor(1),
                    ElementsAre(Call{"startRelay", -3323, "startPublishStreamUrl failure, param is invalid"}));
    }
}

TEST_F(AdapterOverHttps, NoListenerCallBeginsOnceItIsDroppedWithRequestsInFlight) {
    std::vector<std::pair<std::shared_ptr<Listener>, size_t>> gone;  // with the calls made until then
    for (size_t i = 0; i < 40; ++i) {
        Member member("u-inflight");
        member.adapter->startPublishStreamUrl(relayParam());
        member.adapter->setLiveMixTranscoding(mixConfig());
        mExchanges->waitFor(i % 4 * 2);  // dropped at several points
        const std::weak_ptr<LiveTranscodingAdapter> adapter = member.adapter;
        member.adapter.reset();
        if (adapter.expired()) {  // else a call of the listener keeps it just now
            gone.emplace_back(member.listener, member.listener->calls.all().size());
        }
    }
    EXPECT_FALSE(gone.empty());
    Member last("u-last");
    last.adapter->startPublishStreamUrl(relayParam());
    EXPECT_EQ(1u, last.listener->calls.waitFor(1).size());
    for (const auto& [listener, calls] : gone) {
        EXPECT_EQ(calls, listener->calls.all().size());
    }
}

TEST_F(AdapterOverHttps, MayBeDroppedWhileARetryWaits) {
    service->misbehave(failing(1));
    Member member("u-waiting");
    member.adapter->startPublishStreamUrl(relayParam());
    mExchanges->waitFor(3);  // started, answered, delivered: the retry is posted
    member.adapter.reset();
    EXPECT_TRUE(member.listener->calls.all().empty());
}

// ---- Secrets --------------------------------------------------------------------------------------------------------

TEST_F(AdapterOverHttps, TheSignatureAndTheMapKeyAreFoundInNoTextThatLeavesTheAdapter) {
    const std::string signature = "S1gn4tur3";
    const std::string mapKey = "M4pK3y";
    Member member("u-secret", signature, mapKey);
    auto step = [&member, count = size_t{0}]() mutable { member.listener->calls.waitFor(++count); };
    service->misbehave(failing(1));
    member.adapter->startPublishStreamUrl(relayParam());
    step();
    member.adapter->setLiveMixTranscoding(mixConfig());
    step();
    service->misbehave(of(Misbehaviour::Kind::kGarbage));
    member.adapter->stopLiveMixTranscoding();
    step();
    service->misbehave(of(Misbehaviour::Kind::kHuge));
    member.adapter->setLiveMixTranscoding(mixConfig());
    step();
    member.adapter->setLiveMixTranscoding({});
    step();
    member.adapter->stopPublishStreamUrl();
    step();
    member.adapter->updateUserInfo(1400, signature + " with a blank", "u-secret");
    member.adapter->startPublishStreamUrl(relayParam());
    step();

    std::string all = service->stateJson();
    for (const std::string& line : mLines->all()) {
        all += line + "\n";
    }
    for (const vexalive::EventReport& report : mReports->waitFor(7)) {
        all += report.roomUser + report.information + report.detail + "\n";
    }
    for (const Call& call : member.listener->calls.all()) {
        all += call.message + "\n";
    }
    EXPECT_THAT(all, HasSubstr("u-secret"));  // this is where they would be
    EXPECT_THAT(all, HasSubstr("dest_stream_url"));
    EXPECT_THAT(all, Not(HasSubstr(signature)));
    EXPECT_THAT(all, Not(HasSubstr(mapKey)));
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    const auto folder = std::filesystem::temp_directory_path() / ("vexalive-adapter-test-" + std::to_string(getpid()));
    const std::string host = kstf_get_live_service_host();
    vexalive::LiveServiceOptions serviceOptions;
    serviceOptions.port = static_cast<uint16_t>(std::stoi(host.substr(host.find(':') + 1)));
    serviceOptions.stateFolder = folder;
    int result = 1;
    {
        LiveService running(serviceOptions);
        service = &running;
        if (!running.start()) {
            std::fprintf(stderr, "%s\n", running.error().c_str());
            return 1;
        }
        vexalive::HttpOptions options;
        options.caFile = running.caFile();
        result = vexalive::setHttpOptions(options) ? RUN_ALL_TESTS() : 1;
    }
    std::filesystem::remove_all(folder);
    return result;
}
