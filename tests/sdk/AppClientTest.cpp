// The app SDK against a real operator of a side on a temporary root, and against stand-ins for
// the service's failures: discovery, handshake, commands, pushes, requests, refusal, absence and
// reconnection after a restart.

#include "sdk/AppClient.h"

#include "apps/AppExtensionOperator.h"
#include "apps/GlobalSocketIds.h"
#include "platform/registry/CRegUtil.h"
#include "platform/transport/ClientConnection.h"
#include "platform/transport/WireCodec.h"
#include "tests/sdk/FakeEndpoint.h"
#include "tests/support/OperatorFixture.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <unistd.h>

namespace Veq::Sdk {
namespace {

using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::WireCodec;
using VEQ::ElevationType;
using VEQ::Test::FakeEndpoint;
using Message = AppClient::Message;
using Notification = AppClient::Notification;
using Result = AppClient::Result;

// One side of the service, as far as apps see it: a published global socket and its operator.
class ServiceSide {
public:
    explicit ServiceSide(ElevationType side) : side_(side) { Start(); }
    ~ServiceSide() { Stop(); }

    // Publishes a new global socket id, as the service does at every start, and serves it.
    void Start()
    {
        globalPath_ = VEQ::Test::PublishGlobalSocket(side_);
        VEQ::BrokerContext context;
        context.setConnectionMethod(VEQ::ConnectionMethod::LocalSocket);
        context.setElevationType(side_);
        context.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::App);
        operator_ = std::make_unique<VEQ::AppExtensionOperator>(context);
        operator_->Start();
    }
    // Stops the side: its apps are told "StopAppExtension" and their brokers go.
    void Stop()
    {
        if (operator_ && operator_->GetState() != VEQ::OperatorState::Stopped) {
            operator_->Suspend();
        }
        operator_.reset();
    }
    VEQ::AppExtensionOperator& Operator() { return *operator_; }
    const std::string& GlobalPath() const { return globalPath_; }

private:
    const ElevationType side_;
    std::string globalPath_;
    std::unique_ptr<VEQ::AppExtensionOperator> operator_;
};

AppClientOptions OptionsFor(const VEQ::Test::TempRoot& root, Side side = Side::User, const std::string& id = "sdk.app")
{
    AppClientOptions options;
    options.dataRoot = root.PathUtf8();
    options.side = side;
    options.extensionId = id;
    options.extensionName = "SDK App";
    options.extensionVersion = "2.5";
    options.timeout = 5s;
    return options;
}

bool Mentions(const Error& error, const std::string& text)
{
    return error.Message().find(text) != std::string::npos;
}

Json::Value ParseObject(const std::string& text)
{
    std::string ignored;
    auto value = WireCodec::ParseObject(text, ignored);
    return value ? *value : Json::Value();
}

class AppClientSidesTest : public ::testing::TestWithParam<Side> {};

TEST_P(AppClientSidesTest, FindsTheSideHandshakesAndGetsResultsFromItsBroker)
{
    VEQ::Test::TempRoot root;
    ServiceSide service(GetParam() == Side::User ? ElevationType::User : ElevationType::Elevated);
    AppClient client(OptionsFor(root, GetParam()));
    const Error connected = client.Connect();
    ASSERT_FALSE(connected) << connected.Message();
    EXPECT_TRUE(client.IsConnected());
    EXPECT_EQ(client.GlobalSocketPath(), service.GlobalPath());
    const std::string folder = GetParam() == Side::User ? "/Broker/SharedUser/" : "/Broker/Elevated/";
    EXPECT_EQ(client.BrokerPath().rfind(root.PathUtf8() + folder, 0), 0u) << client.BrokerPath();
    EXPECT_FALSE(client.ServerVersion().empty());

    Message request;
    request.guid = "status-1";
    request.notification.command = "Get-VeqStatus";
    request.notification.payload = "{}";
    Result result;
    const Error sent = client.Send(request, result);
    ASSERT_FALSE(sent) << sent.Message();
    EXPECT_TRUE(result.isSuccess);
    EXPECT_EQ(result.message.guid, "status-1");
    EXPECT_EQ(result.message.notification.command, "Receive-VeqStatus");
    EXPECT_TRUE(ParseObject(result.message.notification.payload).isMember("deviceId"));

    // A request without a guid gets one, or its result could not be told from a late one.
    ASSERT_FALSE(client.Send("Get-VeqStatus", "{}", result));
    EXPECT_FALSE(result.message.guid.empty());
}

INSTANTIATE_TEST_SUITE_P(BothSides, AppClientSidesTest, ::testing::Values(Side::User, Side::Elevated),
                         [](const auto& row) { return row.param == Side::User ? "User" : "Elevated"; });

TEST(AppClientTest, IntroducesItselfWithTheHandshakesFields)
{
    VEQ::Test::TempRoot root;
    FakeEndpoint global(VEQ::Test::PublishGlobalSocket(ElevationType::User),
                        [](const Message& request) { return FakeEndpoint::HandshakeReply(request, ""); });
    AppClient client(OptionsFor(root, Side::User, "sdk.intro"));
    EXPECT_EQ(client.Connect().Code(), ErrorCode::Refused);

    const auto requests = global.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].notification.command, "ConnectTo-Veq");
    EXPECT_FALSE(requests[0].guid.empty());
    const Json::Value introduction = ParseObject(requests[0].notification.payload);
    EXPECT_EQ(introduction["extensionId"].asString(), "sdk.intro");
    EXPECT_EQ(introduction["extensionVersion"].asString(), "2.5");
    EXPECT_EQ(introduction["extensionName"].asString(), "SDK App");
    EXPECT_EQ(introduction["sdkVersion"].asString(), AppClient::SdkVersion());
    EXPECT_EQ(introduction["sdkLanguage"].asString(), "C++");
    ASSERT_TRUE(introduction["clientProcessId"].isInt()) << "the process id must be a JSON integer";
    EXPECT_EQ(introduction["clientProcessId"].asInt(), ::getpid());
}

