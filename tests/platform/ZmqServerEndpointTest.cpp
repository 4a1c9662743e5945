#include "platform/transport/ClientConnection.h"
#include "platform/transport/FolderWatch.h"
#include "platform/transport/FrameIo.h"
#include "platform/transport/SocketFile.h"
#include "platform/transport/WireCodec.h"
#include "platform/transport/ZmqServerEndpoint.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileStatus.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <future>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#include <sys/un.h>
#include <sys/socket.h>

namespace Tavrin::Veq::ClientBroker {
namespace {

using VEQ::Test::ModeOf;
using namespace std::chrono_literals;

Message Request(const std::string& guid, const std::string& command, const std::string& payload = "{}")
{
    Message message;
    message.guid = guid;
    message.notification.command = command;
    message.notification.payload = payload;
    return message;
}

class ZmqServerEndpointTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        path_ = root_.BelowUtf8("endpoint");
        ConnectionDetails details{1, path_};
        ASSERT_EQ(endpoint_->Start(details), 0);
    }

    void TearDown() override
    {
        endpoint_->Stop();
        if (server_.joinable()) {
            server_.join();
        }
    }

    // Answers every request with its command reversed in the payload, until stopped.
    void ServeEcho()
    {
        server_ = std::thread([this] {
            while (true) {
                Result received = endpoint_->Wait(INotificationBase::kInfinite);
                if (received.message.notification.command.empty()) {
                    return;
                }
                Result answer;
                answer.isSuccess = true;
                answer.message.guid = received.message.guid;
                answer.message.notification.command = "Receive-" + received.message.notification.command;
                answer.message.notification.payload = received.message.notification.payload;
                endpoint_->SendResult(answer);
            }
        });
    }

    VEQ::Test::TempRoot root_;
    std::string path_;
    std::unique_ptr<ZmqServerEndpoint> endpoint_ = std::make_unique<ZmqServerEndpoint>(2s);
    std::thread server_;
};

TEST_F(ZmqServerEndpointTest, AnswersEachRequestWithItsGuid)
{
    ServeEcho();
    ClientConnection client;
    ASSERT_TRUE(client.Connect(path_, 5s)) << client.LastError();
    for (int i = 0; i < 20; ++i) {
        const std::string guid = "guid-" + std::to_string(i);
        auto result = client.Send(Request(guid, "Ping", std::to_string(i)), 5s);
        ASSERT_TRUE(result) << "no reply to " << guid;
        EXPECT_EQ(result->message.guid, guid);
        EXPECT_EQ(result->message.notification.command, "Receive-Ping");
        EXPECT_EQ(result->message.notification.payload, std::to_string(i));
    }
}

TEST_F(ZmqServerEndpointTest, AResultSentFromAnotherThreadReachesTheClientWhileTheServerWaits)
{
    ClientConnection client;
    ASSERT_TRUE(client.Connect(path_, 5s)) << client.LastError();
    auto reply = std::async(std::launch::async, [&] { return client.Send(Request("g1", "Slow"), 5s); });
    Result received = endpoint_->Wait(5000);
    ASSERT_EQ(received.message.guid, "g1");

    std::promise<void> waiting;
    server_ = std::thread([this, &waiting] {
        waiting.set_value();
        endpoint_->Wait(INotificationBase::kInfinite);  // holds the socket until TearDown stops it
    });
    waiting.get_future().wait();
    Result answer;
    answer.isSuccess = true;
    answer.message.guid = "g1";
    endpoint_->SendResult(answer);

    auto result = reply.get();
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->isSuccess);
}

TEST_F(ZmqServerEndpointTest, PushesReachEveryConnectedClientAndFailWithoutOne)
{
    Notification push{"StopAppExtension", "", "", ""};
    EXPECT_FALSE(endpoint_->SendNotification(push));

    ClientConnection first;
    ClientConnection second;
    ASSERT_TRUE(first.Connect(path_, 5s)) << first.LastError();
    ASSERT_TRUE(second.Connect(path_, 5s)) << second.LastError();
    EXPECT_TRUE(endpoint_->SendNotification(push));
    for (auto* client : {&first, &second}) {
        auto received = client->NextPush(5s);
        ASSERT_TRUE(received);
        EXPECT_EQ(received->command, "StopAppExtension");
    }
}

