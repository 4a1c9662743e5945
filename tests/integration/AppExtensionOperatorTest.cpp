// The global socket of a side: handshakes, the per-process limit, supervision of client
// processes, and the first commands, over real sockets.

#include "apps/AppExtensionOperator.h"
#include "platform/transport/ClientConnection.h"
#include "platform/transport/WireCodec.h"
#include "tests/support/BackgroundProcess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileStatus.h"
#include "tests/support/OperatorFixture.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace VEQ {
namespace {

using VEQ::Test::Exists;
using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Result;

// A live process whose pid a test can claim in a handshake, ended on demand.
class Sleeper {
public:
    Sleeper()
    {
        pid_ = ::fork();
        if (pid_ == 0) {
            ::pause();
            ::_exit(0);
        }
    }
    ~Sleeper() { Kill(); }
    pid_t Pid() const { return pid_; }
    void Kill()
    {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
};

std::string Handshaker()
{
    return VEQ::Test::ChildProcess::TestProgram("veq_handshaker");
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

Json::Value ParsePayload(const Result& result)
{
    std::string error;
    auto value = Tavrin::Veq::ClientBroker::WireCodec::ParseObject(result.message.notification.payload, error);
    return value ? *value : Json::Value();
}

class AppExtensionOperatorTest : public ::testing::TestWithParam<ElevationType> {
protected:
    void SetUp() override
    {
        globalPath_ = VEQ::Test::PublishGlobalSocket(GetParam());
        BrokerContext context;
        context.setConnectionMethod(ConnectionMethod::LocalSocket);
        context.setElevationType(GetParam());
        context.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::App);
        operator_ = std::make_unique<AppExtensionOperator>(context);
        operator_->Start();
        ASSERT_TRUE(global_.ConnectRequestsOnly(globalPath_, 5s)) << global_.LastError();
    }

    void TearDown() override
    {
        operator_->Suspend();
        operator_.reset();
    }

    // Sends a handshake; nullopt when no reply came.
    std::optional<Result> Handshake(const std::string& payload, std::chrono::milliseconds timeout = 5s)
    {
        Message message;
        message.guid = "hs-" + std::to_string(++handshakes_);
        message.notification.command = "ConnectTo-Veq";
        message.notification.payload = payload;
        return global_.Send(message, timeout);
    }

    std::string HandshakeFor(pid_t pid, const std::string& id = "app.one")
    {
        return R"({"extensionId":")" + id + R"(","extensionVersion":"2.0","extensionName":"App One",)" +
               R"("sdkVersion":"3.1.4","sdkLanguage":"C++","clientProcessId":)" + std::to_string(pid) + "}";
    }

    // The private socket path of an accepted handshake, or "" when refused.
    std::string Connect(pid_t pid, const std::string& id = "app.one")
    {
        auto reply = Handshake(HandshakeFor(pid, id));
        EXPECT_TRUE(reply);
        return reply ? ParsePayload(*reply)["callbackConnection"].asString() : std::string();
    }

    VEQ::Test::TempRoot root_;
    std::string globalPath_;
    std::unique_ptr<AppExtensionOperator> operator_;
    ClientConnection global_;
    int handshakes_ = 0;
};

TEST_P(AppExtensionOperatorTest, ALiveProcessGetsAPrivateBrokerThatAnswersCommands)
{
    auto reply = Handshake(HandshakeFor(::getpid()));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->message.guid, "hs-1");
    EXPECT_EQ(reply->message.notification.command, "ConnectTo-Veq");
    const Json::Value payload = ParsePayload(*reply);
    EXPECT_EQ(payload["response"].asString(), "accepted");
    EXPECT_EQ(payload["sdkVersion"].asString(), "3.1.4");
    EXPECT_FALSE(payload["serverVersion"].asString().empty());
    const std::string privatePath = payload["callbackConnection"].asString();
    const std::string folder = GetParam() == ElevationType::User ? "/Broker/SharedUser/" : "/Broker/Elevated/";
    EXPECT_EQ(privatePath.rfind(root_.PathUtf8() + folder, 0), 0u) << privatePath;

    ClientConnection app;
    ASSERT_TRUE(app.Connect(privatePath, 5s)) << app.LastError();
    Message status;
    status.guid = "status-1";
    status.notification.command = "Get-VeqStatus";
    auto result = app.Send(status, 5s);
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->isSuccess);
    EXPECT_EQ(result->message.guid, "status-1");
    EXPECT_EQ(result->message.notification.command, "Receive-VeqStatus");
    for (const char* key : {"deviceId", "version", "tenantName", "enterpriseAuthBaseUri", "consumerAuthBaseUri",
                            "apiBaseUri"}) {
        EXPECT_TRUE(ParsePayload(*result).isMember(key)) << key;
    }

    Message tags;
    tags.guid = "tags-1";
    tags.notification.command = "Get-VeqTags";
    result = app.Send(tags, 5s);
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->isSuccess);
    EXPECT_EQ(result->message.notification.command, "Receive-VeqTags");
    EXPECT_EQ(result->message.notification.payload, "null");
}

