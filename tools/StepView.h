// Shows what happens, step by step, in one of three forms: for a person at a terminal, for a pipe, for a program.
//
// A command tells each step once, as a text and as fields; which form shows it is none of its business.

#ifndef VEXALIVE_TOOLS_STEP_VIEW_H
#define VEXALIVE_TOOLS_STEP_VIEW_H

#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/Text.h"

namespace vexalive {

struct Step {  // NOLINT(bugprone-exception-escape): moving JSON checks its invariant, and never throws
    nlohmann::ordered_json fields;                  // "event" and what belongs to it
    std::string text;                               // one line; empty: for programs only
    std::vector<std::string> details;               // lines that belong under it
    bool passing = false;                           // describes a state that lasts until the next step
    std::optional<std::chrono::milliseconds> wait;  // how long it lasts; shown after the text as "in 5 s"
};

// For one thread. Texts may hold anything: secrets are hidden in all forms; in lines for people, control characters are
// shown as "\xNN" and what is very long is cut.
class StepView {
public:
    // `out` takes the steps, `err` the log lines; both outlive the view.
    StepView(Secrets secrets, FILE* out, FILE* err) : mSecrets(std::move(secrets)), mOut(out), mErr(err) {}
    virtual ~StepView() = default;
    StepView(const StepView&) = delete;
    StepView& operator=(const StepView&) = delete;

    void show(Step step);
    void log(const std::string& line);

    // How often redraw() wants to be called; never, if there is no value.
    virtual std::optional<std::chrono::milliseconds> redrawInterval() const { return std::nullopt; }
    virtual void redraw() {}

    // Whether a step could not be written: whoever read them is gone.
    bool isBroken() const { return mBroken; }

protected:
    virtual void draw(const Step& step) = 0;
    virtual void drawLog(const std::string& line) = 0;
    void write(FILE* file, const std::string& text);

    const Secrets mSecrets;
    FILE* const mOut;
    FILE* const mErr;

private:
    std::string fit(const std::string& text) const;

    bool mBroken = false;
};

enum class Form {
    kPlain,  // lines
    kLive,   // lines, and below them a passing step that is kept up to date
    kJson,   // one JSON object a line
};

// kLive only if `out` is a terminal that can do it.
Form chooseForm(bool json, FILE* out);

std::unique_ptr<StepView> makeStepView(Form form, Secrets secrets, FILE* out, FILE* err);

}  // namespace vexalive

#endif