TEST_F(ZmqServerEndpointTest, AClientIntroducesItselfAgainToAnEndpointRestartedOnItsPath)
{
    ClientConnection client;
    ASSERT_TRUE(client.Connect(path_, 5s)) << client.LastError();
    for (int restart = 0; restart < 2; ++restart) {
        endpoint_->Stop();
        endpoint_ = std::make_unique<ZmqServerEndpoint>(2s);
        ConnectionDetails details{1, path_};
        ASSERT_EQ(endpoint_->Start(details), 0);
        Notification push{"Receive-Again", std::to_string(restart), "", ""};
        ASSERT_TRUE(VEQ::Test::Eventually([&] { return endpoint_->SendNotification(push); }, 5s))
            << "the restarted endpoint never heard from the client";
        auto received = client.NextPush(5s);
        ASSERT_TRUE(received);
        EXPECT_EQ(received->payload, std::to_string(restart));
        while (client.NextPush(0ms)) {
        }
    }
}

TEST_F(ZmqServerEndpointTest, ServerRequestsRunBesideWaitAndEachOtherAndGetTheirOwnReplies)
{
    ServeEcho();
    ClientConnection client;
    client.SetRequestHandler([](const Message& message) {
        Result reply;
        reply.isSuccess = true;
        reply.message.guid = message.guid;
        reply.message.notification.payload = "re:" + message.notification.payload;
        return reply;
    });
    ASSERT_TRUE(client.Connect(path_, 5s)) << client.LastError();

    std::vector<std::future<std::pair<bool, Result>>> calls;
    for (int i = 0; i < 8; ++i) {
        calls.push_back(std::async(std::launch::async, [this, i] {
            Message message = Request("s" + std::to_string(i), "Ask", std::to_string(i));
            Result reply;
            const bool answered = endpoint_->SendAndWait(message, reply);
            return std::make_pair(answered, reply);
        }));
    }
    // The request channel keeps serving meanwhile.
    auto result = client.Send(Request("c1", "Ping"), 5s);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->message.guid, "c1");
    for (int i = 0; i < 8; ++i) {
        auto [answered, reply] = calls[i].get();
        EXPECT_TRUE(answered) << "call " << i;
        EXPECT_EQ(reply.message.notification.payload, "re:" + std::to_string(i)) << "call " << i;
    }
}

TEST_F(ZmqServerEndpointTest, StopEndsAWaitAndAnUnansweredServerRequest)
{
    std::promise<void> release;
    auto released = release.get_future().share();
    ClientConnection client;
    client.SetRequestHandler([released](const Message&) {
        released.wait();  // a client that does not answer for now
        return Result{};
    });
    ASSERT_TRUE(client.Connect(path_, 5s)) << client.LastError();

    auto waiting = std::async(std::launch::async, [this] { return endpoint_->Wait(INotificationBase::kInfinite); });
    auto asking = std::async(std::launch::async, [this] {
        Message message = Request("s", "Ask");
        Result reply;
        return endpoint_->SendAndWait(message, reply);
    });
    endpoint_->Stop();
    Result ended = waiting.get();
    EXPECT_TRUE(ended.message.notification.command.empty());
    EXPECT_EQ(ended.message.statusCode, 0);
    EXPECT_FALSE(asking.get());
    release.set_value();
}

TEST_F(ZmqServerEndpointTest, AServerRequestWithoutAnswerGivesUpAtItsTimeout)
{
    Message message = Request("s", "Ask");
    Result reply;
    EXPECT_FALSE(endpoint_->SendAndWait(message, reply));  // nobody connected
    EXPECT_FALSE(reply.isSuccess);
    EXPECT_EQ(reply.message.guid, "s");
}