TEST(AppClientTest, DeliversPushesToItsQueueOrToItsHandler)
{
    VEQ::Test::TempRoot root;
    ServiceSide service(ElevationType::User);
    AppClient client(OptionsFor(root));
    ASSERT_FALSE(client.Connect());

    service.Operator().notifyExtensionAppsAboutConfigChanges({"Receive-DeviceConfig", R"({"configPolicy":"a"})", "", ""});
    auto queued = client.NextPush(5s);
    ASSERT_TRUE(queued) << "the push did not reach the queue";
    EXPECT_EQ(queued->command, "Receive-DeviceConfig");
    EXPECT_EQ(queued->payload, R"({"configPolicy":"a"})");

    std::promise<Notification> handled;
    client.SetPushHandler([&handled](const Notification& push) { handled.set_value(push); });
    service.Operator().notifyExtensionAppsAboutConfigChanges({"Receive-DeviceConfig", R"({"configPolicy":"b"})", "", ""});
    auto future = handled.get_future();
    ASSERT_EQ(future.wait_for(5s), std::future_status::ready) << "the push did not reach the handler";
    EXPECT_EQ(future.get().payload, R"({"configPolicy":"b"})");
    EXPECT_FALSE(client.NextPush(0ms)) << "a handled push was queued as well";
}

TEST(AppClientTest, AnswersTheRequestsThatTheServiceRoutesToIt)
{
    VEQ::Test::TempRoot root;
    ServiceSide service(ElevationType::User);
    AppClient client(OptionsFor(root, Side::User, "sdk.target"));
    ASSERT_FALSE(client.Connect());
    Message routed;
    routed.guid = "routed-1";
    routed.senderId = "other.app";
    routed.notification = {"Do-Something", "{}", "sdk.target", ""};

    struct Row {
        const char* name;
        bool withHandler;
        bool expectedSuccess;
    };
    std::atomic<ErrorCode> codeInsideHandler{ErrorCode::None};
    for (const Row& row : {Row{"with a handler", true, true}, Row{"without a handler", false, false}}) {
        if (row.withHandler) {
            client.SetRequestHandler([&](const Message& request) {
                Result sentFromHandler;
                codeInsideHandler = client.Send("Get-VeqStatus", "{}", sentFromHandler).Code();
                Result reply;
                reply.isSuccess = true;
                reply.message.notification.payload = "did " + request.notification.command;
                return reply;
            });
        } else {
            client.SetRequestHandler(nullptr);
        }
        Message message = routed;
        Result result;
        ASSERT_TRUE(service.Operator().RouteToOldestConnection("sdk.target", message, result, nullptr)) << row.name;
        EXPECT_EQ(result.isSuccess, row.expectedSuccess) << row.name;
        EXPECT_EQ(result.message.guid, "routed-1") << row.name;
        if (row.withHandler) {
            EXPECT_EQ(result.message.notification.payload, "did Do-Something") << row.name;
        }
    }
    EXPECT_EQ(codeInsideHandler.load(), ErrorCode::InvalidCall) << "a call from inside a handler was let through";
}

