#include "params/VexaPublishCDNParamInternal.h"

#include <cstdio>

namespace kstmedia {

std::string VexaPublishCDNParamInternal::to_string() const {
    char head[260] = {};
    std::snprintf(head, sizeof head, "appId:%d, bizId:%d, url:", appId, bizId);
    return head + url;
}

}  // namespace kstmedia
