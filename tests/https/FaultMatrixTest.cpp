#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FaultMatrix.h"
#include "FaultMatrixCells.h"
#include "base/Json.h"
#include "base/KstMessageLoop.h"
#include "base/Version.h"
#include "platform/OpenSsl.h"
#include "platform/Platform.h"
#include "support/TestCertificates.h"

namespace {

using namespace std::chrono_literals;
using Adapter = LiveTranscodingAdapter;

const auto kMixAtFirst = [] { return mixConfig(2); };
const auto kMixThen = [] { return mixConfig(3); };

}  // namespace

// ---- The matrix -----------------------------------------------------------------------------------------------------

const std::vector<Kind>& kinds() {
    static const auto startRelay = [](Adapter& adapter) { adapter.startPublishStreamUrl(relayParam()); };
    static const auto stopRelay = [](Adapter& adapter) { adapter.stopPublishStreamUrl(); };
    static const auto startMix = [](Adapter& adapter) { adapter.setLiveMixTranscoding(kMixAtFirst()); };
    static const auto updateMix = [](Adapter& adapter) { adapter.setLiveMixTranscoding(kMixThen()); };
    static const auto cancelMix = [](Adapter& adapter) { adapter.stopLiveMixTranscoding(); };
    static const std::vector<Kind> all = {
        {"RelayStart", "relay start", "add_relay_stream_url", false, true, "startRelay", "startRelay", startRelay,
         startRelay},
        {"RelayStop", "relay stop", "remove_relay_stream_url", false, false, "startRelay", "stopRelay", startRelay,
         stopRelay},
        {"MixStart", "mix start", "set_live_mix_transcoding", true, true, "setMix", "setMix", startMix, updateMix},
        {"MixCancel", "mix cancel", "set_live_mix_transcoding", true, false, "setMix", "stopMix", startMix, cancelMix},
    };
    return all;
}

std::vector<Cell> cells() {
    std::vector<Cell> all;
    for (const Fault& fault : faults()) {
        for (const Kind& kind : kinds()) {
            all.push_back({&kind, &fault});
        }
    }
    return all;
}

std::vector<Call> expectedCalls(const Cell& cell) {
    const char* call = cell.kind->call;
    const int transport = cell.kind->isMix ? -3322 : -3321;
    const int unreadable = cell.kind->isMix ? -3324 : -3323;
    const int server = cell.kind->isMix ? -300000 : -200000;
    switch (cell.fault->told) {
        case Told::kSuccess:
            return {{call, 0, "sucess"}};
        case Told::kTransport:
            return {{call, transport,
                     "http post return error， retcode:" + std::to_string(cell.fault->answers.back().retCode)}};
        case Told::kEmpty:
            return {{call, unreadable, "recv message nil"}, {call, unreadable, "recv message can't parse"}};
        case Told::kUnreadable:
            return {{call, unreadable, "recv message can't parse"}};
        case Told::kServerCode:
            return {{call, server + kServerCode, kServerMessage}};
        case Told::kNothing:
            break;
    }
    return {};
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
        table += std::string("| ") + fault.words + " | " + std::to_string(fault.requests) + " | ";
        const Answered* last = nullptr;
        for (const Answered& answered : fault.answers) {
            if (!last || last->retCode != answered.retCode) {
                table += (last ? ", " : "") + std::to_string(answered.retCode);
            }
            last = &answered;
        }
        table += " |";
        for (const Kind& kind : kinds()) {
            table += " " + std::to_string(fault.answers.size()) + " × →";
            const std::vector<Call> calls = expectedCalls({&kind, &fault});
            for (const Call& call : calls) {
                table += " " + std::to_string(call.code);
            }
            table += calls.empty() ? " nothing |" : " |";
        }
        table += "\n";
    }
    return table;
}

// ---- A cell ---------------------------------------------------------------------------------------------------------