TEST(AppClientTest, ARefusedHandshakeSaysSoAndWhatToTry)
{
    VEQ::Test::TempRoot root;
    ServiceSide service(ElevationType::User);
    // This process takes every connection the side allows it.
    ClientConnection global;
    ASSERT_TRUE(global.ConnectRequestsOnly(service.GlobalPath(), 5s)) << global.LastError();
    for (int i = 0; i < VEQ::AppExtensionOperator::kMaxConnectionsPerProcess; ++i) {
        Message handshake;
        handshake.guid = "hs-" + std::to_string(i);
        handshake.notification.command = "ConnectTo-Veq";
        handshake.notification.payload = R"({"extensionId":"hog","clientProcessId":)" + std::to_string(::getpid()) + "}";
        auto reply = global.Send(handshake, 5s);
        ASSERT_TRUE(reply) << "handshake " << i;
        ASSERT_NE(ParseObject(reply->message.notification.payload)["callbackConnection"].asString(), "") << i;
    }

    AppClient client(OptionsFor(root));
    const Error error = client.Connect();
    EXPECT_EQ(error.Code(), ErrorCode::Refused) << error.Message();
    EXPECT_TRUE(Mentions(error, "the user side refused")) << error.Message();
    EXPECT_TRUE(Mentions(error, service.GlobalPath())) << error.Message();
    EXPECT_TRUE(Mentions(error, "50 connections")) << error.Message();
    EXPECT_FALSE(client.IsConnected());
}

TEST(AppClientTest, AnAbsentOrBrokenServiceIsReportedWithThePathAndWhatToTry)
{
    struct Row {
        const char* name;
        Side side;
        // Prepares the root; returns a path the message must name ("" for none) and may keep a
        // stand-in alive in holder.
        std::function<std::string(VEQ::Test::TempRoot&, std::unique_ptr<FakeEndpoint>&)> setUp;
        ErrorCode expected;
        std::string mention;
    };
    const std::vector<Row> rows = {
        {"the service never ran with this root", Side::User,
         [](VEQ::Test::TempRoot& root, auto&) { return root.BelowUtf8("registry/machine.db"); },
         ErrorCode::NotPublished, "Start the service"},
        {"the side is not open", Side::Elevated,
         [](VEQ::Test::TempRoot&, auto&) {
             VEQ::Test::PublishGlobalSocket(ElevationType::User);
             return std::string();
         },
         ErrorCode::NotPublished, "afxunix-elevatedsocket"},
        {"published but nobody listens", Side::User,
         [](VEQ::Test::TempRoot&, auto&) { return VEQ::Test::PublishGlobalSocket(ElevationType::User); },
         ErrorCode::Unreachable, "Try again in a moment"},
        {"listens but never answers", Side::User,
         [](VEQ::Test::TempRoot&, std::unique_ptr<FakeEndpoint>& holder) {
             holder = std::make_unique<FakeEndpoint>(VEQ::Test::PublishGlobalSocket(ElevationType::User),
                                                     [](const Message&) { return std::optional<Result>(); });
             return holder->Path();
         },
         ErrorCode::NoHandshakeReply, "\"ConnectTo-Veq\""},
        {"answers without a connection", Side::User,
         [](VEQ::Test::TempRoot&, std::unique_ptr<FakeEndpoint>& holder) {
             holder = std::make_unique<FakeEndpoint>(VEQ::Test::PublishGlobalSocket(ElevationType::User),
                                                     [](const Message& request) {
                                                         return std::optional(FakeEndpoint::Success(request, "{}"));
                                                     });
             return holder->Path();
         },
         ErrorCode::BadReply, "callbackConnection"},
        {"hands out a broker that is not there", Side::User,
         [](VEQ::Test::TempRoot& root, std::unique_ptr<FakeEndpoint>& holder) {
             const std::string missing = root.BelowUtf8("Broker/SharedUser/missing-broker");
             holder = std::make_unique<FakeEndpoint>(VEQ::Test::PublishGlobalSocket(ElevationType::User),
                                                     [missing](const Message& request) {
                                                         return std::optional(FakeEndpoint::HandshakeReply(request, missing));
                                                     });
             return missing;
         },
         ErrorCode::Unreachable, "private broker"},
    };
    for (const Row& row : rows) {
        VEQ::Test::TempRoot root;
        std::unique_ptr<FakeEndpoint> holder;
        const std::string path = row.setUp(root, holder);
        AppClientOptions options = OptionsFor(root, row.side);
        options.timeout = 300ms;
        AppClient client(options);
        const Error error = client.Connect();
        EXPECT_EQ(error.Code(), row.expected) << row.name << ": " << error.Message();
        EXPECT_TRUE(Mentions(error, row.mention)) << row.name << ": " << error.Message();
        EXPECT_TRUE(Mentions(error, std::string("the ") + SideName(row.side) + " side")) << row.name << ": " << error.Message();
        if (!path.empty()) {
            EXPECT_TRUE(Mentions(error, path)) << row.name << ": " << error.Message();
        }
    }
}

