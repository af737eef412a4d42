#include "base/ServiceAddress.h"

#include <cstdlib>
#include <string>

namespace {

// The string is never destroyed: a worker may still read it while the process exits.
const std::string& readOnce(const char* variable, const char* fallback) {
    const char* value = std::getenv(variable);
    return *new std::string(value && *value ? value : fallback);
}

}  // namespace

const char* kstf_get_live_service_host() {
    static const std::string& host = readOnce("VEXALIVE_SERVICE_HOST", VEXALIVE_SERVICE_HOST);
    return host.c_str();
}

const char* kstf_get_push_domain_suffix() {
    static const std::string& suffix = readOnce("VEXALIVE_PUSH_DOMAIN", VEXALIVE_PUSH_DOMAIN);
    return suffix.c_str();
}
