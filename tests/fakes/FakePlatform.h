// The SDK's facilities for tests: records what the adapter logs, reports and sends, and sends nothing.
//
// FakePlatform.cpp defines the seam of src/base (HTTPS client, log, report, clocks, version, address) on this object.
// The clocks follow virtual time. For tests on one thread.

#ifndef VEXALIVE_FAKES_FAKE_PLATFORM_H
#define VEXALIVE_FAKES_FAKE_PLATFORM_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "VirtualTime.h"
#include "base/CVexaHttpSendRecv.h"

class FakePlatform {
public:
    struct LogLine {
        int level;
        std::string file;
        int line;
        std::string function;
        std::string text;
    };

    struct Report {
        int sdkAppId;
        uint64_t reserved;
        std::string roomUser;
        int eventType;
        int event;
        std::string information;
        std::string detail;
    };

    struct Request {
        size_t client;  // counted from 0 in the order in which the clients were made
        std::string url;
        std::string body;
        VirtualTime::TimePoint sentAt;
        CVexaHttpSendRecv::Callback callback;  // empty once responded to
    };

    static constexpr const char* kHost = "live.test:8443";
    static constexpr const char* kPushDomain = "push.test";
    static constexpr const char* kVersion = "9.8.7";

    static FakePlatform& instance();

    // Forgets what was recorded and sets the clocks back to the values below.
    void reset();

    // Responds to a request as the client's delivery thread would. The client may have been destroyed.
    void respond(size_t request, int retCode, const std::string& body);

    std::vector<LogLine> log;
    std::vector<Report> reports;
    std::vector<Request> requests;
    std::vector<std::string> clients;  // "made 0", "gone 0", … in order; counted from 0 after a reset
    std::vector<std::string> order;    // what happened at all, in one line each: sends, reports and the tests' own

    // Both clocks at the moment of the reset, in milliseconds; virtual time passes on top.
    uint64_t tickAtReset = 1'000'000;
    uint64_t utcAtReset = 1'700'000'000'000;

    // Runs after each log line; may call the adapter.
    std::function<void(const LogLine&)> onLog;

    // Of the whole process, whatever was reset since: one event id is used up by each.
    int requestsEver = 0;

    uint64_t millisecondsSinceReset() const;

private:
    friend class CVexaHttpSendRecv;
    size_t mClientsMade = 0;
    VirtualTime::TimePoint mResetAt = VirtualTime::now();
};

#endif
