// A real broker on its socket, driven by the client side over ZeroMQ.

#include "platform/fs/FileSystem.h"
#include "platform/transport/ClientConnection.h"
#include "platform/transport/SocketFile.h"
#include "platform/transport/ZmqServerEndpoint.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileStatus.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestBroker.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include <sys/stat.h>

namespace VEQ {
namespace {

using VEQ::Test::Exists;
using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Result;
using Tavrin::Veq::ClientBroker::SocketFile;
using VEQ::Test::Eventually;
using VEQ::Test::TestBroker;

Message Request(const std::string& guid, const std::string& command, const std::string& targetId = "")
{
    Message message;
    message.guid = guid;
    message.notification.command = command;
    message.notification.payload = R"({"n":1})";
    message.notification.targetId = targetId;
    return message;
}

class BrokerServerTest : public ::testing::Test {
protected:
    std::unique_ptr<TestBroker> StartBroker(ElevationType side, const std::string& id = "app-1")
    {
        auto broker = std::make_unique<TestBroker>(VEQ::Test::MakeBrokerContext(side), VEQ::Test::MakeClientContext(id));
        broker->AddHandler(new VEQ::Test::EchoHandler("Echo", echoCalls_));
        broker->StartServer();
        return broker;
    }

    void Connect(TestBroker& broker)
    {
        ASSERT_TRUE(client_.Connect(broker.SocketPath(), 5s)) << client_.LastError();
    }

