// The faults that wait for requests, and their form as JSON. Any thread may call any member.
//
// Used by LiveService. As JSON, a fault is an object with these keys (LiveService.h tells ranges and defaults):
//     "kind"        "delay", "status", "empty", "cut", "garbage", "huge", "server_code" or "close"; always there
//     "interface"   one of the three interfaces; any if left out
//     "times"       for how many requests; 0: until cleared
//     "delay_ms"    before whatever the kind does
//     "status"      with "status": the HTTP status
//     "size"        with "huge": bytes
//     "code", "message", "error_code_keys" (true or false)
//                   with "server_code"

#ifndef VEXALIVE_SERVICE_FAULTS_H
#define VEXALIVE_SERVICE_FAULTS_H

#include <cstddef>
#include <list>
#include <optional>
#include <string>

#include "base/Mutex.h"
#include "service/LiveService.h"

namespace vexalive {

const char* nameOf(Fault::Kind kind);

class Faults {
public:
    static constexpr size_t kMax = 1000;  // that wait at a time

    // Each returns why it is refused; empty if it is taken.
    std::string add(const Fault& fault);
    std::string addJson(const std::string& text);

    // The first that concerns the interface; it counts as used once.
    std::optional<Fault> take(const std::string& interfaceName);

    void clear();
    std::string toJson() const;

private:
    mutable KstMutex mMutex;
    std::list<Fault> mWaiting KST_GUARDED_BY(mMutex);
};

}  // namespace vexalive

#endif
