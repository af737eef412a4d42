#include <gtest/gtest.h>

#include <string>

#include "common/Url.h"

using vexalive::parseUrl;
using vexalive::Url;

namespace {

std::string partsOf(const std::string& text) {
    const std::optional<Url> url = parseUrl(text);
    return url ? url->scheme + "|" + (url->hasUser ? "@" : "") + url->host + "|" + url->port + "|" + url->path + "|" +
                     url->query
               : "none";
}

}  // namespace

TEST(Url, HasParts) {
    EXPECT_EQ("rtmp|cdn.test|1936|/app/stream|key=a/b", partsOf("RTMP://cdn.test:1936/app/stream?key=a/b"));
    EXPECT_EQ("rtmp|@cdn.test||/a/../b|", partsOf("rtmp://u:p@cdn.test/a/../b"));
    EXPECT_EQ("rtmp|::1||/live/x|", partsOf("rtmp://[::1]/live/x"));
    EXPECT_EQ("srt|cdn.test|9000|/|", partsOf("srt://cdn.test:9000"));
}

TEST(Url, IsNothingWhereAPartIsMalformed) {
    for (const char* text :
         {"", "cdn.test/app", "//cdn.test/app", "://cdn.test", "rtmp://", "rtmp:///app", "rtmp://:1/a", "rtmp://h:x/a",
          "rtmp://h:65536/a", "rtmp://[::1/a", "rtmp://h/a b", "rtmp://h/a\n"}) {
        EXPECT_EQ("none", partsOf(text)) << text;
    }
    EXPECT_EQ("none", partsOf(std::string("rtmp://h/a\0b", 12)));
}
