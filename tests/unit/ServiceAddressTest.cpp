// CTest runs this program once for each environment. The arguments are the expected addresses.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "base/ServiceAddress.h"

namespace {

std::string expectedService;
std::string expectedDomain;

// Queried before main(), because the adapter does that as well.
const std::string serviceAtStart = kstf_get_live_service_host();

TEST(ServiceAddressTest, TheServiceIsKnownDuringStaticInitialisation) {
    EXPECT_EQ(serviceAtStart, expectedService);
}

TEST(ServiceAddressTest, TheAddressesAreTheExpectedOnesAndTheEnvironmentIsReadOnce) {
    const char* service = kstf_get_live_service_host();
    const char* domain = kstf_get_push_domain_suffix();

    ASSERT_EQ(setenv("VEXALIVE_SERVICE_HOST", "changed.test", 1), 0);
    ASSERT_EQ(setenv("VEXALIVE_PUSH_DOMAIN", "push.changed.test", 1), 0);

    EXPECT_EQ(kstf_get_live_service_host(), service) << "the pointer stays valid";
    EXPECT_EQ(kstf_get_push_domain_suffix(), domain);
    EXPECT_EQ(kstf_get_live_service_host(), expectedService);
    EXPECT_EQ(kstf_get_push_domain_suffix(), expectedDomain);
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc != 3) {
        return 2;
    }
    expectedService = argv[1];
    expectedDomain = argv[2];
    return RUN_ALL_TESTS();
}
