#include "FaultMatrixCases.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <map>
#include <set>
#include <stdexcept>

#include "FaultMatrix.h"
#include "support/ChildProcess.h"

namespace {

// Limits the number of processes that run at the same time.
struct Slots {
    explicit Slots(unsigned count) { sem_init(&free, 0, count); }
    sem_t free;
};
Slots workingSlots(8);
Slots waitingSlots(40);  // for cases that mostly wait for a timeout

std::map<std::string, std::future<CaseOutcome>> outcomes;  // by the case's name

// Reserves a port of loopback. The port refuses connections until a server listens on it.
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

// The variables to change for the child process. An empty value removes an inherited variable.
std::map<std::string, std::string> environmentFor(const Case& testCase, int port) {
    const std::string host = testCase.fault->where == Fault::kUnknownHost ? "no-such-host.invalid" : "127.0.0.1";
    std::map<std::string, std::string> environment = {{"VEXALIVE_SERVICE_HOST", host + ":" + std::to_string(port)},
                                                      {"OPENSSL_CONF", OPENSSL_CONFIGURATION}};
    for (char** each = environ; *each; ++each) {
        const std::string variable = *each;
        if (variable.rfind("GTEST_", 0) == 0 || variable.rfind("VEXALIVE_", 0) == 0) {
            environment.emplace(variable.substr(0, variable.find('=')), "");
        }
    }
    return environment;
}

CaseOutcome runAlone(const Case& testCase) {
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

// The names of the cases that the current --gtest_filter selects.
std::set<std::string> selectedCases() {
    std::set<std::string> names;
    const testing::TestSuite& suite = *testing::UnitTest::GetInstance()->current_test_suite();
    for (int i = 0; i < suite.total_test_count(); ++i) {
        const testing::TestInfo& test = *suite.GetTestInfo(i);
        const std::string name = test.name();
        if (test.should_run()) {
            names.insert(name.substr(name.find('/') + 1));
        }
    }
    return names;
}

}  // namespace

void startCases() {
    const std::set<std::string> selected = selectedCases();
    for (const Case& testCase : matrixCases()) {
        if (selected.count(testCase.name()) > 0) {
            outcomes[testCase.name()] = std::async(std::launch::async, [testCase] {
                sem_t& free = (testCase.fault->waitsForATimeout() ? waitingSlots : workingSlots).free;
                sem_wait(&free);
                CaseOutcome outcome = runAlone(testCase);
                sem_post(&free);
                return outcome;
            });
        }
    }
}

CaseOutcome awaitCase(const std::string& name) {
    return outcomes.at(name).get();
}