// Waits for the stop that a side sends when it goes.
void ExpectStopPush(AppClient& client)
{
    auto push = client.NextPush(5s);
    ASSERT_TRUE(push) << "no push when the side stopped";
    EXPECT_EQ(push->command, "StopAppExtension");
    EXPECT_FALSE(client.IsConnected()) << "the client did not take note of the stop";
}

TEST(AppClientTest, ReconnectsByItselfWhenTheServiceComesBackOnANewSocket)
{
    VEQ::Test::TempRoot root;
    ServiceSide service(ElevationType::User);
    AppClient client(OptionsFor(root));
    ASSERT_FALSE(client.Connect());
    const std::string firstGlobal = client.GlobalSocketPath();
    const std::string firstBroker = client.BrokerPath();

    service.Stop();
    ExpectStopPush(client);
    service.Start();

    Result result;
    const Error error = client.Send("Get-VeqStatus", "{}", result);
    ASSERT_FALSE(error) << error.Message();
    EXPECT_TRUE(result.isSuccess);
    EXPECT_TRUE(client.IsConnected());
    EXPECT_NE(client.GlobalSocketPath(), firstGlobal);
    EXPECT_EQ(client.GlobalSocketPath(), service.GlobalPath());
    EXPECT_NE(client.BrokerPath(), firstBroker);
}

TEST(AppClientTest, WithoutAutoReconnectALostConnectionWaitsForReconnect)
{
    VEQ::Test::TempRoot root;
    ServiceSide service(ElevationType::User);
    AppClientOptions options = OptionsFor(root);
    options.autoReconnect = false;
    AppClient client(options);
    ASSERT_FALSE(client.Connect());
    service.Stop();
    ExpectStopPush(client);
    service.Start();

    Result result;
    const Error lost = client.Send("Get-VeqStatus", "{}", result);
    EXPECT_EQ(lost.Code(), ErrorCode::ConnectionLost) << lost.Message();
    EXPECT_TRUE(Mentions(lost, "StopAppExtension")) << lost.Message();
    EXPECT_TRUE(Mentions(lost, "Reconnect()")) << lost.Message();

    const Error reconnected = client.Reconnect();
    ASSERT_FALSE(reconnected) << reconnected.Message();
    EXPECT_FALSE(client.Send("Get-VeqStatus", "{}", result));
    EXPECT_TRUE(result.isSuccess);
}

TEST(AppClientTest, ReconnectRetriesWhatARestartShowsAndNothingElse)
{
    struct Row {
        const char* name;
        int attempts;
        int serviceBackAfter;  // failed attempts before the side is served again; 0: never
        bool refuse;           // a stand-in refuses instead
        ErrorCode expected;
        std::vector<ErrorCode> observed;
        std::string mention;
    };
    const std::vector<Row> rows = {
        {"back after two failures", 5, 2, false, ErrorCode::None, {ErrorCode::NotPublished, ErrorCode::NotPublished}, ""},
        {"never back", 3, 0, false, ErrorCode::NotPublished,
         {ErrorCode::NotPublished, ErrorCode::NotPublished, ErrorCode::NotPublished}, "gave up after 3 attempts"},
        {"a refusal is final", 5, 0, true, ErrorCode::Refused, {ErrorCode::Refused}, "refused"},
    };
    for (const Row& row : rows) {
        VEQ::Test::TempRoot root;
        ServiceSide service(ElevationType::User);
        AppClientOptions options = OptionsFor(root);
        options.reconnect = {row.attempts, 1ms, 4ms};
        AppClient client(options);
        const Error connected = client.Connect();
        ASSERT_FALSE(connected) << row.name << ": " << connected.Message();
        service.Stop();
        ExpectStopPush(client);
        // The stopped service takes its id back.
        VEQ::CRegUtil::DeleteRegValue(VEQ::HKEY_LOCAL_MACHINE, VEQ::GlobalSocketIds::kBrokerKey,
                                      VEQ::GlobalSocketIds::kUserSocketValue);
        std::unique_ptr<FakeEndpoint> refusing;
        if (row.refuse) {
            refusing = std::make_unique<FakeEndpoint>(VEQ::Test::PublishGlobalSocket(ElevationType::User),
                                                      [](const Message& request) {
                                                          return std::optional(FakeEndpoint::HandshakeReply(request, ""));
                                                      });
        }
        std::vector<ErrorCode> observed;
        client.SetAttemptObserver([&](int attempt, const Error& error) {
            observed.push_back(error.Code());
            if (attempt == row.serviceBackAfter) {
                service.Start();
            }
        });
        const Error error = client.Reconnect();
        EXPECT_EQ(error.Code(), row.expected) << row.name << ": " << error.Message();
        EXPECT_EQ(observed, row.observed) << row.name;
        EXPECT_TRUE(Mentions(error, row.mention)) << row.name << ": " << error.Message();
        EXPECT_EQ(client.IsConnected(), row.expected == ErrorCode::None) << row.name;
    }
}

