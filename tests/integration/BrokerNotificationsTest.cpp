// Pushes and requests from a broker to its client, and the deferred answer to a package
// operation that a package event on the bus completes.

#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/registry/PackageUtils.h"
#include "platform/transport/ClientConnection.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestBroker.h"

#include <gtest/gtest.h>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Result;

// Starts a package operation whose outcome arrives later as an event.
class DeferringHandler : public VEQ::Test::EchoHandler {
public:
    DeferringHandler() : EchoHandler("Start-PackageOperation") {}
    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override
    {
        pendingOperation = true;
        return EchoHandler::GetResponse(request, pendingOperation);
    }
};

void PublishPackageEvent(int state, const std::string& packageId, const std::string& version = "1.0.0")
{
    const std::wstring payload = String::UTF8ToUTF16(
        R"({"packageId":")" + packageId + R"(","packageType":"app","packageName":"Pkg","packageVersion":")" +
        version + R"(","installationTrigger":"user"})");
    VEQNotificationData event(30, state, payload);
    VEQPublisherSubscriber::GetInstance()->Notify(event, L"");
}

class BrokerNotificationsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        broker_ = std::make_unique<VEQ::Test::TestBroker>(VEQ::Test::MakeBrokerContext(ElevationType::User),
                                                     VEQ::Test::MakeClientContext("pkg.app"));
        broker_->AddHandler(new DeferringHandler());
        broker_->AddHandler(new VEQ::Test::EchoHandler("Echo"));
        broker_->StartServer();
        ASSERT_TRUE(client_.Connect(broker_->SocketPath(), 5s)) << client_.LastError();
    }

    void StartOperation(const std::string& payload)
    {
        Message message;
        message.guid = "spo";
        message.notification.command = "Start-PackageOperation";
        message.notification.payload = payload;
        auto result = client_.Send(message, 5s);
        ASSERT_TRUE(result);
        ASSERT_TRUE(result->isSuccess);
    }

    VEQ::Test::TempRoot root_;
    std::unique_ptr<VEQ::Test::TestBroker> broker_;
    ClientConnection client_;
};

TEST_F(BrokerNotificationsTest, TheEventOfThePendingPackageIsAnsweredOnceWithTheRenamedStatus)
{
    StartOperation(R"({"requestId":"r-1","packageId":" abc ","operationType":"install"})");
    PublishPackageEvent(311, "ABC");  // downloading: progress, not reported
    PublishPackageEvent(301, "other");  // another package's failure
    PublishPackageEvent(301, "ABC");
    auto push = client_.NextPush(5s);
    ASSERT_TRUE(push);
    EXPECT_EQ(push->command, "Receive-PackageOperationResult");
    // The reply quotes the request as it was written.
    EXPECT_EQ(push->payload, "{\"packageId\":\" abc \",\"requestId\":\"r-1\",\"result\":\"install_fail\"}\n");

    PublishPackageEvent(300, "ABC");
    EXPECT_FALSE(client_.NextPush(300ms)) << "a second result was pushed for one operation";
}

TEST_F(BrokerNotificationsTest, StatusesAreRenamedAsClientsExpect)
{
    const std::pair<int, const char*> rows[] = {{300, "installed"}, {304, "download_error"}, {301, "install_fail"}};
    for (const auto& [state, expected] : rows) {
        StartOperation(R"({"requestId":"r","packageId":"p1","operationType":"install"})");
        PublishPackageEvent(state, "p1");
        auto push = client_.NextPush(5s);
        ASSERT_TRUE(push) << state;
        EXPECT_NE(push->payload.find(std::string("\"result\":\"") + expected + "\""), std::string::npos)
            << state << ": " << push->payload;
    }
}

TEST_F(BrokerNotificationsTest, AnotherCommandDropsTheWatchAndNothingIsPushedWithoutOne)
{
    PublishPackageEvent(300, "p1");
    StartOperation(R"({"requestId":"r","packageId":"p1"})");
    Message echo;
    echo.guid = "e";
    echo.notification.command = "Echo";
    ASSERT_TRUE(client_.Send(echo, 5s));
    PublishPackageEvent(300, "p1");
    EXPECT_FALSE(client_.NextPush(300ms));
}

TEST_F(BrokerNotificationsTest, AFailedForcedInstallIsCountedInTheRegistry)
{
    PackageUtils counter(L"forced", L"2.0", L"Software\\Tavrin\\VEQ\\PackageStatus", L"FailedInstallRetryCount");
    for (int expected : {1, 2}) {
        StartOperation(R"({"requestId":"r","packageId":"forced","operationType":"forcedInstall"})");
        PublishPackageEvent(301, "forced", "2.0");
        ASSERT_TRUE(client_.NextPush(5s));
        EXPECT_EQ(counter.GetIntValueFromReg(true), expected);
    }
    StartOperation(R"({"requestId":"r","packageId":"forced","operationType":"install"})");
    PublishPackageEvent(301, "forced", "2.0");
    ASSERT_TRUE(client_.NextPush(5s));
    EXPECT_EQ(counter.GetIntValueFromReg(true), 2) << "a plain install failure was counted";
}

TEST_F(BrokerNotificationsTest, AMalformedPendingPayloadCannotTakeTheServiceDown)
{
    StartOperation(R"({"packageId"})");  // a piece naming packageId with nothing after a colon
    PublishPackageEvent(300, "x");
    Message echo;
    echo.guid = "alive";
    echo.notification.command = "Echo";
    EXPECT_TRUE(client_.Send(echo, 5s));
}

TEST_F(BrokerNotificationsTest, ARequestToTheClientCarriesTheSenderInItsPayload)
{
    client_.SetRequestHandler([](const Message& message) {
        Result reply;
        reply.isSuccess = true;
        reply.message.notification.payload = message.notification.payload;
        return reply;
    });
    struct Row {
        std::string senderId;
        std::string payload;
        std::string seen;
    };
    const Row rows[] = {
        {"s.app", R"({"a":1})", R"({"a":1,"sender_id":"s.app","sender_name":"S"})"},
        {"", R"({"a":1})", R"({"a":1,"sender_name":"S"})"},
        {"s.app", "not json", "not json"},
    };
    for (const auto& row : rows) {
        Message message;
        message.senderId = row.senderId;
        message.senderName = "S";
        message.notification.command = "Ask";
        message.notification.payload = row.payload;
        Result reply;
        ASSERT_TRUE(broker_->NotifyAndWaitForResponse(message, reply)) << row.payload;
        EXPECT_EQ(reply.message.notification.payload, row.seen);
    }
}

TEST_F(BrokerNotificationsTest, AnMqttMessageReachesOnlyClientsWhoseIdIsInTheTopic)
{
    VEQNotificationData mine(L"app/pkg.app/updates/notification", L"hello", true);
    VEQNotificationData other(L"app/someone.else/notification", L"no", true);
    broker_->OnVEQNotification(other);
    broker_->OnVEQNotification(mine);
    auto push = client_.NextPush(5s);
    ASSERT_TRUE(push);
    EXPECT_EQ(push->command, "Receive-MqttMessage");
    EXPECT_EQ(push->payload, R"({"message":"hello","relativeTopic":"app/pkg.app/updates/notification"})");
    EXPECT_FALSE(client_.NextPush(200ms));
}

}  // namespace
}  // namespace VEQ
