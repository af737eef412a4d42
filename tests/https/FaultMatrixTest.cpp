#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FaultMatrix.h"
#include "FaultMatrixCases.h"
#include "base/Json.h"
#include "base/KstMessageLoop.h"
#include "base/Version.h"
#include "platform/OpenSsl.h"
#include "platform/Platform.h"
#include "support/TestCertificates.h"

namespace {

using namespace std::chrono_literals;
constexpr int kMixUsers = 3;  // users of the mix under test; an earlier start has one fewer

}  // namespace

// ---- The matrix -----------------------------------------------------------------------------------------------------

const std::vector<Kind>& kinds() {
    static const std::vector<Kind> all = {
        {"RelayStart", "relay start", oracle::kAddRelay},
        {"RelayStop", "relay stop", oracle::kRemoveRelay},
        {"MixStart", "mix start", oracle::kStartMix},
        {"MixCancel", "mix cancel", oracle::kCancelMix},
    };
    return all;
}

std::vector<Case> matrixCases() {
    std::vector<Case> all;
    for (const Fault& fault : faults()) {
        for (const Kind& kind : kinds()) {
            all.push_back({&kind, &fault});
        }
    }
    return all;
}

std::vector<oracle::Notification> expectedCalls(const Case& testCase) {
    const Response& last = testCase.fault->responses.back();
    return oracle::evaluate(testCase.kind->request, last.retCode, last.body).notifications;
}

std::string faultTable() {
    std::string table = "| fault | requests read | return codes |";
    std::string line = "|---|---|---|";
    for (const Kind& kind : kinds()) {
        table += std::string(" ") + kind.title + " |";
        line += "---|";
    }
    table += "\n" + line + "\n";
    for (const Fault& fault : faults()) {
        table += std::string("| ") + fault.description + " | " + std::to_string(fault.requests) + " | ";
        const Response* last = nullptr;
        for (const Response& response : fault.responses) {
            if (!last || last->retCode != response.retCode) {
                table += (last ? ", " : "") + std::to_string(response.retCode);
            }
            last = &response;
        }
        table += " |";
        for (const Kind& kind : kinds()) {
            table += " " + std::to_string(fault.responses.size()) + " × →";
            const auto calls = expectedCalls({&kind, &fault});
            for (const oracle::Notification& call : calls) {
                table += " " + std::to_string(call.code);
            }
            table += calls.empty() ? " nothing |" : " |";
        }
        table += "\n";
    }
    return table;
}

// ---- A case ---------------------------------------------------------------------------------------------------------

