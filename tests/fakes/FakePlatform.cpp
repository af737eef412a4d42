#include "FakePlatform.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

#include "base/Clock.h"
#include "base/EventReport.h"
#include "base/Log.h"
#include "base/ServiceAddress.h"
#include "base/Version.h"

FakePlatform& FakePlatform::instance() {
    static FakePlatform& platform = *new FakePlatform();
    return platform;
}

void FakePlatform::reset() {
    const int everSent = requestsEver;
    *this = FakePlatform();
    requestsEver = everSent;
}

void FakePlatform::respond(size_t request, int retCode, const std::string& body) {
    // Moved out before the call: a callback that sends reallocates `requests`.
    const CVexaHttpSendRecv::Callback callback = std::exchange(requests.at(request).callback, nullptr);
    KstCopyOnWriteBuffer response(reinterpret_cast<const uint8_t*>(body.data()), body.size());
    callback(retCode, response);
}

uint64_t FakePlatform::millisecondsSinceReset() const {
    const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(VirtualTime::now() - mResetAt);
    return static_cast<uint64_t>(passed.count());
}

struct CVexaHttpSendRecv::Impl {
    size_t number;
};

CVexaHttpSendRecv::CVexaHttpSendRecv() : mImpl(new Impl{FakePlatform::instance().mClientsMade++}) {
    FakePlatform::instance().clients.push_back("made " + std::to_string(mImpl->number));
}

CVexaHttpSendRecv::~CVexaHttpSendRecv() {
    FakePlatform::instance().clients.push_back("gone " + std::to_string(mImpl->number));
}

void CVexaHttpSendRecv::sendHttpsRequest(KstCopyOnWriteBuffer& body, const std::string& url, Callback callback) {
    FakePlatform& platform = FakePlatform::instance();
    ++platform.requestsEver;
    platform.order.push_back("request " + std::to_string(platform.requests.size()));
    platform.requests.push_back({mImpl->number, url,
                                 std::string(reinterpret_cast<const char*>(body.cdata()), body.size()),
                                 VirtualTime::now(), std::move(callback)});
}

void kstf_log(int level, const char* file, int line, const char* function, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<size_t>(std::vsnprintf(nullptr, 0, format, arguments)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    va_end(arguments);
    FakePlatform& platform = FakePlatform::instance();
    const FakePlatform::LogLine logged = {level, file, line, function, text};
    platform.log.push_back(logged);
    if (platform.onLog) {
        platform.onLog(logged);
    }
}

int kstReportAvRoomEvt(int sdkAppId, uint64_t reserved, const char* roomUser, int eventType, int event,
                       const char* information, const char* detail) {
    FakePlatform& platform = FakePlatform::instance();
    platform.order.push_back("report " + std::to_string(event));
    platform.reports.push_back({sdkAppId, reserved, roomUser, eventType, event, information, detail});
    return 0;
}

uint64_t kstf_gettickcount() {
    const FakePlatform& platform = FakePlatform::instance();
    return platform.tickAtReset + platform.millisecondsSinceReset();
}

uint64_t kstf_getutctick() {
    const FakePlatform& platform = FakePlatform::instance();
    return platform.utcAtReset + platform.millisecondsSinceReset();
}

const char* kstf_get_sdk_version() {
    return FakePlatform::kVersion;
}

const char* kstf_get_live_service_host() {
    return FakePlatform::kHost;
}

const char* kstf_get_push_domain_suffix() {
    return FakePlatform::kPushDomain;
}
