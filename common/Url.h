#ifndef VEXALIVE_COMMON_URL_H
#define VEXALIVE_COMMON_URL_H

#include <optional>
#include <string>

namespace vexalive {

/// The parts of an absolute address: "scheme://user@host:port/path?query".
struct Url {
    std::string scheme;  ///< lower case
    std::string host;    ///< without the brackets of an IPv6 address
    std::string port;    ///< decimal; empty if the address has none
    std::string path;    ///< as sent; "/" if the address has none
    std::string query;   ///< as sent, without its "?"
    bool hasUser = false;
};

/// std::nullopt if `text` is not an absolute address, or if it contains spaces or control characters.
std::optional<Url> parseUrl(const std::string& text);

}  // namespace vexalive

#endif
