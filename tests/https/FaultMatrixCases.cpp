#include "FaultMatrixCases.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <set>
#include <utility>

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

std::vector<std::string> environmentFor(const Case& testCase, int port) {
    const std::string host = testCase.fault->where == Fault::kUnknownHost ? "no-such-host.invalid" : "127.0.0.1";
    std::vector<std::string> environment = {"VEXALIVE_SERVICE_HOST=" + host + ":" + std::to_string(port),
                                            "OPENSSL_CONF=" OPENSSL_CONFIGURATION};
    for (char** each = environ; *each; ++each) {
        const std::string variable = *each;
        if (variable.rfind("GTEST_", 0) != 0 && variable.rfind("VEXALIVE_", 0) != 0 &&
            variable.rfind("OPENSSL_CONF=", 0) != 0) {
            environment.push_back(variable);
        }
    }
    return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

CaseProcesses::Outcome runAlone(const Case& testCase) {
    const ReservedPort reserved;
    std::vector<std::string> arguments = {"/proc/self/exe", kAlone, "--gtest_color=no",
                                          "--gtest_filter=FaultMatrix.MatchesTheOracle/" + testCase.name()};
    std::vector<std::string> environment = environmentFor(testCase, reserved.port());
    int pipeEnds[2] = {-1, -1};
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
        return {-1, "no pipe"};
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDERR_FILENO);
    pid_t child = 0;
    const int error = posix_spawn(&child, arguments[0].c_str(), &actions, nullptr, pointersTo(arguments).data(),
                                  pointersTo(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    CaseProcesses::Outcome outcome{-1, error == 0 ? "" : "the process of the case could not be started"};
    if (error == 0) {
        char bytes[4096];
        for (ssize_t got = 0; (got = read(pipeEnds[0], bytes, sizeof bytes)) > 0;) {
            outcome.output.append(bytes, static_cast<size_t>(got));
        }
        int status = 0;
        waitpid(child, &status, 0);
        outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    close(pipeEnds[0]);
    return outcome;
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