TEST_P(AppExtensionOperatorTest, HandshakesThatCannotBeServedGetAnEmptyConnection)
{
    int exited = ::fork();
    if (exited == 0) {
        ::_exit(0);
    }
    ::waitpid(exited, nullptr, 0);
    for (const std::string& payload : {std::string("{}"), HandshakeFor(exited), HandshakeFor(0)}) {
        auto reply = Handshake(payload);
        ASSERT_TRUE(reply) << payload;
        const Json::Value answer = ParsePayload(*reply);
        EXPECT_EQ(answer["callbackConnection"].asString(), "") << payload;
        EXPECT_EQ(answer["response"].asString(), "accepted") << payload;
    }
}

TEST_P(AppExtensionOperatorTest, BrokenJsonGetsNoReplyAndTheOperatorKeepsServing)
{
    EXPECT_FALSE(Handshake("{not json", 300ms));
    Message other;
    other.guid = "other";
    other.notification.command = "Get-VeqStatus";
    EXPECT_FALSE(global_.Send(other, 300ms)) << "the global socket answered something else than a handshake";
    EXPECT_FALSE(Connect(::getpid()).empty());
}

TEST_P(AppExtensionOperatorTest, AHandshakeFieldOfTheWrongTypeEndsTheWorkerButNotTheBrokers)
{
    const std::string accepted = Connect(::getpid());
    ASSERT_FALSE(accepted.empty());
    EXPECT_FALSE(Handshake(R"({"clientProcessId":"not a number"})", 300ms));
    EXPECT_FALSE(Handshake(HandshakeFor(::getpid()), 300ms)) << "the worker should have ended";

    ClientConnection app;
    ASSERT_TRUE(app.Connect(accepted, 5s)) << app.LastError();
    Message status;
    status.guid = "still";
    status.notification.command = "Get-VeqStatus";
    EXPECT_TRUE(app.Send(status, 5s)) << "an existing broker stopped serving";

    // Suspend and Start bring the front door back.
    operator_->Suspend();
    operator_->Start();
    global_.Close();
    ASSERT_TRUE(global_.ConnectRequestsOnly(globalPath_, 5s));
    EXPECT_FALSE(Connect(::getpid()).empty());
}

TEST_P(AppExtensionOperatorTest, FiftyLiveConnectionsPerProcessAndEachProcessCountsApart)
{
    VEQ::Test::BackgroundProcess first(
        {Handshaker(), globalPath_, "connect:51", "close-first", "retry-connect", "connect:1", "hold"});
    ASSERT_TRUE(first.Start());
    ASSERT_TRUE(first.WaitForOutput("ready", 30s)) << first.Output();
    const std::vector<std::string> lines = Lines(first.Output());
    ASSERT_EQ(lines.size(), 55u) << first.Output();
    for (size_t i = 0; i < 50; ++i) {
        EXPECT_EQ(lines[i].rfind(root_.PathUtf8(), 0), 0u) << "connection " << i + 1 << ": " << lines[i];
    }
    EXPECT_EQ(lines[50], "refused") << "the 51st connection was accepted";
    EXPECT_EQ(lines[51], "closed");
    EXPECT_NE(lines[52], "refused") << "the slot freed by a closed connection was not given again";
    EXPECT_EQ(lines[53], "refused");

    const auto second = VEQ::Test::ChildProcess::Run({Handshaker(), globalPath_, "connect:1"});
    ASSERT_EQ(second.exitCode, 0) << second.output;
    EXPECT_NE(Lines(second.output).at(0), "refused") << "another process shares the first one's limit";
}

// Nobody can spend another process's connections or talk on its broker.
TEST_P(AppExtensionOperatorTest, AClientSpeaksOnlyForItsOwnProcess)
{
    Sleeper other;
    auto spoofed = Handshake(HandshakeFor(other.Pid()));
    ASSERT_TRUE(spoofed);
    EXPECT_EQ(ParsePayload(*spoofed)["callbackConnection"].asString(), "") << "a claim on a live process of another";

    const std::string ours = Connect(::getpid());
    ASSERT_FALSE(ours.empty());
    const auto claimant =
        VEQ::Test::ChildProcess::Run({Handshaker(), globalPath_, "--claim", std::to_string(::getpid()), "connect:1"});
    ASSERT_EQ(claimant.exitCode, 0) << claimant.output;
    EXPECT_EQ(Lines(claimant.output).at(0), "refused") << "another process claimed the test's pid";

    ::setenv("VEQ_TEST_CLIENT_WAIT_MS", "1500", 1);
    const auto intruder = VEQ::Test::ChildProcess::Run(
        {VEQ::Test::ChildProcess::TestProgram("veq_test_client"), ours, "Get-VeqStatus"});
    ::unsetenv("VEQ_TEST_CLIENT_WAIT_MS");
    // It cannot complete its connection (3) or gets no answer (4).
    EXPECT_TRUE(intruder.exitCode == 3 || intruder.exitCode == 4)
        << "another process was served on this client's broker: " << intruder.output;

    ClientConnection app;
    ASSERT_TRUE(app.Connect(ours, 5s)) << app.LastError();
    Message status;
    status.guid = "own";
    status.notification.command = "Get-VeqStatus";
    EXPECT_TRUE(app.Send(status, 5s)) << "the client's own process was not served";
}

