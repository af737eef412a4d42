// A fake of the SDK's facilities: records log lines, reports and requests of the adapter, and sends nothing.
//
// FakePlatform.cpp implements the interfaces of src/base (HTTPS client, log, report, clocks, version, address) with
// this object. The clocks follow virtual time. For tests on one thread.

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
        CVexaHttpSendRecv::Callback callback;  // empty once the response is delivered
    };

    static constexpr const char* kHost = "live.test:8443";
    static constexpr const char* kPushDomain = "push.test";
    static constexpr const char* kVersion = "9.8.7";

    static FakePlatform& instance();

    // Clears the records and resets the clocks to the values below.
    void reset();

    // Responds to a request as the client's delivery thread would. The client may have been destroyed.
    void respond(size_t request, int retCode, const std::string& body);

    std::vector<LogLine> log;
    std::vector<Report> reports;
    std::vector<Request> requests;
    std::vector<std::string> clients;  // "made 0", "gone 0", … in their order; the numbers begin with 0 after a reset
    std::vector<std::string> order;    // one entry for each send, report and event that a test adds, in their order

    // The values of both clocks at the reset, in milliseconds. The virtual time since the reset is added.
    uint64_t tickAtReset = 1'000'000;
    uint64_t utcAtReset = 1'700'000'000'000;

    // Runs after each log line; may call the adapter.
    std::function<void(const LogLine&)> onLog;

    // Requests of the whole process; a reset does not change this number. Each request uses one event id.
    int requestsEver = 0;

    uint64_t millisecondsSinceReset() const;

private:
    friend class CVexaHttpSendRecv;
    size_t mClientsMade = 0;
    VirtualTime::TimePoint mResetAt = VirtualTime::now();
};

#endif
