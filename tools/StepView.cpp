#include "tools/StepView.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/Clock.h"

namespace vexalive {
namespace {

constexpr size_t kWidthIfUnknown = 80;
constexpr size_t kMaxLine = 1000;  // columns; an answer may be a mebibyte long
constexpr std::chrono::milliseconds kRedrawInterval(200);

std::string inSeconds(std::chrono::milliseconds time) {
    return " in " + std::to_string((std::max<int64_t>(0, time.count()) + 999) / 1000) + " s";
}

std::string lines(const Step& step) {
    std::string text = step.text + "\n";
    for (const std::string& detail : step.details) {
        text += "  " + detail + "\n";
    }
    return text;
}

class PlainView : public StepView {
public:
    using StepView::StepView;

private:
    void draw(const Step& step) override {
        if (step.text.empty()) {
            return;
        }
        Step whole = step;
        whole.text += step.wait ? inSeconds(*step.wait) : "";
        write(mOut, lines(whole));
    }
    void drawLog(const std::string& line) override { write(mErr, line + "\n"); }
};

class JsonView : public StepView {
public:
    using StepView::StepView;

private:
    void draw(const Step& step) override {
        write(mOut, step.fields.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n");
    }
    void drawLog(const std::string& line) override { write(mErr, line + "\n"); }
};

// The last line of the terminal belongs to the passing step; all else is written above it.
class LiveView : public StepView {
public:
    using StepView::StepView;
    ~LiveView() override { erase(); }

    std::optional<std::chrono::milliseconds> redrawInterval() const override {
        return mPassing ? std::optional(kRedrawInterval) : std::nullopt;
    }

    void redraw() override {
        const std::string line = mPassing ? clipped(passingText(), width() - 1) : "";
        if (line != mShown) {
            write(mOut, kStartOfLine + line + kClearRest);
            mShown = line;
        }
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr const char* kClearRest = "\x1b[K";
    const std::string kStartOfLine = "\r";

    void draw(const Step& step) override {
        if (step.text.empty()) {
            return;
        }
        mPassing.reset();
        if (step.passing) {
            mPassing = step;
            mSince = Clock::now();
        } else {
            erase();
            write(mOut, lines(step));
        }
        redraw();
    }

    void drawLog(const std::string& line) override {
        erase();
        write(mErr, line + "\n");
        redraw();
    }

    void erase() {
        if (!mShown.empty()) {
            write(mOut, kStartOfLine + kClearRest);
            mShown.clear();
        }
    }

    std::string passingText() const {
        const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - mSince);
        if (mPassing->wait) {
            return mPassing->text + inSeconds(*mPassing->wait - passed);
        }
        const auto seconds = passed.count() / 1000;
        return mPassing->text + (seconds > 0 ? " (" + std::to_string(seconds) + " s)" : "");
    }

    size_t width() const {
        winsize size{};
        return ioctl(fileno(mOut), TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col : kWidthIfUnknown;
    }

    std::optional<Step> mPassing;
    Clock::time_point mSince;
    std::string mShown;
};

void hideIn(nlohmann::ordered_json& value, const Secrets& secrets) {
    if (value.is_string()) {
        value = secrets.hide(value.get<std::string>());
    } else if (value.is_structured()) {
        for (auto& part : value) {
            hideIn(part, secrets);
        }
    }
}

}  // namespace

void StepView::show(Step step) {
    step.fields["time"] = isoTime(kstf_getutctick());
    hideIn(step.fields, mSecrets);
    step.text = fit(step.text);
    for (std::string& detail : step.details) {
        detail = fit(detail);
    }
    draw(step);
}

void StepView::log(const std::string& line) {
    drawLog(fit(line));
}

// Hides before it cuts, lest a cut secret is not recognised.
std::string StepView::fit(const std::string& text) const {
    return clipped(printable(mSecrets.hide(text)), kMaxLine);
}

void StepView::write(FILE* file, const std::string& text) {
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size() && std::fflush(file) == 0;
    mBroken = mBroken || (!written && file == mOut);
}

Form chooseForm(bool json, FILE* out) {
    if (json) {
        return Form::kJson;
    }
    const char* terminal = std::getenv("TERM");
    const bool canErase = terminal && *terminal && std::strcmp(terminal, "dumb") != 0;
    return canErase && isatty(fileno(out)) ? Form::kLive : Form::kPlain;
}

std::unique_ptr<StepView> makeStepView(Form form, Secrets secrets, FILE* out, FILE* err) {
    switch (form) {
        case Form::kLive:
            return std::make_unique<LiveView>(std::move(secrets), out, err);
        case Form::kJson:
            return std::make_unique<JsonView>(std::move(secrets), out, err);
        default:
            return std::make_unique<PlainView>(std::move(secrets), out, err);
    }
}

}  // namespace vexalive
