// Runs cases of the fault matrix, many at a time, each in its own process, since a process has one service address, one
// set of timeouts and one network.

#ifndef VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_CASES_H
#define VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_CASES_H

#include <string>

// The option by which a process runs the one case that its filter names.
constexpr const char* kAlone = "--alone";
constexpr int kSkipped = 77;  // its exit code if the case cannot run here

struct CaseOutcome {
    int exitCode;
    std::string output;
};

// Starts the cases of the current test suite that the filter selects.
void startCases();

// Waits until a case has ended; once for each case that was started.
CaseOutcome awaitCase(const std::string& name);

#endif
