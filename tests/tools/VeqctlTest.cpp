// veqctl as users run it: the built program against a real operator or a stand-in on a
// temporary root, judged by what it prints and how it exits.

#include "apps/AppExtensionOperator.h"
#include "platform/transport/WireCodec.h"
#include "tests/sdk/FakeEndpoint.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/OperatorFixture.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <sstream>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Result;
using Tavrin::Veq::ClientBroker::WireCodec;
using VEQ::Test::ChildOutcome;
using VEQ::Test::ChildProcess;
using VEQ::Test::FakeEndpoint;

ChildOutcome Veqctl(std::vector<std::string> arguments, bool asNobody = false)
{
    arguments.insert(arguments.begin(), VEQCTL_PROGRAM);
    return asNobody ? ChildProcess::RunAsNobody(arguments) : ChildProcess::Run(arguments);
}

std::vector<std::string> Lines(const std::string& output)
{
    std::vector<std::string> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// A side served by a real operator on the current temporary root.
class Operator {
public:
    explicit Operator(ElevationType side)
    {
        VEQ::Test::PublishGlobalSocket(side);
        BrokerContext context;
        context.setConnectionMethod(ConnectionMethod::LocalSocket);
        context.setElevationType(side);
        context.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::App);
        operator_ = std::make_unique<AppExtensionOperator>(context);
        operator_->Start();
    }
    ~Operator() { operator_->Suspend(); }
    AppExtensionOperator* operator->() { return operator_.get(); }

private:
    std::unique_ptr<AppExtensionOperator> operator_;
};

TEST(VeqctlTest, SendPrintsTheResultAsOneJsonLineAndExitsZeroWhateverItsOutcome)
{
    VEQ::Test::TempRoot root;
    Operator side(ElevationType::User);
    struct Row {
        std::vector<std::string> arguments;
        bool expectedSuccess;
        int32_t expectedStatus;
        std::string expectedCommand;
    };
    const std::vector<Row> rows = {
        {{"send", "Get-VeqStatus"}, true, 0, "Receive-VeqStatus"},
        {{"send", "No-Such-Command", "{}"}, false, 17001, "No-Such-Command"},
        // Routed, so --target reached the wire: nobody has that id.
        {{"send", "Get-VeqStatus", "--target", "nobody.app", "--target-name", "Nobody"}, false, 17002, "Get-VeqStatus"},
    };
    for (const Row& row : rows) {
        std::vector<std::string> arguments = {"--root", root.PathUtf8()};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
        const std::string name = row.arguments[1];
        const ChildOutcome outcome = Veqctl(arguments);
        EXPECT_EQ(outcome.exitCode, 0) << name << ": " << outcome.output;
        const auto lines = Lines(outcome.output);
        ASSERT_EQ(lines.size(), 1u) << name << ": " << outcome.output;
        Result result;
        std::string error;
        ASSERT_TRUE(WireCodec::DecodeResult(lines[0], result, error)) << name << ": " << error;
        EXPECT_EQ(result.isSuccess, row.expectedSuccess) << name;
        EXPECT_EQ(result.message.statusCode, row.expectedStatus) << name << ": " << lines[0];
        EXPECT_EQ(result.message.notification.command, row.expectedCommand) << name;
    }
}

