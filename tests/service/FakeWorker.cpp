// A worker process without media: it speaks the worker protocol and injects the fault that the last digits of the
// addresses in its configuration select.

#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

using nlohmann::json;

namespace {

constexpr int kStatusMilliseconds = 100;

std::string lastDigits(const std::string& text) {
    return text.substr(text.size() < 4 ? 0 : text.size() - 4);
}

class FakeWorker {
public:
    int run() {
        for (;;) {
            pollfd input{STDIN_FILENO, POLLIN, 0};
            const bool isReadable = ::poll(&input, 1, kStatusMilliseconds) > 0;
            if (isReadable && !read()) {
                return end();
            }
            if (!mConfiguration.empty() && !mIsSilent) {
                writeStatus();
            }
        }
    }

private:
    bool read() {
        std::array<char, 65536> piece;
        const ssize_t count = ::read(STDIN_FILENO, piece.data(), piece.size());
        if (count <= 0) {
            return false;
        }
        mInput.append(piece.data(), static_cast<size_t>(count));
        for (size_t end = mInput.find('\n'); end != std::string::npos; end = mInput.find('\n')) {
            obey(json::parse(mInput.substr(0, end)));
            mInput.erase(0, end + 1);
        }
        return true;
    }

    void obey(const json& message) {
        if (message.contains("snapshot") && mHasNoSnapshot) {
            return;
        }
        if (message.contains("snapshot")) {
            // "/9j/" is how a JPEG begins; then which picture this is
            const std::string number = std::to_string(1000 + ++mSnapshots).substr(0, 4);
            std::printf("{\"snapshot\":\"/9j/%s\"}\n", number.c_str());
            std::fflush(stdout);
            return;
        }
        mKind = message.contains("mix") ? "mix" : "relay";
        mConfiguration = message.at(mKind);
        ++mConfigurations;
        injectFault(lastDigits(mConfiguration.at("destination")));
        injectFault(lastDigits(mConfiguration.value("source", "")));
    }

    void injectFault(const std::string& how) {
        if (how == "dead") {
            std::fprintf(stderr, "about to crash\n");
            std::raise(SIGKILL);
        } else if (how == "ed07") {
            std::_Exit(7);
        } else if (how == "babe") {
            mIgnoresEnd = true;
        } else if (how == "b11d") {
            mHasNoSnapshot = true;
        } else if (how == "cafe") {
            mIsSilent = true;
        } else if (how == "f00d") {
            flood(stdout, "{\"status\":{\"state\":\"running\",\"error\":\"\",\"inputs\":[]}}\n");
        } else if (how == "feed") {
            flood(stderr, "a warning that comes again and again\n");
        } else if (how == "bead") {
            std::printf("no JSON\n{\"status\":{\"state\":\"confused\"}}\n{\"status\":3}\n[1]\n\n%s\n\xff\xfe\n",
                        std::string(std::size_t{3} << 20, 'x').c_str());
        }
    }

    [[noreturn]] static void flood(FILE* file, const char* line) {
        for (;;) {
            std::fputs(line, file);
        }
    }

    // In two pieces, as a pipe may split any line. The error, which the state has, tells the test what came in.
    void writeStatus() const {
        json status = {{"state", "running"}, {"error", ""},     {"bytes", 1000},          {"frames", 10},
                       {"dropped", 1},       {"reconnects", 2}, {"inputs", json::array()}};
        status["error"] = "configuration " + std::to_string(mConfigurations) + " of " + std::to_string(::getpid()) +
                          ": " + summary().dump();
        const std::string line = json{{"status", status}}.dump() + "\n";
        std::fwrite(line.data(), 1, line.size() / 2, stdout);
        std::fflush(stdout);
        std::fwrite(line.data() + line.size() / 2, 1, line.size() - line.size() / 2, stdout);
        std::fflush(stdout);
    }

    json summary() const {
        return mKind == "mix"
                   ? json{{"inputs", mConfiguration.at("inputs").size()}, {"canvas", mConfiguration.at("canvas")}}
                   : mConfiguration;
    }

    int end() const {
        if (mIgnoresEnd) {
            for (;;) {
                ::pause();
            }
        }
        return 0;
    }

    std::string mInput;
    std::string mKind;
    json mConfiguration;
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