TEST_F(ZmqServerEndpointTest, AWaitWithATimeoutReturnsAnEmptyRecord)
{
    Result result = endpoint_->Wait(30);
    EXPECT_TRUE(result.message.notification.command.empty());
    EXPECT_EQ(result.message.statusCode, 0);
}

TEST_F(ZmqServerEndpointTest, BadFramesAreAnsweredOrDroppedAndServingGoesOn)
{
    ServeEcho();
    ClientConnection client;
    ASSERT_TRUE(client.Connect(path_, 5s)) << client.LastError();

    struct Row {
        const char* name;
        std::vector<std::string> frames;
        bool answered;
    };
    const Row rows[] = {
        {"not JSON", {"{{{"}, true},
        {"wrong type", {R"({"guid":"bad","statusCode":"x"})"}, true},
        {"JSON array", {"[]"}, true},
        {"too many parts", {"a", "b", "c", "d"}, false},
        {"delimiter not empty", {"x", "{}"}, false},
    };
    for (const auto& row : rows) {
        ASSERT_TRUE(client.SendRaw(row.frames)) << row.name;
        auto reply = client.ReceiveRaw(row.answered ? 5s : 200ms);
        if (!row.answered) {
            EXPECT_FALSE(reply) << row.name;
            continue;
        }
        ASSERT_TRUE(reply) << row.name;
        Result result;
        std::string error;
        ASSERT_TRUE(WireCodec::DecodeResult(*reply, result, error)) << row.name;
        EXPECT_FALSE(result.isSuccess) << row.name;
        EXPECT_EQ(result.message.statusCode, ZmqServerEndpoint::kMalformedStatus) << row.name;
        EXPECT_EQ(result.message.statusSource, "Transport") << row.name;
    }


    auto result = client.Send(Request("after", "Ping"), 5s);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->message.guid, "after");
}

TEST_F(ZmqServerEndpointTest, AHugeFrameCutsOnlyItsSender)
{
    ServeEcho();
    ClientConnection flooder;
    ASSERT_TRUE(flooder.Connect(path_, 5s)) << flooder.LastError();
    ASSERT_TRUE(flooder.SendRaw({std::string(FrameIo::kMaxFrameBytes + 1024, 'x')}));
    EXPECT_FALSE(flooder.ReceiveRaw(300ms));

    ClientConnection other;
    ASSERT_TRUE(other.Connect(path_, 5s)) << other.LastError();
    auto result = other.Send(Request("ok", "Ping"), 5s);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->message.guid, "ok");
}

TEST_F(ZmqServerEndpointTest, AResultAfterARestartOnTheSamePathReachesTheWaitingClient)
{
    ClientConnection client;
    ASSERT_TRUE(client.Connect(path_, 5s)) << client.LastError();
    auto reply = std::async(std::launch::async, [&] { return client.Send(Request("lost", "Ping"), 10s); });
    ASSERT_EQ(endpoint_->Wait(5000).message.guid, "lost");

    endpoint_->Stop();
    endpoint_ = std::make_unique<ZmqServerEndpoint>(2s);
    ConnectionDetails details{1, path_};
    ASSERT_EQ(endpoint_->Start(details), 0);
    Result answer;  // the restarted endpoint no longer knows the request, so its guid is empty
    answer.message.statusCode = 17001;
    endpoint_->SendResult(answer);
    server_ = std::thread([this] { endpoint_->Wait(INotificationBase::kInfinite); });

    auto result = reply.get();
    ASSERT_TRUE(result) << "the answer after the restart never arrived";
    EXPECT_EQ(result->message.statusCode, 17001);
}

