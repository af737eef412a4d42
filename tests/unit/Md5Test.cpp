#include <gtest/gtest.h>

#include <string>

#include "base/Md5.h"

namespace {

using kstmedia::getMD5;

TEST(Md5Test, DigestsAreThePublishedOnesInLowerCase) {
    EXPECT_EQ(getMD5(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(getMD5("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(getMD5("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(getMD5("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(getMD5("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(getMD5("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    EXPECT_EQ(getMD5("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5Test, EveryByteCountsAZeroByteToo) {
    EXPECT_EQ(getMD5(std::string("a\0b", 3)), "70350f6027bce3713f6b76473084309b");
    EXPECT_EQ(getMD5("\xc3\xa6\xc3\xb8\xc3\xa5"), "93c0abe43cfa5d4f4fbdd46694442182");
}

TEST(Md5Test, ALongStringIsDigestedWhole) {
    EXPECT_EQ(getMD5(std::string(1000000, 'a')), "7707d6ae4e027c70eea2a935c2296f21");
}

}  // namespace