    VEQ::Test::TempRoot root_;
    std::shared_ptr<std::atomic<int>> echoCalls_ = std::make_shared<std::atomic<int>>(0);
    ClientConnection client_;
};

TEST_F(BrokerServerTest, RepliesCarryTheGuidOfTheirRequest)
{
    auto broker = StartBroker(ElevationType::Elevated);
    Connect(*broker);
    for (const char* target : {"", "VEQ"}) {
        const std::string guid = std::string("guid-") + target;
        auto result = client_.Send(Request(guid, "Echo", target), 5s);
        ASSERT_TRUE(result) << "target '" << target << "'";
        EXPECT_TRUE(result->isSuccess);
        EXPECT_EQ(result->message.guid, guid);
        EXPECT_EQ(result->message.notification.command, "Receive-Echo");
        EXPECT_EQ(result->message.notification.payload, R"({"n":1})");
    }
    EXPECT_EQ(*echoCalls_, 2);
}

TEST_F(BrokerServerTest, AnUnknownCommandGets17001AndTheBrokerGoesOnServing)
{
    auto broker = StartBroker(ElevationType::User);
    Connect(*broker);
    for (const char* command : {"Nope", "echo", "close-connection", "Close-Connection "}) {
        auto result = client_.Send(Request(command, command), 5s);
        ASSERT_TRUE(result) << command;
        EXPECT_FALSE(result->isSuccess) << command;
        EXPECT_EQ(result->message.guid, command);
        EXPECT_EQ(result->message.statusCode, 17001) << command;
        EXPECT_EQ(result->message.statusText, "Command not supported");
        EXPECT_EQ(result->message.statusSource, "ExtensionBroker");
    }
    auto result = client_.Send(Request("after", "Echo"), 5s);
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->isSuccess);
}

TEST_F(BrokerServerTest, AMessageForAnotherTargetIsNotRunLocallyAndFailsClearly)
{
    auto broker = StartBroker(ElevationType::Elevated);
    Connect(*broker);
    for (const char* target : {"veq", "other-app"}) {
        Message message = Request("routed", "Echo", target);
        message.notification.targetName = "Other";
        auto result = client_.Send(message, 5s);
        ASSERT_TRUE(result) << target;
        EXPECT_FALSE(result->isSuccess);
        EXPECT_EQ(result->message.statusCode, 17002);
        EXPECT_EQ(result->message.statusText, std::string("The target with targetId:") + target +
                                                  " targetName:Other was not found in the list of installed "
                                                  "plugins or running apps");
    }
    EXPECT_EQ(*echoCalls_, 0);
}

TEST_F(BrokerServerTest, AHandlerSlowerThanTheWaitGets17002AndItsLateResultIsNeverSent)
{
    std::promise<void> release;
    auto finished = std::make_shared<std::promise<void>>();
    auto broker = StartBroker(ElevationType::Elevated);
    broker->AddHandler(new VEQ::Test::BlockingHandler("Slow", release.get_future().share(), finished));
    Connect(*broker);

    auto result = client_.Send(Request("slow", "Slow"), 70s);
    ASSERT_TRUE(result);
    EXPECT_FALSE(result->isSuccess);
    EXPECT_EQ(result->message.guid, "slow");
    EXPECT_EQ(result->message.statusCode, 17002);
    EXPECT_EQ(result->message.statusText, "Request could not be completed within one minute");

    release.set_value();
    finished->get_future().wait();
    // The next frame on the socket is the answer to the next request, not the late one.
    ASSERT_TRUE(client_.SendRaw({R"({"guid":"next","notification":{"command":"Echo"}})"}));
    auto next = client_.ReceiveRaw(5s);
    ASSERT_TRUE(next);
    EXPECT_NE(next->find("\"next\""), std::string::npos) << *next;
}

TEST_F(BrokerServerTest, CloseConnectionGetsNoReplyAndEndsServingUntilSuspended)
{
    auto broker = StartBroker(ElevationType::User);
    Connect(*broker);
    const std::string path = broker->SocketPath();
    ASSERT_TRUE(client_.SendRaw({R"({"guid":"bye","notification":{"command":"Close-Connection"}})"}));
    ASSERT_TRUE(Eventually([&] { return broker->IsSuspending(); }));
    EXPECT_FALSE(client_.Send(Request("late", "Echo"), 300ms)) << "a closed broker answered";
    EXPECT_EQ(*echoCalls_, 0);

    // The files stay until the owner suspends the broker, refusing new clients; then nothing is left.
    ASSERT_TRUE(Eventually([&] { return SocketFile::Probe(path) == ECONNREFUSED; }));
    EXPECT_EQ(SocketFile::Probe(path + "_notify"), ECONNREFUSED);
    broker->SuspendServer();
    EXPECT_TRUE(std::filesystem::is_empty(std::filesystem::path(path).parent_path()));
}

TEST_F(BrokerServerTest, SuspendRemovesBothFilesIsHarmlessTwiceAndIsFinal)
{
    auto broker = StartBroker(ElevationType::Elevated);
    Connect(*broker);
    ASSERT_TRUE(client_.Send(Request("one", "Echo"), 5s));
    const std::string path = broker->SocketPath();
    ASSERT_TRUE(Exists(path));
    ASSERT_TRUE(Exists(path + "_notify"));

    broker->SuspendServer();
    EXPECT_FALSE(Exists(path));
    EXPECT_FALSE(Exists(path + "_notify"));
    broker->SuspendServer();
    broker->StartServer();
    EXPECT_EQ(broker->SocketPath(), path) << "a suspended broker started again";
    EXPECT_FALSE(Exists(path));
}

TEST_F(BrokerServerTest, AClientConnectsAtOnceAndStartingTwiceKeepsOneSocket)
{
    auto broker = StartBroker(ElevationType::User);
    const std::string first = broker->SocketPath();
    ClientConnection early;
    ASSERT_TRUE(early.Connect(first, 5s)) << "a path handed out while its endpoint binds: " << early.LastError();
    EXPECT_TRUE(early.Send(Request("early", "Echo"), 5s));
    broker->StartServer();
    EXPECT_EQ(broker->SocketPath(), first);
    Connect(*broker);
    EXPECT_TRUE(client_.Send(Request("one", "Echo"), 5s));
}

TEST_F(BrokerServerTest, AnEscapingHandlerExceptionEndsOnlyThatBrokersWorker)
{
    auto failing = StartBroker(ElevationType::Elevated, "failing");
    failing->AddHandler(new VEQ::Test::ThrowingHandler("Boom"));
    auto healthy = StartBroker(ElevationType::Elevated, "healthy");
    Connect(*failing);
    EXPECT_FALSE(client_.Send(Request("boom", "Boom"), 500ms));
    EXPECT_FALSE(client_.Send(Request("after", "Echo"), 300ms));
    EXPECT_FALSE(failing->IsSuspending());

    ClientConnection other;
    ASSERT_TRUE(other.Connect(healthy->SocketPath(), 5s)) << other.LastError();
    EXPECT_TRUE(other.Send(Request("ok", "Echo"), 5s));
    const std::string path = failing->SocketPath();
    failing->SuspendServer();
    EXPECT_FALSE(Exists(path));
}

TEST_F(BrokerServerTest, EachClientLogsToItsOwnFileInsideTheLogFolder)
{
    auto broker = StartBroker(ElevationType::User, "../../escape/id");
    Connect(*broker);
    ASSERT_TRUE(client_.Send(Request("one", "Echo"), 5s));
    broker.reset();
    EXPECT_TRUE(Exists(root_.BelowUtf8("log/BaseClientBroker.._.._escape_id.log")));
    EXPECT_FALSE(Exists(root_.BelowUtf8("escape")));
}

// Fails the first wait that receives a message, as a broken transport would.
class FailingOnceEndpoint : public Tavrin::Veq::ClientBroker::ZmqServerEndpoint {
public:
    explicit FailingOnceEndpoint(std::atomic<bool>& failed) : failed_(failed) {}
    Result Wait(uint32_t timeoutMs) override
    {
        Result received = ZmqServerEndpoint::Wait(timeoutMs);
        if (!received.message.notification.command.empty() && !failed_.exchange(true)) {
            Result failure;
            failure.message.statusCode = kWaitFailed;
            return failure;
        }
        return received;
    }

private:
    std::atomic<bool>& failed_;
};

TEST(BrokerTransportFailure, AFailedWaitRestartsTheEndpointOnTheSamePathAndIsAnsweredWith17001)
{
    std::atomic<bool> failed{false};
    std::atomic<int> endpoints{0};
    PlatformServices services;
    services.endpointFactory = [&](const std::string&) -> Tavrin::Veq::ClientBroker::INotificationBase* {
        ++endpoints;
        return new FailingOnceEndpoint(failed);
    };
    VEQ::Test::TempRoot root(services);
    auto broker = std::make_unique<TestBroker>(VEQ::Test::MakeBrokerContext(ElevationType::User),
                                               VEQ::Test::MakeClientContext("restart"));
    broker->AddHandler(new VEQ::Test::EchoHandler("Echo"));
    broker->StartServer();
    const std::string path = broker->SocketPath();

    ClientConnection client;
    ASSERT_TRUE(client.Connect(path, 5s)) << client.LastError();
    auto answer = client.Send(Request("lost", "Echo"), 10s);
    ASSERT_TRUE(answer) << "the failed request was not answered";
    EXPECT_EQ(answer->message.statusCode, 17001);
    EXPECT_TRUE(failed);
    EXPECT_EQ(endpoints, 2);
    EXPECT_EQ(broker->SocketPath(), path);

    auto next = client.Send(Request("next", "Echo"), 10s);
    ASSERT_TRUE(next);
    EXPECT_TRUE(next->isSuccess);
    EXPECT_EQ(next->message.guid, "next");
}

TEST_F(BrokerServerTest, AUserSideSocketIsOpenToEveryUserAndAnElevatedOneIsNot)
{
    if (!VEQ::Test::ChildProcess::IsRoot()) {
        GTEST_SKIP() << "needs root to run a client as another user";
    }
    auto user = StartBroker(ElevationType::User, "user-app");
    auto elevated = StartBroker(ElevationType::Elevated, "elevated-app");
    const auto program = VEQ::Test::ChildProcess::TestProgram("veq_test_client");

    auto reached = VEQ::Test::ChildProcess::RunAsNobody({program, user->SocketPath(), "Echo"});
    EXPECT_EQ(reached.exitCode, 0) << reached.output;
    EXPECT_NE(reached.output.find("\"Receive-Echo\""), std::string::npos) << reached.output;

    auto refused = VEQ::Test::ChildProcess::RunAsNobody({program, elevated->SocketPath(), "Echo"});
    EXPECT_EQ(refused.exitCode, 3) << refused.output;
    EXPECT_NE(refused.output.find("permission denied"), std::string::npos) << refused.output;
    EXPECT_EQ(*echoCalls_, 1);

    // Root itself reaches both.
    auto asRoot = VEQ::Test::ChildProcess::Run({program, elevated->SocketPath(), "Echo"});
    EXPECT_EQ(asRoot.exitCode, 0) << asRoot.output;
}

}  // namespace
}  // namespace VEQ
