// Runs cases of the fault matrix, many at a time, each in its own process, since a process has one service address, one
// set of timeouts and one network.

#ifndef VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_CASES_H
#define VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_CASES_H

#include <gtest/gtest.h>

#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "FaultMatrix.h"

// The option by which a process runs the one case that its filter names.
constexpr const char* kAlone = "--alone";
constexpr int kSkipped = 77;  // its exit code if the case cannot run here

class CaseProcesses : public testing::Environment {
public:
    struct Outcome {
        int exitCode;
        std::string output;
    };

    static CaseProcesses& instance();

    Outcome await(const std::string& testCase);

private:
    void SetUp() override;  // starts all cases that the filter of this run selects
    void TearDown() override;

    void runInTurn(std::vector<Case> cases, size_t atOnce);

    std::map<std::string, std::promise<Outcome>> mOutcomes;
    std::vector<std::thread> mThreads;
};

#endif