// An endpoint that goes leaves a refusing placeholder with the side's mode, so that a client never
// reaches a listener that ZeroMQ is still closing, and a restart on the path keeps the permissions.
TEST(ZmqServerEndpointFiles, SocketFilesTakeTheModeOfTheirPlaceholderAndLeaveItBehind)
{
    VEQ::Test::TempRoot root;
    struct Row {
        const char* name;
        int placeholderMode;  // -1: no placeholder
        mode_t expected;
    };
    const Row rows[] = {{"user side", 0666, 0666}, {"elevated side", 0600, 0600}, {"no placeholder", -1, 0600}};
    for (const auto& row : rows) {
        const std::string path = root.BelowUtf8(row.name);
        if (row.placeholderMode >= 0) {
            FILE* file = std::fopen(path.c_str(), "w");
            ASSERT_NE(file, nullptr);
            std::fclose(file);
            ::chmod(path.c_str(), static_cast<mode_t>(row.placeholderMode));
        }
        for (int run = 0; run < 2; ++run) {
            auto endpoint = std::make_unique<ZmqServerEndpoint>();
            ConnectionDetails details{1, path};
            ASSERT_EQ(endpoint->Start(details), 0) << row.name;
            for (const std::string& file : {path, path + "_notify"}) {
                bool isSocket = false;
                EXPECT_EQ(ModeOf(file, isSocket), row.expected) << file << " run " << run;
                EXPECT_TRUE(isSocket) << file;
            }
            endpoint.reset();
            for (const std::string& file : {path, path + "_notify"}) {
                bool isSocket = true;
                EXPECT_EQ(ModeOf(file, isSocket), row.expected) << file << " run " << run;
                EXPECT_FALSE(isSocket) << file;
                EXPECT_EQ(SocketFile::Probe(file), ECONNREFUSED) << file;
            }
        }
    }
    for (const auto& entry : std::filesystem::directory_iterator(root.PathUtf8())) {
        EXPECT_NE(entry.path().filename().string().front(), '.') << "left behind: " << entry.path();
    }
}

// Clients list a side's folder to find endpoints: it holds the endpoints' own files and nothing
// else, while they bind, while they listen and once they are gone.
TEST(ZmqServerEndpointFiles, ASideFolderHoldsOnlyTheEndpointsFiles)
{
    VEQ::Test::TempRoot root;
    const std::string folder = root.BelowUtf8("Broker/SharedUser");
    std::filesystem::create_directories(folder);
    ::chmod(root.BelowUtf8("Broker").c_str(), 0755);
    auto listing = [&] {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            names.insert(entry.path().filename().string());
        }
        return names;
    };
    const std::set<std::string> expected = {"a", "a_notify", "b", "b_notify"};
    std::atomic<bool> stop{false};
    std::set<std::string> strays;
    std::thread watcher([&] {
        while (!stop) {
            for (const auto& name : listing()) {
                if (!expected.contains(name)) {
                    strays.insert(name);
                }
            }
        }
    });
    for (int run = 0; run < 20; ++run) {
        ::close(::open((folder + "/a").c_str(), O_WRONLY | O_CREAT, 0666));
        ::chmod((folder + "/a").c_str(), 0666);
        ZmqServerEndpoint first;
        ZmqServerEndpoint second;
        ConnectionDetails a{1, folder + "/a"};
        ConnectionDetails b{1, folder + "/b"};
        ASSERT_EQ(first.Start(a), 0);
        ASSERT_EQ(second.Start(b), 0);
    }
    stop = true;
    watcher.join();
    EXPECT_TRUE(strays.empty()) << "a client listing the folder saw " << *strays.begin();
    EXPECT_EQ(listing(), expected);
    bool isSocket = true;
    EXPECT_EQ(ModeOf(folder + "/a", isSocket), 0666u) << "the placeholder kept out of sight came back";
}

TEST(ZmqServerEndpointFiles, AGoingEndpointLeavesANewerSocketOnItsPathAlone)
{
    VEQ::Test::TempRoot root;
    const std::string path = root.BelowUtf8("shared");
    auto older = std::make_unique<ZmqServerEndpoint>();
    ConnectionDetails details{1, path};
    ASSERT_EQ(older->Start(details), 0);
    older->Stop();
    ZmqServerEndpoint newer;
    ASSERT_EQ(newer.Start(details), 0);
    older.reset();
    bool isSocket = false;
    ModeOf(path, isSocket);
    EXPECT_TRUE(isSocket);
    EXPECT_EQ(SocketFile::Probe(path), 0);
}

