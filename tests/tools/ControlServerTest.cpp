// The control socket: events put on the bus as asked, bad input answered and kept off the bus,
// and a socket that only the service's own user can reach.

#include "daemon/ControlServer.h"

#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/string/String.h"
#include "platform/transport/ClientConnection.h"
#include "platform/transport/WireCodec.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FileStatus.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>

namespace VEQ {
namespace {

using VEQ::Test::Exists;
using VEQ::Test::ModeOf;
using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Result;
using Tavrin::Veq::ClientBroker::WireCodec;
using VEQ::Test::ChildOutcome;
using VEQ::Test::ChildProcess;

// Everything published on the bus while it lives.
class BusRecorder {
public:
    BusRecorder()
    {
        id_ = VEQPublisherSubscriber::GetInstance()->Subscribe(
            [this](VEQNotificationData& data) {
                std::lock_guard<std::mutex> lock(mutex_);
                events_.push_back(data);
            },
            false);
    }
    ~BusRecorder() { VEQPublisherSubscriber::GetInstance()->Unsubscribe(id_); }
    std::vector<VEQNotificationData> Take()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(events_, {});
    }

private:
    std::wstring id_;
    std::mutex mutex_;
    std::vector<VEQNotificationData> events_;
};

ChildOutcome Veqctl(std::vector<std::string> arguments, bool asNobody = false)
{
    arguments.insert(arguments.begin(), VEQCTL_PROGRAM);
    return asNobody ? ChildProcess::RunAsNobody(arguments) : ChildProcess::Run(arguments);
}

class ControlServerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server_.Start()); }

    Result Request(const std::string& command, const std::string& payload)
    {
        ClientConnection connection;
        EXPECT_TRUE(connection.ConnectRequestsOnly(server_.SocketPath(), 5s)) << connection.LastError();
        Message request;
        request.guid = "control-" + std::to_string(++requests_);
        request.notification.command = command;
        request.notification.payload = payload;
        auto result = connection.Send(request, 5s);
        EXPECT_TRUE(result) << "no answer to " << command;
        EXPECT_TRUE(!result || result->message.guid == request.guid) << "the answer lost the request's guid";
        return result ? *result : Result();
    }

    VEQ::Test::TempRoot root_;
    BusRecorder bus_;
    ControlServer server_;
    int requests_ = 0;
};

TEST_F(ControlServerTest, PutsWellFormedEventsOnTheBusAndAnswersBadOnesWithoutPublishing)
{
    struct Row {
        const char* name;
        std::string payload;
        bool accepted;
        // The event on the bus, when accepted.
        int topicId = 0;
        int state = 0;
        std::wstring eventPayload;
        std::wstring topic;
        bool extension = false;
        std::wstring messageType;
        std::wstring actionType;
        // The refusal's text names this, when refused.
        std::string mention;
    };
    const auto refused = [](const char* name, std::string payload, std::string mention) {
        Row row{name, std::move(payload), false};
        row.mention = std::move(mention);
        return row;
    };
    const std::vector<Row> rows = {
        {"numbered event", R"({"topic":30,"state":300,"payload":"{\"packageId\":\"p\"}","extension":false})", true,
         30, 300, LR"({"packageId":"p"})"},
        {"numbered event without payload", R"({"topic":6,"state":0})", true, 6, 0},
        {"extension event", R"({"extension":true,"mqttTopic":"app/dev/sdk.app/x","payload":"hi"})", true, 0, 0, L"hi",
         L"app/dev/sdk.app/x", true},
        {"message and action types", R"({"topic":2,"state":11,"messageType":"InvokeCommand","actionType":"run"})", true,
         2, 11, L"", L"", false, L"InvokeCommand", L"run"},
        refused("not JSON", "topic=6", "not a JSON object"),
        refused("a JSON array", "[6,0]", "not a JSON object"),
        refused("topic missing", R"({"state":1})", "\"topic\" is required"),
        refused("state missing", R"({"topic":1})", "\"state\" is required"),
        refused("state as text", R"({"topic":1,"state":"1"})", "\"state\" must be an integer"),
        refused("fractional topic", R"({"topic":1.5,"state":1})", "\"topic\" must be an integer"),
        refused("whole topic written as a real", R"({"topic":6.0,"state":0})", "\"topic\" must be an integer"),
        refused("topic beyond 32 bits", R"({"topic":4294967296,"state":1})", "\"topic\" must be an integer"),
        refused("payload as an object", R"({"topic":1,"state":1,"payload":{}})", "\"payload\" must be a string"),
        refused("extension as text", R"({"topic":1,"state":1,"extension":"yes"})", "\"extension\" must be true or false"),
        refused("extension without its topic", R"({"extension":true,"payload":"hi"})", "\"mqttTopic\" is required"),
        refused("action type as a number", R"({"topic":1,"state":1,"actionType":5})", "\"actionType\" must be a string"),
    };
    for (const Row& row : rows) {
        const Result result = Request("Publish-Event", row.payload);
        const auto events = bus_.Take();
        EXPECT_EQ(result.isSuccess, row.accepted) << row.name << ": " << result.message.statusText;
        EXPECT_EQ(result.message.statusSource, "ControlServer") << row.name;
        if (!row.accepted) {
            EXPECT_EQ(result.message.statusCode, 400) << row.name;
            EXPECT_NE(result.message.statusText.find(row.mention), std::string::npos)
                << row.name << ": " << result.message.statusText;
            EXPECT_TRUE(events.empty()) << row.name << ": bad input reached the bus";
            continue;
        }
        EXPECT_EQ(result.message.statusCode, 0) << row.name;
        ASSERT_EQ(events.size(), 1u) << row.name;
        const VEQNotificationData& event = events[0];
        EXPECT_EQ(event.getTopicId(), row.topicId) << row.name;
        EXPECT_EQ(event.getEventState(), row.state) << row.name;
        EXPECT_EQ(event.getPayload(), row.eventPayload) << row.name;
        EXPECT_EQ(event.getTopic(), row.topic) << row.name;
        EXPECT_EQ(event.isExtensionNotification(), row.extension) << row.name;
        EXPECT_EQ(event.getMessageType(), row.messageType) << row.name;
        EXPECT_EQ(event.getActionType(), row.actionType) << row.name;
    }
}

