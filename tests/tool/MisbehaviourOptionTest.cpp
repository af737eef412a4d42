#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/MisbehaviourOption.h"
#include "tools/Options.h"

namespace {

using vexalive::Misbehaviour;
using vexalive::readMisbehaviour;
using vexalive::UsageError;
using Kind = Misbehaviour::Kind;

TEST(ReadMisbehaviour, TakesEachKind) {
    EXPECT_EQ(readMisbehaviour("delay=250").kind, Kind::kDelay);
    EXPECT_EQ(readMisbehaviour("delay=250").delayMs, 250);
    EXPECT_EQ(readMisbehaviour("status=404").kind, Kind::kStatus);
    EXPECT_EQ(readMisbehaviour("status=404").status, 404);
    EXPECT_EQ(readMisbehaviour("empty").kind, Kind::kEmpty);
    EXPECT_EQ(readMisbehaviour("cut").kind, Kind::kCut);
    EXPECT_EQ(readMisbehaviour("garbage").kind, Kind::kGarbage);
    EXPECT_EQ(readMisbehaviour("huge").kind, Kind::kHuge);
    EXPECT_EQ(readMisbehaviour("huge=4096").size, 4096u);
    EXPECT_EQ(readMisbehaviour("code=-505").kind, Kind::kServerCode);
    EXPECT_EQ(readMisbehaviour("code=-505").code, -505);
    EXPECT_EQ(readMisbehaviour("close").kind, Kind::kClose);
}

TEST(ReadMisbehaviour, TakesParticularsInAnyOrder) {
    const Misbehaviour misbehaviour = readMisbehaviour("status=503,interface=add_relay_stream_url,delay=10,count=0");
    EXPECT_EQ(misbehaviour.kind, Kind::kStatus);
    EXPECT_EQ(misbehaviour.interfaceName, "add_relay_stream_url");
    EXPECT_EQ(misbehaviour.delayMs, 10);
    EXPECT_EQ(misbehaviour.times, 0);
    EXPECT_EQ(readMisbehaviour("code=1,message=a = b").message, "a = b");
}

TEST(ReadMisbehaviour, HappensOnceIfNoCountIsGiven) {
    EXPECT_EQ(readMisbehaviour("empty").times, 1);
}

TEST(ReadMisbehaviour, SaysWhatItCannotRead) {
    const auto errorOf = [](const char* text) -> std::string {
        try {
            readMisbehaviour(text);
            return "";
        } catch (const UsageError& error) {
            return error.what();
        }
    };
    EXPECT_THAT(errorOf(""), ::testing::HasSubstr("is none of delay, status"));
    EXPECT_THAT(errorOf("statsu=1"), ::testing::HasSubstr("did you mean status?"));
    EXPECT_EQ(errorOf("status=many"), "--misbehave: status is \"many\": must be a 32-bit integer");
    EXPECT_EQ(errorOf("empty=1"), "--misbehave: empty takes no value");
    EXPECT_THAT(errorOf("empty,cuont=1"), ::testing::HasSubstr("did you mean count?"));
}

}  // namespace
