#include "tools/OutputWriter.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/Clock.h"
#include "common/Text.h"

namespace vexalive {
namespace {

constexpr size_t kDefaultWidth = 80;
constexpr size_t kMaxLine = 1000;  // columns; limits a response of the service, which may be 1 MiB long
constexpr std::chrono::milliseconds kRedrawInterval(200);

std::string inSeconds(std::chrono::milliseconds time) {
    return " in " + std::to_string((std::max<int64_t>(0, time.count()) + 999) / 1000) + " s";
}

std::string lines(const OutputEntry& entry) {
    std::string result = entry.text + "\n";
    for (const std::string& detail : entry.details) {
        result += "  " + detail + "\n";
    }
    return result;
}

class PlainWriter : public OutputWriter {
public:
    using OutputWriter::OutputWriter;

private:
    void render(const OutputEntry& entry) override {
        if (entry.text.empty()) {
            return;
        }
        OutputEntry whole = entry;
        whole.text += entry.countdown ? inSeconds(*entry.countdown) : "";
        put(mOut, lines(whole));
    }
    void renderLog(const std::string& line) override { put(mErr, line + "\n"); }
};

class JsonWriter : public OutputWriter {
public:
    using OutputWriter::OutputWriter;

private:
    void render(const OutputEntry& entry) override {
        put(mOut, entry.fields.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n");
    }
    void renderLog(const std::string& line) override { put(mErr, line + "\n"); }
};

// Shows the transient entry in the last line of the terminal, and writes all other entries above it.
class TerminalWriter : public OutputWriter {
public:
    using OutputWriter::OutputWriter;
    ~TerminalWriter() override { erase(); }

    std::optional<std::chrono::milliseconds> redrawInterval() const override {
        return mTransient ? std::optional(kRedrawInterval) : std::nullopt;
    }

    void redraw() override {
        const std::string line = mTransient ? clipped(transientText(), width() - 1) : "";
        if (line != mLastLine) {
            put(mOut, "\r" + line + kClearRest);
            mLastLine = line;
        }
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr const char* kClearRest = "\x1b[K";

    void render(const OutputEntry& entry) override {
        if (entry.text.empty()) {
            return;
        }
        mTransient.reset();
        if (entry.transient) {
            mTransient = entry;
            mTransientSince = Clock::now();
        } else {
            erase();
            put(mOut, lines(entry));
        }
        redraw();
    }

    void renderLog(const std::string& line) override {
        erase();
        put(mErr, line + "\n");
        redraw();
    }

    void erase() {
        if (!mLastLine.empty()) {
            put(mOut, std::string("\r") + kClearRest);
            mLastLine.clear();
        }
    }

    std::string transientText() const {
        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - mTransientSince);
        if (mTransient->countdown) {
            return mTransient->text + inSeconds(*mTransient->countdown - elapsed);
        }
        const auto seconds = elapsed.count() / 1000;
        return mTransient->text + (seconds > 0 ? " (" + std::to_string(seconds) + " s)" : "");
    }

    size_t width() const {
        winsize size{};
        return ioctl(fileno(mOut), TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col : kDefaultWidth;
    }

    std::optional<OutputEntry> mTransient;
    Clock::time_point mTransientSince;
    std::string mLastLine;
};

void hideIn(nlohmann::ordered_json& value, const Secrets& secrets) {
    if (value.is_string()) {
        value = secrets.hide(value.get<std::string>());
    } else if (value.is_structured()) {
        for (auto& child : value) {
            hideIn(child, secrets);
        }
    }
}

}  // namespace

void OutputWriter::write(OutputEntry entry) {
    entry.fields["time"] = isoTime(kstf_getutctick());
    hideIn(entry.fields, mSecrets);
    entry.text = sanitized(entry.text);
    for (std::string& detail : entry.details) {
        detail = sanitized(detail);
    }
    render(entry);
}

void OutputWriter::writeLog(const std::string& line) {
    renderLog(sanitized(line));
}

// Hides secrets before it truncates: a truncated secret would not be recognised.
std::string OutputWriter::sanitized(const std::string& text) const {
    return clipped(printable(mSecrets.hide(text)), kMaxLine);
}

void OutputWriter::put(FILE* file, const std::string& bytes) {
    const bool isWritten = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() && std::fflush(file) == 0;
    mIsBroken = mIsBroken || (!isWritten && file == mOut);
}

OutputFormat chooseFormat(bool json, FILE* out) {
    if (json) {
        return OutputFormat::kJson;
    }
    const char* terminal = std::getenv("TERM");
    const bool canErase = terminal && *terminal && std::strcmp(terminal, "dumb") != 0;
    return canErase && isatty(fileno(out)) ? OutputFormat::kTerminal : OutputFormat::kPlain;
}

std::unique_ptr<OutputWriter> makeOutputWriter(OutputFormat format, Secrets secrets, FILE* out, FILE* err) {
    switch (format) {
        case OutputFormat::kTerminal:
            return std::make_unique<TerminalWriter>(std::move(secrets), out, err);
        case OutputFormat::kJson:
            return std::make_unique<JsonWriter>(std::move(secrets), out, err);
        default:
            return std::make_unique<PlainWriter>(std::move(secrets), out, err);
    }
}

}  // namespace vexalive
