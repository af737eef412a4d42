#ifndef VEXALIVE_COMMON_URL_H
#define VEXALIVE_COMMON_URL_H

#include <optional>
#include <string>

namespace vexalive {

/// The parts of an absolute URL: "scheme://user@host:port/path?query".
struct Url {
    std::string scheme;  ///< lower case
    std::string host;    ///< without the brackets of an IPv6 address
    std::string port;    ///< decimal; empty if the URL has no port
    std::string path;    ///< not decoded; "/" if the URL has no path
    std::string query;   ///< not decoded, without the "?"
    bool hasUser = false;
};

/// Returns std::nullopt if `text` is not an absolute URL, or if it contains spaces or control characters.
std::optional<Url> parseUrl(const std::string& text);

}  // namespace vexalive

#endif
