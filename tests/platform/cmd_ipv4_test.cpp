// IPv4 arithmetic.
#include "host/cmd/ipv4.h"

#include <gtest/gtest.h>

namespace {

TEST(Ipv4, SubnetsByNetmask) {
    const auto net = conf::subnet_of("192.0.2.77", "255.255.255.0");
    ASSERT_TRUE(net);
    EXPECT_EQ(conf::to_text(net->first), "192.0.2.0");
    EXPECT_EQ(conf::to_text(net->last), "192.0.2.255");
    EXPECT_TRUE(conf::subnet_of("192.0.2.77", "255.255.255.255"));
    for (const char *mask : {"255.0.255.0", "0.0.0.255", "255.255.255", "24", ""})
        EXPECT_FALSE(conf::subnet_of("192.0.2.77", mask)) << mask;
    EXPECT_FALSE(conf::subnet_of("192.0.2", "255.255.255.0"));
}

TEST(Ipv4, SubnetsByPrefixLength) {
    const auto all = conf::to_subnet("10.0.0.0/0");
    ASSERT_TRUE(all);
    EXPECT_EQ(conf::to_text(all->first), "0.0.0.0");
    EXPECT_EQ(conf::to_text(all->last), "255.255.255.255");
    const auto one = conf::to_subnet("10.0.0.1/32");
    ASSERT_TRUE(one);
    EXPECT_EQ(one->first, one->last);
    for (const char *text :
         {"10.0.0.0", "10.0.0.0/33", "10.0.0.0/", "10.0.0.0/8x", "10.0.0.0/-1", "/8", "10.0.0/8"})
        EXPECT_FALSE(conf::to_subnet(text)) << text;
}

TEST(Ipv4, SubnetsOverlapWhenTheyShareAnAddress) {
    const auto net = *conf::to_subnet("10.1.0.0/16");
    EXPECT_TRUE(net.overlaps(*conf::to_subnet("10.0.0.0/8")));
    EXPECT_TRUE(net.overlaps(*conf::to_subnet("10.1.255.255/32")));
    EXPECT_FALSE(net.overlaps(*conf::to_subnet("10.2.0.0/16")));
    EXPECT_TRUE(net.contains(*conf::to_ipv4("10.1.0.0")));
    EXPECT_FALSE(net.contains(*conf::to_ipv4("10.2.0.0")));
}

} // namespace