TEST(AppClientTest, CloseEndsAReconnectThatIsWaitingForTheService)
{
    VEQ::Test::TempRoot root;
    AppClientOptions options = OptionsFor(root);
    options.reconnect = {100, 10s, 10s};
    AppClient client(options);
    std::promise<void> firstFailure;
    std::atomic<int> failures{0};
    client.SetAttemptObserver([&](int, const Error&) {
        if (failures++ == 0) {
            firstFailure.set_value();
        }
    });
    auto reconnect = std::async(std::launch::async, [&] { return client.Reconnect(); });
    ASSERT_EQ(firstFailure.get_future().wait_for(10s), std::future_status::ready);
    // Close waits for the call it ends, so it runs beside the test.
    auto closing = std::async(std::launch::async, [&] { client.Close(); });
    ASSERT_EQ(reconnect.wait_for(5s), std::future_status::ready) << "Close did not end the waiting reconnect";
    closing.get();
    EXPECT_EQ(reconnect.get().Code(), ErrorCode::Closed);
    EXPECT_EQ(failures.load(), 1);
}

TEST(AppClientTest, ABrokerThatIsGoneIsReplacedButABusyOneIsKept)
{
    VEQ::Test::TempRoot root;
    std::mutex mutex;
    std::vector<std::unique_ptr<FakeEndpoint>> brokers;
    std::atomic<bool> silent{false};
    std::atomic<int> handshakes{0};
    const std::string folder = root.BelowUtf8("Broker/SharedUser/");
    FakeEndpoint global(VEQ::Test::PublishGlobalSocket(ElevationType::User), [&](const Message& request) {
        std::lock_guard<std::mutex> lock(mutex);
        const std::string path = folder + "broker-" + std::to_string(++handshakes);
        brokers.push_back(std::make_unique<FakeEndpoint>(path, [&silent](const Message& command) {
            return silent ? std::optional<Result>() : std::optional(FakeEndpoint::Success(command, "done"));
        }));
        return std::optional(FakeEndpoint::HandshakeReply(request, path));
    });
    AppClientOptions options = OptionsFor(root);
    options.timeout = 300ms;
    AppClient client(options);
    Result result;
    ASSERT_FALSE(client.Send("Do-It", "{}", result));

    // Busy: no result in time, but the broker is still there, so the connection stays.
    silent = true;
    Error error = client.Send("Do-It", "{}", result);
    EXPECT_EQ(error.Code(), ErrorCode::NoReply) << error.Message();
    EXPECT_TRUE(Mentions(error, "still there")) << error.Message();
    EXPECT_TRUE(client.IsConnected());
    silent = false;
    ASSERT_FALSE(client.Send("Do-It", "{}", result));
    EXPECT_EQ(handshakes.load(), 1) << "a busy broker was replaced";

    // Gone: the request fails and says so, and the next one gets a new broker.
    {
        std::lock_guard<std::mutex> lock(mutex);
        brokers.back()->Vanish();
    }
    error = client.Send("Do-It", "{}", result);
    EXPECT_EQ(error.Code(), ErrorCode::ConnectionLost) << error.Message();
    EXPECT_TRUE(Mentions(error, "broker-1")) << error.Message();
    EXPECT_FALSE(client.IsConnected());
    error = client.Send("Do-It", "{}", result);
    ASSERT_FALSE(error) << error.Message();
    EXPECT_EQ(result.message.notification.payload, "done");
    EXPECT_EQ(handshakes.load(), 2);
}

}  // namespace
}  // namespace Veq::Sdk
