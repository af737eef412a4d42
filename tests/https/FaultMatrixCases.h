// Runs cases of the fault matrix in parallel. Each case needs its own process: the service address, the timeouts and
// the network namespace are fixed for a process.

#ifndef VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_CASES_H
#define VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_CASES_H

#include <string>

// Command-line option of a child process: it runs only the case that --gtest_filter names.
constexpr const char* kAlone = "--alone";
constexpr int kSkipped = 77;  // exit code of a child process whose case cannot run on this machine

struct CaseOutcome {
    int exitCode;
    std::string output;
};

// Starts the cases of the current test suite that the filter selects.
void startCases();

// Waits until a case has ended. Callable once for each started case.
CaseOutcome awaitCase(const std::string& name);

#endif
