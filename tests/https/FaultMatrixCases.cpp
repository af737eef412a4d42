#include "FaultMatrixCases.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

#include "support/ChildProcess.h"

namespace {

constexpr size_t kWorkingAtOnce = 8;
constexpr size_t kWaitingAtOnce = 40;  // cases that mostly wait for a time-out

// A port of loopback that nobody else is given while this is held, and that refuses until a server listens there.
class ReservedPort {
public:
    ReservedPort() {
        const int on = 1;
        setsockopt(mSocket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        bind(mSocket, reinterpret_cast<sockaddr*>(&address), size);
        getsockname(mSocket, reinterpret_cast<sockaddr*>(&address), &size);
        mPort = ntohs(address.sin_port);
    }
    ~ReservedPort() { close(mSocket); }
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;

    int port() const { return mPort; }

private:
    const int mSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int mPort = 0;
};

// Removes the other variables of the tests.
std::map<std::string, std::string> environmentFor(const Case& testCase, int port) {
    const std::string host = testCase.fault->where == Fault::kUnknownHost ? "no-such-host.invalid" : "127.0.0.1";
    std::map<std::string, std::string> environment = {{"VEXALIVE_SERVICE_HOST", host + ":" + std::to_string(port)},
                                                      {"OPENSSL_CONF", OPENSSL_CONFIGURATION}};
    for (char** each = environ; *each; ++each) {
        const std::string variable = *each;
        if (variable.rfind("GTEST_", 0) == 0 || variable.rfind("VEXALIVE_", 0) == 0) {
            environment.emplace(variable.substr(0, variable.find('=')), "");  // removes it
        }
    }
    return environment;
}

CaseProcesses::Outcome runAlone(const Case& testCase) {
    const ReservedPort reserved;
    try {
        ChildProcess child({"/proc/self/exe", kAlone, "--gtest_color=no",
                            "--gtest_filter=FaultMatrix.MatchesTheOracle/" + testCase.name()},
                           environmentFor(testCase, reserved.port()));
        const int exitCode = child.awaitExit();
        return {exitCode, child.output() + child.errors()};
    } catch (const std::runtime_error& error) {
        return {-1, error.what()};
    }
}

// The cases of this run, by the name of their test.
std::set<std::string> casesToRun() {
    std::set<std::string> names;
    const testing::UnitTest& unitTest = *testing::UnitTest::GetInstance();
    for (int i = 0; i < unitTest.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *unitTest.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            const testing::TestInfo& test = *suite.GetTestInfo(j);
            const std::string name = test.name();
            if (test.should_run()) {
                names.insert(name.substr(name.find('/') + 1));
            }
        }
    }
    return names;
}

}  // namespace

CaseProcesses& CaseProcesses::instance() {
    static auto& processes = *new CaseProcesses();  // belongs to the test framework
    return processes;
}

CaseProcesses::Outcome CaseProcesses::await(const std::string& testCase) {
    return mOutcomes.at(testCase).get_future().get();
}

void CaseProcesses::SetUp() {
    const std::set<std::string> wanted = casesToRun();
    std::vector<Case> working;
    std::vector<Case> waiting;
    mOutcomes.clear();
    for (const Case& testCase : matrixCases()) {
        if (wanted.count(testCase.name()) > 0) {
            mOutcomes[testCase.name()];
            (testCase.fault->waits() ? waiting : working).push_back(testCase);
        }
    }
    runInTurn(std::move(waiting), kWaitingAtOnce);
    runInTurn(std::move(working), kWorkingAtOnce);
}

void CaseProcesses::runInTurn(std::vector<Case> cases, size_t atOnce) {
    struct Queue {
        std::vector<Case> cases;
        std::atomic<size_t> next{0};
    };
    const auto queue = std::make_shared<Queue>();
    queue->cases = std::move(cases);
    for (size_t i = 0; i < std::min(atOnce, queue->cases.size()); ++i) {
        mThreads.emplace_back([this, queue] {
            for (size_t next = 0; (next = queue->next++) < queue->cases.size();) {
                const Case& testCase = queue->cases[next];
                mOutcomes.at(testCase.name()).set_value(runAlone(testCase));
            }
        });
    }
}

void CaseProcesses::TearDown() {
    for (std::thread& thread : mThreads) {
        thread.join();
    }
    mThreads.clear();
}
