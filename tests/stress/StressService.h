// The local service of the stress tests, with faults injected at random or as chosen. In its own process, since its
// memory would hide that of the adapters.

#ifndef VEXALIVE_STRESS_STRESS_SERVICE_H
#define VEXALIVE_STRESS_STRESS_SERVICE_H

#include <sys/types.h>

#include <filesystem>
#include <string>

class StressService {
public:
    // Starts the program stress_service on ownServicePort() and waits until it listens; ends this process if it does
    // not. `manner`: "random", "good", "slow" or "large".
    explicit StressService(const std::string& manner, unsigned seed = 1);
    ~StressService();
    StressService(const StressService&) = delete;
    StressService& operator=(const StressService&) = delete;

    const std::string& caFile() const { return mCaFile; }

private:
    std::filesystem::path mFolder;
    std::string mCaFile;
    pid_t mChild = 0;
    int mInput = -1;  // the service ends when this is closed
};

#endif
