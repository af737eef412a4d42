// Writes the progress of a command in one of three formats: live lines on a terminal, plain lines, JSON lines.

#ifndef VEXALIVE_TOOLS_OUTPUT_WRITER_H
#define VEXALIVE_TOOLS_OUTPUT_WRITER_H

#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/Secrets.h"

namespace vexalive {

// One entry of the output. JSON lines show `fields`; plain and live lines show the other members.
struct OutputEntry {  // NOLINT(bugprone-exception-escape): moving JSON checks its invariant, and never throws
    nlohmann::ordered_json fields;                       // the key "event" and the fields of that event
    std::string text;                                    // one line; if empty, only JSON lines show the entry
    std::vector<std::string> details;                    // indented lines after `text`
    bool transient = false;                              // on a terminal, the next entry replaces this line
    std::optional<std::chrono::milliseconds> countdown;  // shown after `text` as "in 5 s"
};

// Not thread-safe. Strings may contain any bytes. Every format hides the secrets. Plain and live lines escape control
// characters as "\xNN" and are truncated at 1000 columns.
class OutputWriter {
public:
    // `out` receives the entries, and `err` receives the log lines. Both must outlive the writer.
    OutputWriter(Secrets secrets, FILE* out, FILE* err) : mSecrets(std::move(secrets)), mOut(out), mErr(err) {}
    virtual ~OutputWriter() = default;
    OutputWriter(const OutputWriter&) = delete;
    OutputWriter& operator=(const OutputWriter&) = delete;

    void write(OutputEntry entry);
    void writeLog(const std::string& line);

    // The interval at which to call redraw(). std::nullopt: redraw() need not be called.
    virtual std::optional<std::chrono::milliseconds> redrawInterval() const { return std::nullopt; }
    virtual void redraw() {}

    // Whether a write to `out` has failed, for example because the reader of a pipe has exited.
    bool isBroken() const { return mIsBroken; }

protected:
    virtual void render(const OutputEntry& entry) = 0;
    virtual void renderLog(const std::string& line) = 0;
    void put(FILE* file, const std::string& bytes);

    const Secrets mSecrets;
    FILE* const mOut;
    FILE* const mErr;

private:
    std::string sanitized(const std::string& text) const;

    bool mIsBroken = false;
};

enum class OutputFormat { kPlain, kTerminal, kJson };

// Returns kTerminal only if `out` is a terminal that can erase a line.
OutputFormat chooseFormat(bool json, FILE* out);

std::unique_ptr<OutputWriter> makeOutputWriter(OutputFormat format, Secrets secrets, FILE* out, FILE* err);

}  // namespace vexalive

#endif