TEST(VeqctlTest, ExitCodesTellAnAbsentARefusingAndASilentServiceApart)
{
    struct Row {
        const char* name;
        std::vector<std::string> arguments;  // after --root
        // Prepares the root; may keep stand-ins alive in holders.
        std::function<void(VEQ::Test::TempRoot&, std::vector<std::unique_ptr<FakeEndpoint>>&)> setUp;
        int expectedExit;
        std::string mention;
    };
    const auto nothing = [](VEQ::Test::TempRoot&, auto&) {};
    const auto refusing = [](VEQ::Test::TempRoot&, std::vector<std::unique_ptr<FakeEndpoint>>& holders) {
        holders.push_back(std::make_unique<FakeEndpoint>(
            VEQ::Test::PublishGlobalSocket(ElevationType::User),
            [](const Message& request) { return std::optional(FakeEndpoint::HandshakeReply(request, "")); }));
    };
    const auto silentGlobal = [](VEQ::Test::TempRoot&, std::vector<std::unique_ptr<FakeEndpoint>>& holders) {
        holders.push_back(std::make_unique<FakeEndpoint>(VEQ::Test::PublishGlobalSocket(ElevationType::User),
                                                         [](const Message&) { return std::optional<Result>(); }));
    };
    // A side whose broker takes commands and pushes but never answers a command.
    const auto silentBroker = [](VEQ::Test::TempRoot&, std::vector<std::unique_ptr<FakeEndpoint>>& holders) {
        const std::string global = VEQ::Test::PublishGlobalSocket(ElevationType::User);
        const std::string broker = global + "-broker";
        holders.push_back(std::make_unique<FakeEndpoint>(broker, [](const Message&) { return std::optional<Result>(); }));
        holders.push_back(std::make_unique<FakeEndpoint>(global, [broker](const Message& request) {
            return std::optional(FakeEndpoint::HandshakeReply(request, broker));
        }));
    };
    const std::vector<Row> rows = {
        {"no service ever ran", {"send", "Get-VeqStatus"}, nothing, 3, "machine.db"},
        {"the side refuses", {"send", "Get-VeqStatus"}, refusing, 4, "refused"},
        {"the side never answers", {"--timeout", "0.3", "send", "Get-VeqStatus"}, silentGlobal, 3, "no answer"},
        {"the broker never answers", {"--timeout", "0.3", "send", "Get-VeqStatus"}, silentBroker, 5, "no result"},
        {"listen until the timeout", {"listen", "--timeout", "0.3"}, silentBroker, 0, ""},
        {"listen for a push that does not come", {"listen", "--count", "1", "--timeout", "0.3"}, silentBroker, 5,
         "0 of 1 pushes"},
        {"an unknown side", {"--side", "sideways", "send", "Get-VeqStatus"}, nothing, 2, "sideways"},
        {"publish without a topic", {"publish", "--state", "1"}, nothing, 2, "--topic"},
        {"an extension event without its topic", {"publish", "--extension"}, nothing, 2, "--mqtt-topic"},
        {"no control socket", {"publish", "--topic", "6", "--state", "0"}, nothing, 3, "control"},
    };
    for (const Row& row : rows) {
        VEQ::Test::TempRoot root;
        std::vector<std::unique_ptr<FakeEndpoint>> holders;
        row.setUp(root, holders);
        std::vector<std::string> arguments = {"--root", root.PathUtf8()};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
        const ChildOutcome outcome = Veqctl(arguments);
        EXPECT_EQ(outcome.exitCode, row.expectedExit) << row.name << ": " << outcome.output;
        if (row.expectedExit == 0) {
            EXPECT_EQ(outcome.output, "") << row.name;
        } else {
            EXPECT_NE(outcome.output.find(row.mention), std::string::npos) << row.name << ": " << outcome.output;
        }
    }
}

TEST(VeqctlTest, ListenPrintsEachPushAsOneJsonLineUntilTheCount)
{
    VEQ::Test::TempRoot root;
    Operator side(ElevationType::User);
    auto listening = std::async(std::launch::async, [&] {
        return Veqctl({"--root", root.PathUtf8(), "listen", "--count", "2", "--timeout", "30"});
    });
    // Pushes reach only a client that has introduced itself; push until veqctl has had its two.
    const bool ended = VEQ::Test::Eventually(
        [&] {
            side->notifyExtensionAppsAboutConfigChanges({"Receive-DeviceConfig", R"({"configPolicy":"p"})", "", ""});
            return listening.wait_for(0s) == std::future_status::ready;
        },
        30s);
    ASSERT_TRUE(ended) << "veqctl listen did not end";
    const ChildOutcome outcome = listening.get();
    EXPECT_EQ(outcome.exitCode, 0) << outcome.output;
    const auto lines = Lines(outcome.output);
    ASSERT_EQ(lines.size(), 2u) << outcome.output;
    for (const std::string& line : lines) {
        std::string error;
        auto push = WireCodec::ParseObject(line, error);
        ASSERT_TRUE(push) << line;
        EXPECT_EQ((*push)["command"].asString(), "Receive-DeviceConfig") << line;
        EXPECT_EQ((*push)["payload"].asString(), R"({"configPolicy":"p"})") << line;
        EXPECT_TRUE((*push)["targetId"].isString()) << "not the Notification record: " << line;
    }
}

TEST(VeqctlTest, TheElevatedSideIsClosedToOtherUsersAndTheUserSideIsNot)
{
    if (!ChildProcess::IsRoot()) {
        GTEST_SKIP() << "needs root to run veqctl as another user";
    }
    struct Row {
        const char* name;
        ElevationType side;
        const char* sideArgument;
        int expectedExit;
        std::string mention;
    };
    for (const Row& row : {Row{"user side", ElevationType::User, "user", 0, "Receive-VeqStatus"},
                           Row{"elevated side", ElevationType::Elevated, "elevated", 3, "permission denied"}}) {
        VEQ::Test::TempRoot root;
        Operator side(row.side);
        const ChildOutcome outcome =
            Veqctl({"--root", root.PathUtf8(), "--side", row.sideArgument, "send", "Get-VeqStatus"}, true);
        EXPECT_EQ(outcome.exitCode, row.expectedExit) << row.name << ": " << outcome.output;
        EXPECT_NE(outcome.output.find(row.mention), std::string::npos) << row.name << ": " << outcome.output;
    }
}

}  // namespace
}  // namespace VEQ
