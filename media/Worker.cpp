#include "media/Worker.h"

#include <glib-unix.h>
#include <glib.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "media/Log.h"
#include "media/MainLoop.h"

namespace vexalive {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

constexpr std::chrono::milliseconds kStatusInterval{500};
constexpr std::chrono::milliseconds kPollInterval{50};  // time between two checks for a changed state
constexpr std::chrono::milliseconds kStopTimeout{2000};
constexpr size_t kMaxLineBytes = size_t{1} << 20;

// The part of the status that is reported at once if it changes.
std::string statesAndErrors(const WorkerStatus& status) {
    std::string states = nameOf(status.output.state) + status.output.error;
    for (const InputStatus& input : status.inputs) {
        states += '\n' + input.streamId + nameOf(input.stream.state) + input.stream.error;
    }
    return states;
}

// Errors are ignored: writing fails only if the service has ended, and then stdin ends, too.
void writeLine(const ordered_json& line) {
    const std::string text = line.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

std::string base64(const std::string& bytes) {
    gchar* const encoded = g_base64_encode(reinterpret_cast<const guchar*>(bytes.data()), bytes.size());
    std::string result = encoded;
    g_free(encoded);
    return result;
}

class ProtocolLoop {
public:
    ProtocolLoop(const char* name, Worker& worker) : mName(name), mWorker(worker) {}

    void start() {
        g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), onInput, this);
        poll();
        g_main_loop_run(mLoop.get());
    }

private:
    static gboolean onInput(gint, GIOCondition, gpointer self) { return static_cast<ProtocolLoop*>(self)->read(); }

    gboolean read() {
        std::array<char, 65536> piece;
        const ssize_t count = ::read(STDIN_FILENO, piece.data(), piece.size());
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            return G_SOURCE_CONTINUE;
        }
        if (count <= 0) {
            stop();
            return G_SOURCE_REMOVE;
        }
        mInput.append(piece.data(), static_cast<size_t>(count));
        for (size_t end = mInput.find('\n'); end != std::string::npos; end = mInput.find('\n')) {
            handle(mInput.substr(0, end));
            mInput.erase(0, end + 1);
        }
        if (mInput.size() > kMaxLineBytes) {
            logLine("a line of more than " + std::to_string(kMaxLineBytes) + " bytes on stdin was dropped");
            mInput.clear();
        }
        return G_SOURCE_CONTINUE;
    }

    void handle(const std::string& line) {
        const Result<void> result = execute(line);
        if (!result) {
            logLine("a line on stdin that is not understood: " + result.error().message);
        }
        reportStatus();
    }

    Result<void> execute(const std::string& line) {
        try {
            const json message = json::parse(line);
            if (!message.contains("snapshot")) {
                return mWorker.configure(message.at(mName));
            }
            mWorker.takeSnapshot(message["snapshot"].at("width").get<int>(), [](const std::string& jpeg) {
                writeLine({{"snapshot", base64(jpeg)}});
            });
            return {};
        } catch (const json::exception& error) {
            return failure(error.what());
        }
    }

    void poll() {
        reportStatus();
        mPollTimer.start(kPollInterval, [this] { poll(); });
    }

    // Writes the status if a state or an error has changed, or if the last status is older than kStatusInterval.
    void reportStatus() {
        const auto now = std::chrono::steady_clock::now();
        WorkerStatus status = mWorker.status();
        if (mIsStopping) {
            status.output.state = WorkerState::kStopping;
        }
        std::string states = statesAndErrors(status);
        if (states == mReportedStates && now < mReported + kStatusInterval) {
            return;
        }
        mReportedStates = std::move(states);
        mReported = now;
        writeLine({{"status", toJson(status)}});
    }

    void stop() {
        mIsStopping = true;
        reportStatus();
        const auto quit = [this] { g_main_loop_quit(mLoop.get()); };
        mStopTimer.start(kStopTimeout, quit);
        mWorker.stop(quit);
    }

    struct Unref {
        void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
    };
    const char* const mName;
    Worker& mWorker;
    const std::unique_ptr<GMainLoop, Unref> mLoop{g_main_loop_new(nullptr, FALSE)};
    Timer mPollTimer;
    Timer mStopTimer;
    std::string mInput;  // the bytes of the incomplete line
    std::string mReportedStates;
    std::chrono::steady_clock::time_point mReported;
    bool mIsStopping = false;
};

}  // namespace

void Worker::takeSnapshot(int, std::function<void(const std::string& jpeg)> done) {
    done("");
}

// std::_Exit() runs no destructors, so the thread of a plugin cannot block the exit. The streams have ended already.
void runWorker(const char* name, Worker& worker) {
    ProtocolLoop(name, worker).start();
    std::_Exit(0);
}

}  // namespace vexalive