TEST_P(AppExtensionOperatorTest, AClientWhoseProcessEndsLosesItsBrokerAndItsFiles)
{
    VEQ::Test::BackgroundProcess client({Handshaker(), globalPath_, "connect:1", "hold"});
    ASSERT_TRUE(client.Start());
    ASSERT_TRUE(client.WaitForOutput("ready", 10s)) << client.Output();
    const std::string path = Lines(client.Output()).at(0);
    ASSERT_TRUE(Exists(path)) << path;
    client.Kill();
    EXPECT_TRUE(VEQ::Test::Eventually([&] { return !Exists(path) && !Exists(path + "_notify"); }, 5s))
        << "the broker of a dead process is still there";
}

TEST_P(AppExtensionOperatorTest, SuspendTellsEveryAppToStopAndRemovesTheirSockets)
{
    const std::string path = Connect(::getpid());
    ClientConnection app;
    ASSERT_TRUE(app.Connect(path, 5s)) << app.LastError();
    operator_->Suspend();
    EXPECT_EQ(operator_->GetState(), OperatorState::Stopped);
    auto push = app.NextPush(5s);
    ASSERT_TRUE(push);
    EXPECT_EQ(push->command, "StopAppExtension");
    EXPECT_FALSE(Exists(path));
    operator_->Start();
    EXPECT_EQ(operator_->GetState(), OperatorState::Started);
}

TEST_P(AppExtensionOperatorTest, FanOutsReachEveryApp)
{
    std::vector<std::unique_ptr<ClientConnection>> apps;
    for (int i = 0; i < 3; ++i) {
        apps.push_back(std::make_unique<ClientConnection>());
        ASSERT_TRUE(apps.back()->Connect(Connect(::getpid(), "app." + std::to_string(i)), 5s));
    }
    operator_->notifyExtensionAppsAboutConfigChanges({"Receive-DeviceConfig", "{}", "", ""});
    for (auto& app : apps) {
        auto push = app->NextPush(5s);
        ASSERT_TRUE(push);
        EXPECT_EQ(push->command, "Receive-DeviceConfig");
    }
}

TEST_P(AppExtensionOperatorTest, ATargetedMessageGoesToTheOldestConnectionOfTheTargetProcess)
{
    std::vector<std::unique_ptr<ClientConnection>> apps;
    for (int i = 0; i < 2; ++i) {
        apps.push_back(std::make_unique<ClientConnection>());
        const int index = i;
        apps.back()->SetRequestHandler([index](const Message& message) {
            Result reply;
            reply.isSuccess = true;
            reply.message.guid = message.guid;
            reply.message.notification.payload = "from " + std::to_string(index) + " " + message.notification.payload;
            return reply;
        });
        ASSERT_TRUE(apps.back()->Connect(Connect(::getpid(), "target.app"), 5s));
    }
    Message message;
    message.guid = "routed";
    message.senderId = "sender.app";
    message.senderName = "Sender";
    message.notification = {"Do-Something", R"({"x":1})", "TARGET.app", ""};
    Result result;
    ASSERT_TRUE(operator_->RouteToOldestConnection("TARGET.app", message, result, nullptr));
    EXPECT_EQ(result.message.notification.payload,
              R"(from 0 {"sender_id":"sender.app","sender_name":"Sender","x":1})");
    EXPECT_FALSE(operator_->RouteToOldestConnection("nobody", message, result, nullptr));
}

TEST_P(AppExtensionOperatorTest, CommandsOutsideAnAppsVocabularyAreNotSupported)
{
    ClientConnection app;
    ASSERT_TRUE(app.Connect(Connect(::getpid()), 5s)) << app.LastError();
    // "Notify-ZCP" is a plugin's command; a user-side app may not call the back end.
    std::vector<std::string> commands = {"Notify-ZCP", "VerifyCustomSettingsEnabledCommand"};
    if (GetParam() == ElevationType::User) {
        commands.push_back("Invoke-HttpRequest");
    }
    for (const auto& command : commands) {
        Message message;
        message.guid = command;
        message.notification.command = command;
        auto result = app.Send(message, 5s);
        ASSERT_TRUE(result) << command;
        EXPECT_EQ(result->message.statusCode, 17001) << command;
    }
}

INSTANTIATE_TEST_SUITE_P(BothSides, AppExtensionOperatorTest,
                         ::testing::Values(ElevationType::User, ElevationType::Elevated),
                         [](const auto& row) { return row.param == ElevationType::User ? "User" : "Elevated"; });

}  // namespace
}  // namespace VEQ