TEST(ZmqServerEndpointFiles, AnUnstartedEndpointReportsAFailedWait)
{
    ZmqServerEndpoint endpoint;
    EXPECT_EQ(endpoint.Wait(20).message.statusCode, INotificationBase::kWaitFailed);
    ConnectionDetails nowhere{1, "/nonexistent-folder/socket"};
    EXPECT_NE(endpoint.Start(nowhere), 0);
}

TEST(ClientConnectionErrors, SaysWhyAPathCannotBeReached)
{
    VEQ::Test::TempRoot root;
    ClientConnection client;
    EXPECT_FALSE(client.Connect(root.BelowUtf8("missing"), 1s));
    EXPECT_NE(client.LastError().find("no socket at"), std::string::npos) << client.LastError();

    // A socket file left by a process that died: connecting is not refused by the file, so the
    // client learns it only when nothing answers.
    const std::string stale = root.BelowUtf8("stale");
    for (const std::string& file : {stale, stale + "_notify"}) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", file.c_str());
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        ::close(fd);
    }
    EXPECT_FALSE(client.Connect(stale, 300ms));
    EXPECT_NE(client.LastError().find("nothing listens on " + stale), std::string::npos) << client.LastError();
}


// A broker hands out its path while it binds: the client finds a placeholder there, or nothing.
TEST(ClientConnectionWaits, ForAnEndpointThatStartsAfterItWasGivenThePath)
{
    VEQ::Test::TempRoot root;
    const std::string placeholder = root.BelowUtf8("placeholder");
    ::close(::open(placeholder.c_str(), O_WRONLY | O_CREAT, 0600));
    const std::string missing = root.BelowUtf8("missing");
    for (const std::string& path : {placeholder, missing}) {
        ClientConnection client;
        auto connected = std::async(std::launch::async, [&] { return client.Connect(path, 5s); });
        std::this_thread::sleep_for(100ms);
        ZmqServerEndpoint endpoint;
        ConnectionDetails details{1, path};
        ASSERT_EQ(endpoint.Start(details), 0);
        std::thread server([&] {
            Result received = endpoint.Wait(5000);
            Result answer;
            answer.isSuccess = true;
            answer.message = received.message;
            endpoint.SendResult(answer);
        });
        EXPECT_TRUE(connected.get()) << path << ": " << client.LastError();
        EXPECT_TRUE(client.Send(Request("g", "Echo"), 5s)) << path;
        server.join();
    }
}

TEST(FolderWatch, WakesForAFileRenamedIntoTheFolderOnly)
{
    VEQ::Test::TempRoot root;
    const std::string path = root.BelowUtf8("socket");
    FolderWatch watch(path);
    ASSERT_TRUE(watch.Active());
    const std::string hidden = root.BelowUtf8(".hidden");
    ::close(::open(hidden.c_str(), O_WRONLY | O_CREAT, 0600));
    ::chmod(hidden.c_str(), 0666);
    EXPECT_FALSE(watch.WaitForChange(20ms)) << "a file made or changed beside the path is not its socket";
    auto renamed = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(50ms);
        return ::rename(hidden.c_str(), path.c_str());
    });
    EXPECT_TRUE(watch.WaitForChange(5s));
    EXPECT_EQ(renamed.get(), 0);
    EXPECT_FALSE(watch.WaitForChange(0ms)) << "a change is consumed by the wait that saw it";

    FolderWatch nowhere(root.BelowUtf8("missing/socket"));
    EXPECT_FALSE(nowhere.Active());
    EXPECT_FALSE(nowhere.WaitForChange(10ms));
}

}  // namespace
}  // namespace Tavrin::Veq::ClientBroker
