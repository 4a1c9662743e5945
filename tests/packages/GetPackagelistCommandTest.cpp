#include "packages/GetPackagelistCommand.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

namespace VEQ {
namespace {

class GetPackagelistCommandTest : public ::testing::Test {
protected:
    GetPackagelistCommandTest()
    {
        Json::Value document;
        Json::Reader().parse(R"({"update_policy":{"packages":[
            {"packageId":"P1","packageName":"Caf\u00e9 Tools","tags":{"Ring":"fast","Region":"\u00c9ire"}},
            {"packageId":"P2","packageName":"Other","tags":{"ring":"slow"}},
            {"packageId":"P3","packageName":"Untagged"}]}})",
                             document);
        previous_ = ConfigPolicyAgent::GetInstance()->GetPolicyDocument();
        ConfigPolicyAgent::GetInstance()->SetPolicyDocument(document);
    }
    ~GetPackagelistCommandTest() override { ConfigPolicyAgent::GetInstance()->SetPolicyDocument(previous_); }

    Tavrin::Veq::ClientBroker::Result Ask(const std::string& payload, const std::string& command = "Get-PackageList")
    {
        Tavrin::Veq::ClientBroker::Message message;
        message.guid = "G-9";
        message.notification.command = command;
        message.notification.payload = payload;
        ClientRequest request;
        request.setMessage(message);
        bool pending = false;
        return command_.GetResponse(request, pending);
    }
    std::vector<std::string> Ids(const Tavrin::Veq::ClientBroker::Result& result)
    {
        Json::Value reply;
        Json::Reader().parse(result.message.notification.payload, reply);
        std::vector<std::string> ids;
        for (const Json::Value& package : reply["packages"]) {
            ids.push_back(package["packageId"].asString());
        }
        return ids;
    }

    VEQ::Test::TempRoot root_;
    Json::Value previous_;
    Log log_;
    GetPackagelistCommand command_{log_};
};

TEST_F(GetPackagelistCommandTest, TagsNarrowTheListAndBadTagsMeanNone)
{
    struct Row {
        const char* payload;
        std::vector<std::string> ids;
    };
    const std::vector<Row> rows = {
        {"", {"P1", "P2", "P3"}},
        {"not json", {"P1", "P2", "P3"}},
        {R"({"additionalTags":"ring"})", {"P1", "P2", "P3"}},
        {R"({"additionalTags":{"RING":"fast"}})", {"P1"}},
        {R"({"additionalTags":{"ring":"fast","region":"\u00c9ire"}})", {"P1"}},
        {R"({"additionalTags":{"ring":"FAST"}})", {}},  // values compare exactly
        // A value that is no scalar ends the tags there: only "a" (no package has it) was read.
        {R"({"additionalTags":{"a":"1","b":[1],"ring":"slow"}})", {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.payload);
        const auto result = Ask(row.payload);
        EXPECT_TRUE(result.isSuccess);
        EXPECT_EQ(result.message.guid, "G-9");
        EXPECT_EQ(result.message.notification.command, "Receive-PackageList");
        EXPECT_EQ(Ids(result), row.ids);
    }
}

TEST_F(GetPackagelistCommandTest, NonAsciiTextStaysUnescapedAndScalarsBecomeText)
{
    const auto result = Ask("{}");
    EXPECT_NE(result.message.notification.payload.find("Caf\xC3\xA9 Tools"), std::string::npos)
        << result.message.notification.payload;
    EXPECT_EQ(result.message.notification.payload.find("\\u"), std::string::npos);

    const auto tags = GetPackagelistCommand::ParseAdditionalTags(R"({"additionalTags":{"n":3,"b":true,"s":"\u00e9"}})",
                                                                 nullptr);
    ASSERT_EQ(tags.size(), 3u);
    EXPECT_EQ(tags[0].key, L"b");
    EXPECT_EQ(tags[0].value, L"true");
    EXPECT_EQ(tags[1].value, L"3");
    EXPECT_EQ(tags[2].value, L"\u00e9");

    const auto refused = Ask("{}", "Get-Packagelist");
    EXPECT_FALSE(refused.isSuccess);
    EXPECT_EQ(refused.message.statusText, "Command not Supported");
}

}  // namespace
}  // namespace VEQ
