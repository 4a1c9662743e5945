#include "platform/transport/PeerCredentials.h"

#include <gtest/gtest.h>

namespace {

using Tavrin::Veq::ClientBroker::PeerCredentials;

TEST(PeerCredentialsTest, ReadsZeroMqsPeerAddressOfALocalConnectionAndNothingElse)
{
    const auto local = PeerCredentials::FromPeerAddress("localhost:1000:100:4242");
    ASSERT_TRUE(local);
    EXPECT_EQ(local->userId, 1000u);
    EXPECT_EQ(local->groupId, 100u);
    EXPECT_EQ(local->processId, 4242u);
    // The host part may hold colons of its own: the figures are the last three fields.
    const auto odd = PeerCredentials::FromPeerAddress("a:b::0:0:7");
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->processId, 7u);
    for (const char* refused : {"", "127.0.0.1", "localhost:0:0", "localhost:0:0:", "localhost:0:0:x",
                                "localhost:0:0:12x", "localhost:0:0:0", "localhost:0:0:99999999999",
                                "localhost:-1:0:5"}) {
        EXPECT_FALSE(PeerCredentials::FromPeerAddress(refused)) << refused;
    }
}

}  // namespace
