// The origin's address, files and supervision. The behaviour of nginx itself is tested in tests/media.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <filesystem>
#include <string>

#include "service/Origin.h"
#include "support/ServiceTesting.h"

using namespace servicetesting;
using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;
using vexalive::Origin;
using vexalive::parseOriginAddress;

namespace {

bool canListen(const std::string& port, bool sharesAddress) {
    const vexalive::Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int shares = sharesAddress ? 1 : 0;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &shares, sizeof shares);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::stoi(port)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
           ::listen(socket.get(), 1) == 0;
}

}  // namespace

TEST(OriginAddress, IsAHostAndPerhapsAPort) {
    EXPECT_EQ("rtmp://media.test:1935", parseOriginAddress("rtmp://media.test")->url);
    EXPECT_EQ("rtmp://127.0.0.1:7000", parseOriginAddress("rtmp://127.0.0.1:7000")->url);
    EXPECT_EQ("rtmp://[::1]:7000", parseOriginAddress("rtmp://[::1]:7000")->url);
    EXPECT_EQ("rtmp://h:7000", parseOriginAddress("rtmp://h:07000")->url);
    EXPECT_EQ("::1", parseOriginAddress("rtmp://[::1]")->host);
    EXPECT_EQ("1935", parseOriginAddress("rtmp://[::1]")->port);
    for (const char* url : {"", "rtmp://", "rtmp://:1935", "http://h", "h:1935", "rtmp://h/live",
                            "rtmp://h:", "rtmp://h:0", "rtmp://h:65536", "rtmp://h:1x", "rtmp://h:-1", "rtmp://[::1",
                            "rtmp://[::1]x", "rtmp://[]:1", "rtmp://u@h", "rtmp://h :1", "rtmp://::1"}) {
        EXPECT_FALSE(parseOriginAddress(url)) << url;
    }
}

TEST(OriginConfiguration, ListensOnLoopbackAsOneProcessAndReportsPublishers) {
    const std::string text = vexalive::originConfiguration("7001", 7003, false);
    for (const char* part : {"master_process off;", "daemon off;", "listen 127.0.0.1:7001;",
                             "on_publish http://127.0.0.1:7003/origin/publish;", "idle_streams on;"}) {
        EXPECT_NE(0, occurrences(text, part)) << part;
    }
    EXPECT_EQ(1, occurrences(text, "listen "));
    EXPECT_EQ(1, occurrences(text, "on_publish"));  // only for "live": workers publish mixes without permission
    EXPECT_EQ(std::string::npos, text.find("user "));
    EXPECT_NE(std::string::npos, vexalive::originConfiguration("1", 3, true).find("user root;"));
}

TEST(Origin, EachServiceUsesAFolderOfItsOwnAndAnAbandonedOneIsUsedAgain) {
    const TemporaryFolder folder;
    Origin first;
    if (const auto prepared = first.prepare(folder.path()); !prepared) {
        EXPECT_THAT(prepared.error().message, HasSubstr("install Debian's packages nginx and libnginx-mod-rtmp"));
        GTEST_SKIP() << prepared.error().message;
    }
    Origin second;
    ASSERT_TRUE(second.prepare(folder.path()));
    EXPECT_NE(first.arguments(), second.arguments());
    EXPECT_NE(first.address().url, second.address().url);
    ASSERT_TRUE(first.configure(1));
    EXPECT_TRUE(std::filesystem::exists(folder.path() + "/origin-1/nginx.conf"));

    first.release();
    Origin third;
    ASSERT_TRUE(third.prepare(folder.path()));
    EXPECT_EQ(first.arguments(), third.arguments());
}

TEST(Origin, ItsPortIsReservedBeforeNginxListensAndWhileItRestarts) {
    const TemporaryFolder folder;
    Origin origin;
    if (const auto prepared = origin.prepare(folder.path()); !prepared) {
        GTEST_SKIP() << prepared.error().message;
    }
    const std::string port = origin.address().port;
    EXPECT_FALSE(canListen(port, false));
    EXPECT_TRUE(canListen(port, true));  // with the socket options of nginx
    origin.release();
    EXPECT_TRUE(canListen(port, false));
}

TEST(Origin, AFolderThatCannotBeCreatedIsReported) {
    const TemporaryFolder folder;
    writeAll(folder.path() + "/file", "");
    Origin origin;
    const auto prepared = origin.prepare(folder.path() + "/file");
    ASSERT_FALSE(prepared);
    EXPECT_THAT(prepared.error().message, AnyOf(StartsWith("cannot create"), StartsWith("media needs nginx")));
}