namespace {

bool isAlone = false;  // this process plays one cell

Journal<std::chrono::milliseconds>& pausesAskedFor() {
    static auto& pauses = *new Journal<std::chrono::milliseconds>();
    return pauses;
}

// The two kinds of mix request share an interface; only a start has a canvas.
bool isRequestOf(const Kind& kind, const std::string& request) {
    const std::string path = std::string("POST /v3/liveinterface/") + kind.interfaceName + "?";
    const bool hasCanvas = request.find("canvas1") != std::string::npos;
    return request.rfind(path, 0) == 0 && hasCanvas == (kind.isMix && kind.isStart);
}

int ownPort() {
    const std::string host = std::getenv("VEXALIVE_SERVICE_HOST");
    return std::stoi(host.substr(host.find(':') + 1));
}

class TrustInTestAuthority {
public:
    explicit TrustInTestAuthority(const Fault& fault) {
        std::ofstream(mFile) << testAuthority().pem();
        vexalive::HttpOptions options;
        options.connectTimeout = fault.connectTimeout;
        options.totalTimeout = fault.totalTimeout;
        options.caFile = mFile;
        EXPECT_TRUE(vexalive::setHttpOptions(options));
    }
    ~TrustInTestAuthority() { std::filesystem::remove(mFile); }
    TrustInTestAuthority(const TrustInTestAuthority&) = delete;
    TrustInTestAuthority& operator=(const TrustInTestAuthority&) = delete;

private:
    const std::filesystem::path mFile =
        std::filesystem::temp_directory_path() / ("vexalive-fault-matrix-" + std::to_string(getpid()) + ".pem");
};

// What opens the trace of a kind; a mix start's is the mix in short.
std::string openingOf(const Kind& kind, const std::string& firstBody, const std::string& trace) {
    if (!kind.isStart) {
        return {};
    }
    if (!kind.isMix) {
        return firstBody;
    }
    const std::string head = "task_id:2, pureAudioOutputStream:0, stream: ";
    const std::string opening = trace.substr(0, trace.find(" [tryHttp:"));
    EXPECT_EQ(head, opening.substr(0, head.size()));
    const json::Value mix = json::Deserialize(opening.substr(std::min(head.size(), opening.size())));
    EXPECT_EQ(json::Deserialize(firstBody)["session_id"].ToString(), mix["session_id"].ToString());
    return opening;
}

// A stop's segments print the counter of the start, which the stop has set to 0.
std::string expectedTrace(const Cell& cell) {
    std::string trace;
    int left = 10;
    for (const Answered& answered : cell.fault->answers) {
        const bool printsItsOwn = cell.kind->isMix || cell.kind->isStart;
        trace += " [tryHttp:cnt-" + std::to_string(printsItsOwn ? left : 0) +
                 "]retCode:" + std::to_string(answered.retCode) + ", respData:" + answered.response;
        --left;
    }
    return trace.c_str();  // a report's text ends at a zero byte
}

std::vector<std::chrono::milliseconds> scheduleOf(size_t sends) {
    std::vector<std::chrono::milliseconds> pauses = {1s, 1s, 2s, 2s, 2s, 5s, 5s, 5s, 5s, 5s};
    pauses.resize(sends - 1);
    return pauses;
}

template <class T>
std::vector<T> from(size_t first, const std::vector<T>& all) {
    return {all.begin() + static_cast<std::ptrdiff_t>(std::min(first, all.size())), all.end()};
}

// A start goes well, then comes the fault, then the request of the kind under test.
void play(const Cell& cell) {
    const Kind& kind = *cell.kind;
    const Fault& fault = *cell.fault;
    if (fault.where == Fault::kNetworkOfItsOwn) {
        const std::string hindrance = enterNetworkOfItsOwn();
        if (!hindrance.empty()) {
            GTEST_SKIP() << hindrance;
        }
    }
    const TrustInTestAuthority trust(fault);
    const auto reports = std::make_shared<Journal<vexalive::EventReport>>();
    vexalive::setEventSink([reports](const vexalive::EventReport& report) { reports->add(report); });
    Stage stage(ownPort(), kind.interfaceName,
                [&kind](const std::string& request) { return isRequestOf(kind, request); });
    stage.serve(answering(httpAnswer(200, R"({"code":0})")));
    Member member(kind.name);

    kind.start(*member.adapter);
    const Call started{kind.startCall, 0, "sucess"};
    const Call failed{kind.startCall, kind.isMix ? -3322 : -3321, "http post return error， retcode:1"};
    ASSERT_THAT(member.listener->calls.waitFor(1),
                testing::ElementsAre(fault.isThereFromTheStart() ? failed : started));
    ASSERT_EQ(1u, reports->waitFor(1).size());
    const size_t earlierSends = stage.sends().size();
    const size_t earlierPauses = pausesAskedFor().all().size();

    fault.strike(stage);
    if (!stage.reasonToSkip().empty()) {
        GTEST_SKIP() << stage.reasonToSkip();
    }
    kind.act(*member.adapter);
    stage.playMeanwhile();
    ASSERT_EQ(2u, reports->waitFor(2).size());

    const std::vector<std::string> sends = from(earlierSends, stage.sends());
    ASSERT_EQ(fault.answers.size(), sends.size());
    EXPECT_EQ(scheduleOf(sends.size()), from(earlierPauses, pausesAskedFor().all()));
    EXPECT_EQ(expectedCalls(cell), from(1, member.listener->calls.all()));
    EXPECT_EQ(fault.requests, stage.requests());
    EXPECT_EQ(0, stage.strangers());

    const vexalive::EventReport report = reports->all()[1];
    const std::string startInformation = kind.isMix ? kMixThen().to_string() : relayParam().to_string();
    EXPECT_EQ(1400, report.sdkAppId);
    EXPECT_EQ(std::string("r1_") + kind.name, report.roomUser);
    EXPECT_EQ(10004, report.eventType);
    EXPECT_EQ(kind.isMix ? 31 : 30, report.event);
    EXPECT_EQ(std::string("sdkver:") + kstf_get_sdk_version() + " " + (kind.isStart ? startInformation : sends[0]),
              report.information);
    EXPECT_EQ(openingOf(kind, sends[0], report.detail) + expectedTrace(cell), report.detail);

    // Nothing follows: no retry waits, as each pause that was asked for has led to a send, and each send has ended.
    member.adapter.reset();
    EXPECT_EQ(2u, reports->all().size());
    EXPECT_EQ(expectedCalls(cell), from(1, member.listener->calls.all()));
}

// The line that follows the test framework's word.
std::string reasonIn(const std::string& output) {
    const std::string word = "Skipped\n";
    const size_t reason = output.find(word) + word.size();
    return output.substr(reason, output.find('\n', reason) - reason);
}

class FaultMatrix : public testing::TestWithParam<Cell> {};

TEST_P(FaultMatrix, EndsAsItMust) {
    if (isAlone) {
        play(GetParam());
        return;
    }
    const CellProcesses::Outcome outcome = CellProcesses::instance().await(GetParam().name());
    if (outcome.exitCode == kSkipped) {
        GTEST_SKIP() << reasonIn(outcome.output);
    }
    EXPECT_EQ(0, outcome.exitCode) << outcome.output;
}

INSTANTIATE_TEST_SUITE_P(, FaultMatrix, testing::ValuesIn(cells()), [](const auto& test) { return test.param.name(); });

TEST(FaultTable, StandsInTheDocs) {
    std::ifstream file(RELIABILITY_DOCUMENT);
    const std::string document{std::istreambuf_iterator<char>(file), {}};
    EXPECT_THAT(document, testing::HasSubstr("\n" + faultTable())) << "the table is printed by --print-table";
}

}  // namespace

std::chrono::milliseconds shortened(std::chrono::milliseconds pause) {
    pausesAskedFor().add(pause);
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
        testing::AddGlobalTestEnvironment(&CellProcesses::instance());
        return RUN_ALL_TESTS();
    }
    vexalive::initialiseOpenSsl();  // as the platform would, had the test not been first
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(200);  // a cell that hangs ends as a failure
    const int result = RUN_ALL_TESTS();
    return testing::UnitTest::GetInstance()->skipped_test_count() > 0 ? kSkipped : result;
}
