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
#include <mutex>
#include <nlohmann/json.hpp>
#include <utility>

namespace vexalive {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

constexpr int kStatusMilliseconds = 500;
constexpr int kLookMilliseconds = 50;  // how soon a change of a state is told
constexpr int kStopMilliseconds = 2000;
constexpr size_t kMaxLineBytes = size_t{1} << 20;
constexpr int kMaxLinesASecond = 10;

const char* nameOf(MediaState state) {
    switch (state) {
        case MediaState::kStarting:
            return "starting";
        case MediaState::kRunning:
            return "running";
        case MediaState::kReconnecting:
            return "reconnecting";
        case MediaState::kStopping:
            break;
    }
    return "stopping";
}

ordered_json show(const MediaNumbers& numbers) {
    return {{"state", nameOf(numbers.state)}, {"error", numbers.error},     {"bytes", numbers.bytes},
            {"frames", numbers.frames},       {"dropped", numbers.dropped}, {"reconnects", numbers.reconnects}};
}

ordered_json show(const WorkerStatus& status) {
    ordered_json shown = show(status.numbers);
    shown["inputs"] = ordered_json::array();
    for (const InputStatus& input : status.inputs) {
        ordered_json each = {{"stream_id", input.streamId}};
        each.update(show(input.numbers));
        shown["inputs"].push_back(std::move(each));
    }
    return shown;
}

// What is worth a line at once, and not only with the next half second.
std::string statesOf(const WorkerStatus& status) {
    std::string states = nameOf(status.numbers.state) + status.numbers.error;
    for (const InputStatus& input : status.inputs) {
        states += '\n' + input.streamId + nameOf(input.numbers.state) + input.numbers.error;
    }
    return states;
}

// The service may have gone: then there is nobody to write to, and stdin ends, too.
void writeLine(const ordered_json& line) {
    const std::string text = line.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

std::string base64(const std::string& bytes) {
    gchar* const text = g_base64_encode(reinterpret_cast<const guchar*>(bytes.data()), bytes.size());
    std::string result = text;
    g_free(text);
    return result;
}

class Run {
public:
    Run(const char* name, Worker& worker) : mName(name), mWorker(worker) {}

    void start() {
        g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), onInput, this);
        g_timeout_add(kLookMilliseconds, onLook, this);
        g_main_loop_run(mLoop.get());
    }

private:
    static gboolean onInput(gint, GIOCondition, gpointer self) { return static_cast<Run*>(self)->read(); }
    static gboolean onLook(gpointer self) {
        static_cast<Run*>(self)->look();
        return G_SOURCE_CONTINUE;
    }
    static gboolean onPatienceEnded(gpointer self) {
        g_main_loop_quit(static_cast<Run*>(self)->mLoop.get());
        return G_SOURCE_REMOVE;
    }

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
            obey(mInput.substr(0, end));
            mInput.erase(0, end + 1);
        }
        if (mInput.size() > kMaxLineBytes) {
            tell("a line of more than " + std::to_string(kMaxLineBytes) + " bytes on stdin: left out");
            mInput.clear();
        }
        return G_SOURCE_CONTINUE;
    }

    void obey(const std::string& line) {
        try {
            const json message = json::parse(line);
            if (message.contains("snapshot")) {
                mWorker.takePicture(message["snapshot"].at("width").get<int>(), [](const std::string& jpeg) {
                    writeLine({{"snapshot", base64(jpeg)}});
                });
                return;
            }
            mWorker.configure(message.at(mName));
            look();
        } catch (const json::exception& wrong) {
            tell(std::string("a line on stdin that is not understood: ") + wrong.what());
        }
    }

    void look() {
        const auto now = std::chrono::steady_clock::now();
        WorkerStatus status = mWorker.status();
        if (mIsStopping) {
            status.numbers.state = MediaState::kStopping;
        }
        std::string states = statesOf(status);
        if (states == mToldStates && now < mTold + std::chrono::milliseconds(kStatusMilliseconds)) {
            return;
        }
        mToldStates = std::move(states);
        mTold = now;
        writeLine({{"status", show(status)}});
    }

    void stop() {
        mIsStopping = true;
        look();
        g_timeout_add(kStopMilliseconds, onPatienceEnded, this);
        mWorker.stop([this] { g_main_loop_quit(mLoop.get()); });
    }

    struct Unref {
        void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
    };
    const char* const mName;
    Worker& mWorker;
    const std::unique_ptr<GMainLoop, Unref> mLoop{g_main_loop_new(nullptr, FALSE)};
    std::string mInput;
    std::string mToldStates;
    std::chrono::steady_clock::time_point mTold;
    bool mIsStopping = false;
};

}  // namespace

void Worker::takePicture(int, std::function<void(const std::string& jpeg)> done) {
    done("");
}

// Nothing is torn down but the connections, which stop() has seen to: the system takes back the rest, and no thread of
// a plugin's can keep the process.
void runWorker(const char* name, Worker& worker) {
    Run(name, worker).start();
    std::_Exit(0);
}

unsigned callAfter(std::chrono::milliseconds pause, std::function<void()> what) {
    return g_timeout_add_full(
        G_PRIORITY_DEFAULT, static_cast<guint>(pause.count()),
        [](gpointer held) -> gboolean {
            (*static_cast<std::function<void()>*>(held))();
            return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(what)),
        [](gpointer held) { delete static_cast<std::function<void()>*>(held); });
}

void tell(const std::string& line) {
    static std::mutex mutex;
    static std::chrono::steady_clock::time_point second;
    static int lines = 0;
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard<std::mutex> lock(mutex);
    if (now >= second + std::chrono::seconds(1)) {
        if (lines > kMaxLinesASecond) {
            std::fprintf(stderr, "%d more lines were left out\n", lines - kMaxLinesASecond);
        }
        second = now;
        lines = 0;
    }
    if (++lines <= kMaxLinesASecond) {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

}  // namespace vexalive
