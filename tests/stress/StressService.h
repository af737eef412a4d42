// The local service of the stress tests, with injected faults. It is a separate process, so that memory measurements
// contain only the adapters.

#ifndef VEXALIVE_STRESS_STRESS_SERVICE_H
#define VEXALIVE_STRESS_STRESS_SERVICE_H

#include <filesystem>
#include <memory>
#include <string>

#include "support/ChildProcess.h"

class StressService {
public:
    // Starts the program stress_service on ownServicePort() and waits until it listens. If that fails, this process
    // exits. `faults`: "random", "none", "slow" or "large".
    explicit StressService(const std::string& faults, unsigned seed = 1);
    ~StressService();
    StressService(const StressService&) = delete;
    StressService& operator=(const StressService&) = delete;

    const std::string& caFile() const { return mCaFile; }

private:
    std::filesystem::path mFolder;
    std::unique_ptr<ChildProcess> mProcess;
    std::string mCaFile;
};

#endif
