#include "daemon/HostConfig.h"

#include <gtest/gtest.h>

namespace VEQ {
namespace {

TEST(HostConfigTest, ReadsThePluginAndTrustMembers)
{
    std::string error;
    const auto config = HostConfig::Parse(R"({
        "developer": {"skipHostSignatureCheck": true, "skipPluginSignatureCheck": true, "disableSecurity": true},
        "paths": {"systemRoot": "/opt/veq", "commonDataRoot": "/srv/veq"},
        "trust": {"caFile": "/etc/veq/ca.pem"},
        "plugins": {"hostRuntimeRelease": 528039, "processorArchitecture": 12},
        "sessions": {"source": "file", "file": "/run/veq/session.json"}})",
                                          error);
    ASSERT_TRUE(config) << error;
    EXPECT_TRUE(config->skipHostSignatureCheck);
    EXPECT_TRUE(config->skipPluginSignatureCheck);
    EXPECT_TRUE(config->disableSecurity);
    EXPECT_EQ(config->systemRoot, "/opt/veq");
    EXPECT_EQ(config->commonDataRoot, "/srv/veq");
    EXPECT_EQ(config->trustCaFile, "/etc/veq/ca.pem");
    EXPECT_EQ(config->hostRuntimeRelease, 528039u);
    EXPECT_EQ(config->processorArchitecture, 12);
    EXPECT_EQ(config->sessionSource, "file");
    EXPECT_EQ(config->sessionFile, "/run/veq/session.json");
}

TEST(HostConfigTest, DefaultsCheckEverySignature)
{
    std::string error;
    const auto config = HostConfig::Parse("{}", error);
    ASSERT_TRUE(config) << error;
    EXPECT_FALSE(config->skipHostSignatureCheck || config->skipPluginSignatureCheck || config->disableSecurity ||
                 config->skipSignedContentCheck);
    EXPECT_EQ(config->hostRuntimeRelease, 533320u);
    EXPECT_EQ(config->processorArchitecture, -1);
}

TEST(HostConfigTest, RefusesMembersOfTheWrongKindNamingThem)
{
    const std::pair<const char*, const char*> rows[] = {
        {R"({"paths": {"systemRoot": "relative/dir"}})", "systemRoot"},
        {R"({"trust": {"caFile": 7}})", "caFile"},
        {R"({"trust": "ca.pem"})", "trust"},
        {R"({"plugins": {"hostRuntimeRelease": -1}})", "hostRuntimeRelease"},
        {R"({"plugins": {"processorArchitecture": "arm64"}})", "processorArchitecture"},
        {R"({"developer": {"disableSecurity": "yes"}})", "disableSecurity"},
        {R"({"sessions": {"source": "utmp"}})", "source"},
        {R"({"sessions": {"source": "file"}})", "file"},
    };
    for (const auto& [text, member] : rows) {
        std::string error;
        EXPECT_FALSE(HostConfig::Parse(text, error)) << text;
        EXPECT_NE(error.find(member), std::string::npos) << text << " gave: " << error;
    }
}

}  // namespace
}  // namespace VEQ
