// A worker process without media. It speaks the worker protocol. The last digits of the addresses in its configuration
// select the fault that it injects.

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr auto kStatusInterval = 100ms;

class FakeWorker {
public:
    int run() {
        std::thread([this] {
            for (;; std::this_thread::sleep_for(kStatusInterval)) {
                const std::lock_guard<std::mutex> lock(mMutex);
                if (mConfigurations > 0 && !mIsSilent) {
                    writeStatus();
                }
            }
        }).detach();
        for (std::string line; std::getline(std::cin, line);) {
            const std::lock_guard<std::mutex> lock(mMutex);
            apply(json::parse(line));
        }
        while (mIgnoresEnd) {
            ::pause();
        }
        std::_Exit(0);
    }

private:
    void apply(const json& message) {
        if (!message.contains("snapshot")) {
            const std::string kind = message.contains("mix") ? "mix" : "relay";
            const json& configuration = message.at(kind);
            if (kind == "mix") {
                mSummary = {{"inputs", configuration["inputs"].size()}, {"canvas", configuration["canvas"]}};
            } else {
                mSummary = configuration;
            }
            ++mConfigurations;
            injectFault(configuration.at("destination"));
            injectFault(configuration.value("source", ""));
            return;
        }
        ++mSnapshots;
        if (!mHasNoSnapshot) {
            // "/9j/" is the start of a JPEG in Base64. The number of the snapshot follows.
            write("{\"snapshot\":\"/9j/" + std::to_string(1000 + mSnapshots) + "\"}\n");
        }
    }

    void injectFault(const std::string& address) {
        const std::string fault = address.substr(address.size() < 4 ? 0 : address.size() - 4);
        if (fault == "dead") {
            std::fprintf(stderr, "about to crash\n");
            std::raise(SIGKILL);
        } else if (fault == "ed07") {
            std::_Exit(7);
        } else if (fault == "babe") {
            mIgnoresEnd = true;
        } else if (fault == "b11d") {
            mHasNoSnapshot = true;
        } else if (fault == "cafe") {
            mIsSilent = true;
        } else if (fault == "f00d") {
            flood(stdout, "{\"status\":{\"state\":\"running\",\"error\":\"\",\"inputs\":[]}}\n");
        } else if (fault == "feed") {
            flood(stderr, "a warning that comes again and again\n");
        } else if (fault == "bead") {
            write("no JSON\n{\"status\":{\"state\":\"confused\"}}\n{\"status\":3}\n[1]\n\n" +
                  std::string(std::size_t{3} << 20, 'x') + "\n\xff\xfe\n");
        }
    }

    [[noreturn]] static void flood(FILE* file, const char* line) {
        for (;;) {
            std::fputs(line, file);
        }
    }

    // The error field tells the test which configurations the worker has received; "frames" is the number of snapshots.
    void writeStatus() const {
        const std::string error = "configuration " + std::to_string(mConfigurations) + " of " +
                                  std::to_string(::getpid()) + ": " + mSummary.dump();
        const json status = {{"state", "running"}, {"error", error},  {"bytes", 1000},          {"frames", mSnapshots},
                             {"dropped", 1},       {"reconnects", 2}, {"inputs", json::array()}};
        const std::string line = json{{"status", status}}.dump() + "\n";
        write(line.substr(0, line.size() / 2));  // two writes, because a pipe may split a line anywhere
        write(line.substr(line.size() / 2));
    }

    static void write(const std::string& bytes) {
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
        std::fflush(stdout);
    }

    std::mutex mMutex;
    json mSummary;
    int mConfigurations = 0;
    int mSnapshots = 0;
    bool mHasNoSnapshot = false;
    bool mIgnoresEnd = false;
    bool mIsSilent = false;
};

}  // namespace

int main() {
    return FakeWorker().run();
}
