// The SDK's facilities in a small host program: every request succeeds, and nothing is sent over a network.

#include "Seam.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <utility>

#include "base/CVexaHttpSendRecv.h"
#include "base/Clock.h"
#include "base/EventReport.h"
#include "base/Json.h"
#include "base/Log.h"
#include "base/Md5.h"
#include "base/ServiceAddress.h"
#include "base/Version.h"

namespace {

std::mutex mutex;
std::condition_variable reported;
std::vector<std::string> reports;
std::vector<std::string> sent;
std::vector<std::thread> deliveries;

template <class Clock>
uint64_t milliseconds() {
    const auto sinceOrigin = Clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(sinceOrigin).count());
}

}  // namespace

std::vector<std::string> awaitReports(size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    reported.wait(lock, [count] { return reports.size() >= count; });
    return reports;
}

std::vector<std::string> requests() {
    const std::lock_guard<std::mutex> lock(mutex);
    return sent;
}

void endDeliveries() {
    for (std::thread& delivery : deliveries) {
        delivery.join();
    }
}

// ---- HTTPS ----

struct CVexaHttpSendRecv::Impl {};

CVexaHttpSendRecv::CVexaHttpSendRecv() = default;
CVexaHttpSendRecv::~CVexaHttpSendRecv() = default;

void CVexaHttpSendRecv::sendHttpsRequest(KstCopyOnWriteBuffer& body, const std::string& url, Callback callback) {
    const std::lock_guard<std::mutex> lock(mutex);
    sent.push_back(url + " " + std::string(reinterpret_cast<const char*>(body.cdata()), body.size()));
    deliveries.emplace_back([callback = std::move(callback)] {
        const std::string text = "{\"code\":0}";
        KstCopyOnWriteBuffer response(reinterpret_cast<const uint8_t*>(text.data()), text.size());
        callback(CVexaHttpSendRecv::kSuccess, response);
    });
}

// ---- JSON: objects of numbers, strings without escapes and objects ----

std::string json::Serialize(const Value& value) {
    if (const int64_t* integer = value.asInteger()) {
        return std::to_string(*integer);
    }
    if (const std::string* text = value.asString()) {
        return "\"" + *text + "\"";
    }
    if (const Object* object = value.asObject()) {
        std::string text = "{";
        for (const auto& [key, member] : object->members()) {
            text += (text.size() > 1 ? ",\"" : "\"") + key + "\":" + Serialize(member);
        }
        return text + "}";
    }
    return "null";
}

json::Value json::Deserialize(const std::string& text) {
    int code = 0;
    if (std::sscanf(text.c_str(), "{\"code\":%d}", &code) != 1) {
        return Value();
    }
    Object object;
    object["code"] = code;
    return object;
}

// ---- The rest ----

std::string kstmedia::getMD5(const std::string& text) {
    return "digest-of-" + text;
}

uint64_t kstf_gettickcount() {
    return milliseconds<std::chrono::steady_clock>();
}

uint64_t kstf_getutctick() {
    return milliseconds<std::chrono::system_clock>();
}

void kstf_log(int, const char*, int, const char*, const char*, ...) {}

const char* kstf_get_sdk_version() {
    return "host-1";
}

const char* kstf_get_live_service_host() {
    return "service.host.test";
}

const char* kstf_get_push_domain_suffix() {
    return "push.host.test";
}

int kstReportAvRoomEvt(int, uint64_t, const char*, int, int event, const char* information, const char*) {
    const std::lock_guard<std::mutex> lock(mutex);
    reports.push_back(std::to_string(event) + " " + information);
    reported.notify_all();
    return 0;
}
