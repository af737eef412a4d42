// Plays cells of the fault matrix, many at a time, each in a process of its own: one process knows one service address,
// one set of time-outs and one network.

#ifndef VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_CELLS_H
#define VEXALIVE_TESTS_HTTPS_FAULT_MATRIX_CELLS_H

#include <gtest/gtest.h>

#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "FaultMatrix.h"

// The option that tells a process to play the one cell that its filter names.
constexpr const char* kAlone = "--alone";
constexpr int kSkipped = 77;  // its exit code when the cell cannot be played here

class CellProcesses : public testing::Environment {
public:
    struct Outcome {
        int exitCode;
        std::string output;
    };

    static CellProcesses& instance();

    Outcome await(const std::string& cell);

private:
    void SetUp() override;  // begins all cells that the filter of this run asks for
    void TearDown() override;

    void playInTurn(std::vector<Cell> cells, size_t atOnce);

    std::map<std::string, std::promise<Outcome>> mOutcomes;
    std::vector<std::thread> mThreads;
};

#endif
