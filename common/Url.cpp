#include "common/Url.h"

#include <curl/curl.h>

#include <memory>

namespace vexalive {

std::optional<Url> parseUrl(const std::string& text) {
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), &curl_url_cleanup);
    constexpr unsigned kFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS;
    const size_t hostStart = text.find("://") + 3;  // libcurl also accepts one slash, or three
    const bool hasAuthority = hostStart > 3 && hostStart < text.size() && text[hostStart] != '/';
    const bool holdsZeroByte = text.find('\0') != std::string::npos;
    if (!handle || !hasAuthority || holdsZeroByte ||
        curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), kFlags) != CURLUE_OK) {
        return std::nullopt;
    }
    const auto part = [&handle](CURLUPart which) {
        char* value = nullptr;
        const bool isPresent = curl_url_get(handle.get(), which, &value, 0) == CURLUE_OK;
        const std::unique_ptr<char, decltype(&curl_free)> holder(value, &curl_free);
        return std::string(isPresent ? value : "");
    };
    Url url;
    url.scheme = part(CURLUPART_SCHEME);
    url.host = part(CURLUPART_HOST);
    if (!url.host.empty() && url.host.front() == '[') {
        url.host = url.host.substr(1, url.host.size() - 2);
    }
    url.port = part(CURLUPART_PORT);
    url.path = part(CURLUPART_PATH);
    url.query = part(CURLUPART_QUERY);
    url.hasUser = !part(CURLUPART_USER).empty();
    return url;
}

}  // namespace vexalive