TEST_F(ControlServerTest, AnswersOtherCommandsAsNotSupported)
{
    for (const std::string command : {"Get-VeqStatus", "publish-event", ""}) {
        const Result result = Request(command, R"({"topic":6,"state":0})");
        EXPECT_FALSE(result.isSuccess) << command;
        EXPECT_EQ(result.message.statusCode, -1) << command;
        EXPECT_EQ(result.message.statusText, "Command not Supported") << command;
    }
    EXPECT_TRUE(bus_.Take().empty());
}

TEST_F(ControlServerTest, VeqctlPublishesThroughItAndExitsZero)
{
    const ChildOutcome outcome = Veqctl({"--root", root_.PathUtf8(), "publish", "--topic", "30", "--state", "312",
                                         "--payload", R"({"packageId":"p1","packageVersion":"1.0"})"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.output;
    const auto events = bus_.Take();
    ASSERT_EQ(events.size(), 1u) << outcome.output;
    EXPECT_EQ(events[0].getTopicId(), 30);
    EXPECT_EQ(events[0].getEventState(), 312);
    EXPECT_EQ(events[0].getFieldValue(L"packageId"), L"p1");

    const ChildOutcome extension = Veqctl(
        {"--root", root_.PathUtf8(), "publish", "--extension", "--mqtt-topic", "app/d/sdk.app", "--payload", "hello"});
    EXPECT_EQ(extension.exitCode, 0) << extension.output;
    const auto extensionEvents = bus_.Take();
    ASSERT_EQ(extensionEvents.size(), 1u) << extension.output;
    EXPECT_TRUE(extensionEvents[0].isExtensionNotification());
    EXPECT_EQ(extensionEvents[0].getTopic(), L"app/d/sdk.app");
}

TEST_F(ControlServerTest, VeqctlFieldsSetStringMembersOfAJsonObjectPayloadOrAreUsageErrors)
{
    struct Row {
        const char* name;
        std::vector<std::string> arguments;  // after publish
        int expectedExit;
        // The payload on the bus: JSON compared as a value when fields were given, else as text.
        std::string expectedPayload;
        bool compareAsJson = true;
        // The usage error names this.
        std::string mention;
    };
    const auto usage = [](const char* name, std::vector<std::string> arguments, std::string mention) {
        Row row{name, std::move(arguments), 2, ""};
        row.mention = std::move(mention);
        return row;
    };
    const std::vector<std::string> numbered = {"--topic", "0", "--state", "0"};
    const auto with = [&numbered](std::vector<std::string> more) {
        std::vector<std::string> arguments = numbered;
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    };
    const std::vector<Row> rows = {
        {"an InvokeCommand message from fields alone",
         with({"--message-type", "InvokeCommand", "--action-type", "run", "--field", "command=Get-Status", "--field",
               "targetId=p.one", "--field", "requestId=42", "--field", "message_id=m-1", "--field", "isAsync=true"}),
         0, R"({"command":"Get-Status","targetId":"p.one","requestId":"42","message_id":"m-1","isAsync":"true"})"},
        {"fields added to --payload, a number overwritten as text",
         with({"--payload", R"({"requestId":7,"keep":[1,{"x":null}]})", "--field", "requestId=42", "--field",
               "message_id=m-1"}),
         0, R"({"requestId":"42","keep":[1,{"x":null}],"message_id":"m-1"})"},
        {"the name ends at the first '=', and an empty value stays",
         with({"--field", "query=a=b c", "--field", "empty="}), 0, R"({"query":"a=b c","empty":""})"},
        {"the last of two fields of one name wins", with({"--field", "isAsync=false", "--field", "isAsync=true"}), 0,
         R"({"isAsync":"true"})"},
        {"quotes, backslashes and UTF-8 travel as text", with({"--field", R"(text=say "hi" \ grüß)"}), 0,
         R"({"text":"say \"hi\" \\ grüß"})"},
        {"an extension message from fields",
         {"--extension", "--mqtt-topic", "app/d/sdk.app", "--field", "text=hello"}, 0, R"({"text":"hello"})"},
        {"without fields the payload goes as typed", with({"--payload", "not JSON {"}), 0, "not JSON {", false},
        usage("a field without '='", with({"--field", "command"}), "NAME=VALUE"),
        usage("a field without a name", with({"--field", "=value"}), "non-empty NAME"),
        usage("fields on a JSON array", with({"--payload", "[1]", "--field", "a=b"}), "not one"),
        usage("fields on an empty --payload", with({"--payload", "", "--field", "a=b"}), "not one"),
        usage("fields on an object with text after it", with({"--payload", R"({"a":"1"} x)", "--field", "b=c"}),
              "not one"),
        usage("two words after one --field", with({"--field", "a=1", "b=2"}), "b=2"),
    };
    for (const Row& row : rows) {
        std::vector<std::string> arguments = {"--root", root_.PathUtf8(), "publish"};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
        const ChildOutcome outcome = Veqctl(arguments);
        const auto events = bus_.Take();
        EXPECT_EQ(outcome.exitCode, row.expectedExit) << row.name << ": " << outcome.output;
        if (row.expectedExit != 0) {
            EXPECT_NE(outcome.output.find(row.mention), std::string::npos) << row.name << ": " << outcome.output;
            EXPECT_TRUE(events.empty()) << row.name << ": a wrong command line reached the bus";
            continue;
        }
        ASSERT_EQ(events.size(), 1u) << row.name << ": " << outcome.output;
        const std::string payload = String::UTF16ToUTF8(events[0].getPayload());
        if (!row.compareAsJson) {
            EXPECT_EQ(payload, row.expectedPayload) << row.name;
            continue;
        }
        std::string error;
        const auto actual = WireCodec::ParseObject(payload, error);
        const auto expected = WireCodec::ParseObject(row.expectedPayload, error);
        ASSERT_TRUE(actual && expected) << row.name << ": " << payload;
        EXPECT_EQ(*actual, *expected) << row.name << ": " << payload;
    }
}

TEST_F(ControlServerTest, TheSocketIsPrivateToTheServicesUserEvenOverAStaleFile)
{
    // A run that did not stop cleanly left open files at both paths.
    server_.Stop();
    for (const std::string name : {"control", "control_notify"}) {
        std::ofstream(root_.BelowUtf8(name)) << "stale";
        ::chmod(root_.BelowUtf8(name).c_str(), 0666);
    }
    ASSERT_TRUE(server_.Start());
    for (const std::string name : {"control", "control_notify"}) {
        bool isSocket = false;
        EXPECT_EQ(ModeOf(root_.BelowUtf8(name), isSocket), 0600u) << name;
        EXPECT_TRUE(isSocket) << name;
    }

    if (!ChildProcess::IsRoot()) {
        GTEST_SKIP() << "needs root to run veqctl as another user";
    }
    const ChildOutcome outcome = Veqctl({"--root", root_.PathUtf8(), "publish", "--topic", "6", "--state", "0"}, true);
    EXPECT_EQ(outcome.exitCode, 3) << outcome.output;
    EXPECT_NE(outcome.output.find("permission denied on the control socket " + root_.BelowUtf8("control")),
              std::string::npos)
        << outcome.output;
    EXPECT_TRUE(bus_.Take().empty()) << "another user's event reached the bus";
}

TEST_F(ControlServerTest, StopRemovesTheSocketFilesAndTheServerStartsAgain)
{
    server_.Stop();
    EXPECT_FALSE(Exists(root_.BelowUtf8("control")));
    EXPECT_FALSE(Exists(root_.BelowUtf8("control_notify")));
    server_.Stop();

    ASSERT_TRUE(server_.Start());
    EXPECT_TRUE(Request("Publish-Event", R"({"topic":4,"state":24})").isSuccess);
    EXPECT_EQ(bus_.Take().size(), 1u);
}

}  // namespace
}  // namespace VEQ
