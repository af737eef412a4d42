#include "base/Log.h"

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <cstdarg>
#include <cstdio>

#include "platform/Hook.h"
#include "platform/Platform.h"

namespace {

// Sink and logger are never destroyed: a worker may still log while the process exits.

vexalive::Hook<vexalive::LogSink>& logSink() {
    static auto& sink = *new vexalive::Hook<vexalive::LogSink>();
    return sink;
}

std::shared_ptr<spdlog::logger> findOrMakeLogger() {
    constexpr const char* kName = "vexalive";
    auto registered = spdlog::get(kName);
    return registered
               ? registered
               : std::make_shared<spdlog::logger>(kName, std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
}

spdlog::logger& defaultLogger() {
    static auto& logger = *new std::shared_ptr<spdlog::logger>(findOrMakeLogger());
    return *logger;
}

spdlog::level::level_enum libraryLevel(int level) {
    switch (level) {
        case 1:
            return spdlog::level::debug;
        case 2:
            return spdlog::level::info;
        case 3:
            return spdlog::level::warn;
        default:
            return spdlog::level::err;
    }
}

std::string formatMessage(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        return format;
    }
    std::string message(static_cast<size_t>(length), '\0');
    std::vsnprintf(message.data(), message.size() + 1, format, arguments);
    return message;
}

}  // namespace

void vexalive::setLogSink(LogSink sink) {
    logSink().set(std::move(sink));
}

void kstf_log(int level, const char* file, int line, const char* function, const char* format, ...) {
    const auto sink = logSink().get();
    if (!sink && !defaultLogger().should_log(libraryLevel(level))) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    const std::string message = formatMessage(format, arguments);
    va_end(arguments);
    if (sink) {
        (*sink)(level, file, line, function, message);
    } else {
        defaultLogger().log(spdlog::source_loc{file, line, function}, libraryLevel(level), "[{}:{} {}] {}", file, line,
                            function, message);
    }
}
