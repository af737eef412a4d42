#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/FaultOption.h"
#include "tools/Options.h"

namespace {

using vexalive::Fault;
using vexalive::readFault;
using vexalive::UsageError;
using Kind = Fault::Kind;

TEST(ReadFault, TakesEachKind) {
    EXPECT_EQ(readFault("delay=250").kind, Kind::kDelay);
    EXPECT_EQ(readFault("delay=250").delayMs, 250);
    EXPECT_EQ(readFault("status=404").kind, Kind::kStatus);
    EXPECT_EQ(readFault("status=404").status, 404);
    EXPECT_EQ(readFault("empty").kind, Kind::kEmpty);
    EXPECT_EQ(readFault("cut").kind, Kind::kCut);
    EXPECT_EQ(readFault("garbage").kind, Kind::kGarbage);
    EXPECT_EQ(readFault("huge").kind, Kind::kHuge);
    EXPECT_EQ(readFault("huge=4096").size, 4096u);
    EXPECT_EQ(readFault("code=-505").kind, Kind::kServerCode);
    EXPECT_EQ(readFault("code=-505").code, -505);
    EXPECT_EQ(readFault("close").kind, Kind::kClose);
}

TEST(ReadFault, TakesParticularsInAnyOrder) {
    const Fault fault = readFault("status=503,interface=add_relay_stream_url,delay=10,count=0");
    EXPECT_EQ(fault.kind, Kind::kStatus);
    EXPECT_EQ(fault.interfaceName, "add_relay_stream_url");
    EXPECT_EQ(fault.delayMs, 10);
    EXPECT_EQ(fault.times, 0);
    EXPECT_EQ(readFault("code=1,message=a = b").message, "a = b");
}

TEST(ReadFault, HappensOnceIfNoCountIsGiven) {
    EXPECT_EQ(readFault("empty").times, 1);
}

TEST(ReadFault, SaysWhatItCannotRead) {
    const auto errorOf = [](const char* text) -> std::string {
        try {
            readFault(text);
            return "";
        } catch (const UsageError& error) {
            return error.what();
        }
    };
    EXPECT_THAT(errorOf(""), ::testing::HasSubstr("is none of delay, status"));
    EXPECT_THAT(errorOf("statsu=1"), ::testing::HasSubstr("did you mean status?"));
    EXPECT_EQ(errorOf("status=many"), "--fault: status is \"many\": must be a 32-bit integer");
    EXPECT_EQ(errorOf("empty=1"), "--fault: empty takes no value");
    EXPECT_THAT(errorOf("empty,cuont=1"), ::testing::HasSubstr("did you mean count?"));
}

}  // namespace