namespace {

bool isAlone = false;  // this process runs one case

Journal<std::chrono::milliseconds>& requestedPauses() {
    static auto& pauses = *new Journal<std::chrono::milliseconds>();
    return pauses;
}

// Mix start and mix cancel share an interface; only a start has a canvas.
bool isRequestOf(const Kind& kind, const std::string& request) {
    const std::string path = std::string("POST /v3/liveinterface/") + kind.rules().interfaceName + "?";
    const bool hasCanvas = request.find("canvas1") != std::string::npos;
    return request.rfind(path, 0) == 0 && hasCanvas == (kind.request == oracle::kStartMix);
}

int ownPort() {
    const std::string host = std::getenv("VEXALIVE_SERVICE_HOST");
    return std::stoi(host.substr(host.find(':') + 1));
}

void configureClient(const Fault& fault) {
    vexalive::HttpOptions options;
    options.connectTimeout = fault.connectTimeout;
    options.totalTimeout = fault.totalTimeout;
    options.caFile = testAuthorityFile();
    EXPECT_TRUE(vexalive::setHttpOptions(options));
}

// The part of the trace before its first attempt: empty for a stop or cancel, the request body for a relay start, and
// a description of the mix for a mix start.
std::string openingOf(const Kind& kind, const std::string& firstBody, const std::string& trace) {
    if (!kind.isStart()) {
        return {};
    }
    if (!kind.isMix()) {
        return firstBody;
    }
    const std::string head = "task_id:2, pureAudioOutputStream:0, stream: ";
    const std::string opening = trace.substr(0, trace.find(" [tryHttp:"));
    EXPECT_EQ(head, opening.substr(0, head.size()));
    const json::Value mix = json::Deserialize(opening.substr(std::min(head.size(), opening.size())));
    EXPECT_EQ(json::Deserialize(firstBody)["session_id"].ToString(), mix["session_id"].ToString());
    return opening;
}

std::string expectedTrace(const Case& testCase) {
    std::string trace;
    int attemptsLeft = oracle::kMaxRetries;
    for (const Response& response : testCase.fault->responses) {
        // Intended: the trace of a relay stop prints the start's retry counter, which the stop has set to 0.
        const bool printsItsOwn = testCase.kind->rules().tracedCounter == testCase.kind->request;
        trace += oracle::traceSegment(printsItsOwn ? attemptsLeft : 0, response.retCode, response.body);
        --attemptsLeft;
    }
    return trace.c_str();  // the report passes a C string, so it ends at the first zero byte
}

std::vector<std::chrono::milliseconds> scheduleOf(size_t sends) {
    std::vector<std::chrono::milliseconds> pauses;
    for (int retry = 1; retry < static_cast<int>(sends); ++retry) {
        pauses.emplace_back(oracle::retryPause(retry));
    }
    return pauses;
}

template <class T>
std::vector<T> from(size_t first, const std::vector<T>& all) {
    return {all.begin() + static_cast<std::ptrdiff_t>(std::min(first, all.size())), all.end()};
}

// First sends a start without a fault. Then injects the fault and sends the request of the kind under test.
void runCase(const Case& testCase) {
    const Kind& kind = *testCase.kind;
    const Fault& fault = *testCase.fault;
    if (fault.where == Fault::kOwnNetwork) {
        if (const std::string error = enterOwnNetwork(); !error.empty()) {
            GTEST_SKIP() << error;
        }
    }
    configureClient(fault);
    const auto reports = std::make_shared<Journal<vexalive::EventReport>>();
    vexalive::setEventSink([reports](const vexalive::EventReport& report) { reports->add(report); });
    CaseEnvironment environment(ownPort(), kind.rules().interfaceName,
                                [&kind](const std::string& request) { return isRequestOf(kind, request); });
    environment.serve(alwaysRespond(httpResponse(200, R"({"code":0})")));
    Member member(kind.name);

    const oracle::Kind start = oracle::startOf(kind.request);
    callOperation(*member.adapter, start, kMixUsers - 1);
    const int startCode = fault.affectsTheEarlierStart() ? 1 : 0;
    ASSERT_EQ(oracle::evaluate(start, startCode, R"({"code":0})").notifications, member.listener->calls.waitFor(1));
    ASSERT_EQ(1u, reports->waitFor(1).size());
    const size_t earlierSends = environment.sends().size();
    const size_t earlierPauses = requestedPauses().all().size();

    fault.inject(environment);
    if (!environment.reasonToSkip().empty()) {
        GTEST_SKIP() << environment.reasonToSkip();
    }
    callOperation(*member.adapter, kind.request, kMixUsers);
    environment.runMeanwhile();
    ASSERT_EQ(2u, reports->waitFor(2).size());

    const std::vector<std::string> sends = from(earlierSends, environment.sends());
    ASSERT_EQ(fault.responses.size(), sends.size());
    EXPECT_EQ(scheduleOf(sends.size()), from(earlierPauses, requestedPauses().all()));
    EXPECT_EQ(expectedCalls(testCase), from(1, member.listener->calls.all()));
    EXPECT_EQ(fault.requests, environment.requests());
    EXPECT_EQ(0, environment.otherRequests());

    const vexalive::EventReport report = reports->all()[1];
    const std::string startInformation = kind.isMix() ? mixConfig(kMixUsers).to_string() : relayParam().to_string();
    EXPECT_EQ(1400, report.sdkAppId);
    EXPECT_EQ(std::string("r1_") + kind.name, report.roomUser);
    EXPECT_EQ(10004, report.eventType);
    EXPECT_EQ(kind.rules().event, report.event);
    EXPECT_EQ(std::string("sdkver:") + kstf_get_sdk_version() + " " + (kind.isStart() ? startInformation : sends[0]),
              report.information);
    EXPECT_EQ(openingOf(kind, sends[0], report.detail) + expectedTrace(testCase), report.detail);

    // No retry is pending here: each requested pause has led to a send, and each send is complete.
    member.adapter.reset();
    EXPECT_EQ(2u, reports->all().size());
    EXPECT_EQ(expectedCalls(testCase), from(1, member.listener->calls.all()));
}

// The first line of GTEST_SKIP's message.
std::string reasonIn(const std::string& output) {
    const std::string word = "Skipped\n";
    const size_t reason = output.find(word) + word.size();
    return output.substr(reason, output.find('\n', reason) - reason);
}

class FaultMatrix : public testing::TestWithParam<Case> {
protected:
    static void SetUpTestSuite() {
        if (!isAlone) {
            startCases();
        }
    }
};

TEST_P(FaultMatrix, MatchesTheOracle) {
    if (isAlone) {
        runCase(GetParam());
        return;
    }
    const CaseOutcome outcome = awaitCase(GetParam().name());
    if (outcome.exitCode == kSkipped) {
        GTEST_SKIP() << reasonIn(outcome.output);
    }
    EXPECT_EQ(0, outcome.exitCode) << outcome.output;
}

INSTANTIATE_TEST_SUITE_P(, FaultMatrix, testing::ValuesIn(matrixCases()),
                         [](const auto& test) { return test.param.name(); });

TEST(FaultTable, IsInTheDocumentation) {
    std::ifstream file(RELIABILITY_DOCUMENT);
    const std::string document{std::istreambuf_iterator<char>(file), {}};
    EXPECT_THAT(document, testing::HasSubstr("\n" + faultTable())) << "the table is printed by --print-table";
}

}  // namespace

std::chrono::milliseconds shortened(std::chrono::milliseconds pause) {
    requestedPauses().add(pause);
    return pause / 100;
}

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    const std::string option = argc > 1 ? argv[1] : "";
    if (option == "--print-table") {
        std::fputs(faultTable().c_str(), stdout);
        return 0;
    }
    isAlone = option == kAlone;
    if (!isAlone) {
        return RUN_ALL_TESTS();
    }
    vexalive::initialiseOpenSsl();  // normally the platform does this, but here the test uses OpenSSL first
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(200);  // seconds; ends a case that hangs, which then fails
    const int result = RUN_ALL_TESTS();
    return testing::UnitTest::GetInstance()->skipped_test_count() > 0 ? kSkipped : result;
}
