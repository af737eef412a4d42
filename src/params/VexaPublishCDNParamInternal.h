/// @file
/// Where to relay the local user's stream.

#ifndef VEXALIVE_PARAMS_VEXA_PUBLISH_CDN_PARAM_INTERNAL_H
#define VEXALIVE_PARAMS_VEXA_PUBLISH_CDN_PARAM_INTERNAL_H

#include <cstdint>
#include <string>

namespace kstmedia {

/// The parameter of a relay. The struct does not check its values; the adapter refuses a field that is 0 or empty.
struct VexaPublishCDNParamInternal {
    int32_t appId = 0;  ///< CDN application id
    int32_t bizId = 0;  ///< CDN biz id
    std::string url;    ///< destination address of the relayed stream

    /// "appId:…, bizId:…, url:…", as room event reports show it. The url is complete and unchanged.
    std::string to_string() const;
};

}  // namespace kstmedia

#endif
