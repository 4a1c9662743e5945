#include "packages/GetPackagelistCommand.h"
#include "packages/StartPackageOperationCommand.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Result;

Result Ask(BaseCommandHandler& handler, const std::string& command, const std::string& payload, bool& pending)
{
    Message message;
    message.guid = "G-1";
    message.notification.command = command;
    message.notification.payload = payload;
    ClientRequest request;
    request.setMessage(message);
    return handler.GetResponse(request, pending);
}

// A policy of thousands of packages: the list holds them all and an operation finds the last,
// handed over once.
TEST(StartPackageOperationCommandTest, ThousandsOfPackagesAreListedAndTheLastIsFound)
{
    VEQ::Test::TempRoot root;
    Json::Value document;
    Json::Value& packages = document["update_policy"]["packages"];
    for (int i = 0; i < 5000; ++i) {
        Json::Value package;
        package["packageId"] = "P" + std::to_string(i);
        package["packageVersion"] = "1." + std::to_string(i);
        packages.append(package);
    }
    const Json::Value previous = ConfigPolicyAgent::GetInstance()->GetPolicyDocument();
    ConfigPolicyAgent::GetInstance()->SetPolicyDocument(document);
    std::vector<std::wstring> handedOver;
    auto* bus = VEQPublisherSubscriber::GetInstance();
    const std::wstring subscription = bus->Subscribe(
        [&](VEQNotificationData& data) {
            if (data.getTopicId() == 5 && data.getEventState() == 49) {
                handedOver.push_back(data.getPayload());
            }
        },
        false);

    Log log;
    bool pending = false;
    GetPackagelistCommand list(log);
    Json::Value listed;
    Json::Reader().parse(Ask(list, "Get-PackageList", "{}", pending).message.notification.payload, listed);
    EXPECT_EQ(listed["packages"].size(), 5000u);

    StartPackageOperationCommand operation(log, "x");
    const std::string request = R"({"requestId":"1","packageId":"p4999","operationType":"install"})";
    const Result result = Ask(operation, "start-packageoperation", request, pending);
    EXPECT_TRUE(result.isSuccess);
    EXPECT_TRUE(pending);
    EXPECT_EQ(result.message.notification.payload, R"({"packageId":"p4999","requestId":"1","result":"OTA_pending"})");
    EXPECT_EQ(handedOver, std::vector<std::wstring>{std::wstring(request.begin(), request.end())});

    bus->Unsubscribe(subscription);
    ConfigPolicyAgent::GetInstance()->SetPolicyDocument(previous);
}

}  // namespace
}  // namespace VEQ
