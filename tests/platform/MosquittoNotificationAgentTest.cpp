// The MQTT agent against a real mosquitto: connecting on request and by itself, what the back end
// sees, what reaches the bus, and a broker that goes away and comes back.

#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/mqtt/MosquittoNotificationAgent.h"
#include "platform/string/String.h"
#include "tests/support/Eventually.h"
#include "tests/support/FakeAgents.h"
#include "tests/support/MosquittoBroker.h"
#include "tests/support/MqttTestClient.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <future>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using State = INotificationAgent::MqttConnectionState;
using Params = INotificationAgent::MqttConnectionRequestParams;

constexpr auto kDeadline = 10s;
constexpr const char* kRoot = "devices/device-1";

// What the agent put on the bus for apps.
class BusInbox {
public:
    struct Item {
        std::string topic;
        std::string payload;
    };

    BusInbox()
    {
        id_ = VEQPublisherSubscriber::GetInstance()->Subscribe(
            [this](VEQNotificationData& data) {
                if (!data.isExtensionNotification()) {
                    return;
                }
                std::lock_guard<std::mutex> lock(mutex_);
                items_.push_back({String::UTF16ToUTF8(data.getTopic()), String::UTF16ToUTF8(data.getPayload())});
                changed_.notify_all();
            },
            false);
    }
    ~BusInbox() { VEQPublisherSubscriber::GetInstance()->Unsubscribe(id_); }

    std::optional<Item> Next(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, timeout, [&] { return !items_.empty(); })) {
            return std::nullopt;
        }
        Item item = items_.front();
        items_.erase(items_.begin());
        return item;
    }

private:
    std::wstring id_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Item> items_;
};

// A request whose callback the test can wait for.
struct Request {
    Params params;
    std::shared_ptr<std::promise<State>> answer = std::make_shared<std::promise<State>>();
    std::future<State> heard = answer->get_future();

    Request()
    {
        params.requestType = 1;
        params.clientId = L"test_2";
        params.requestValue = 5;
        params.connectFlag = true;
        auto once = std::make_shared<std::atomic<bool>>(false);
        params.statusCallback = [answer = answer, once](State state) {
            if (!once->exchange(true)) {
                answer->set_value(state);
            }
        };
    }

    std::optional<State> Heard(std::chrono::milliseconds timeout)
    {
        if (heard.wait_for(timeout) != std::future_status::ready) {
            return std::nullopt;
        }
        return heard.get();
    }
};

int32_t Publish(INotificationAgent& agent, const std::wstring& topic, const std::wstring& payload)
{
    VEQNotificationData data(L"", payload, true);
    return agent.Publish(data, topic);
}

class MosquittoNotificationAgentTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!VEQ::Test::MosquittoBroker::Available()) {
            GTEST_SKIP() << "mosquitto is not installed";
        }
        config_->SetMqtt(L"alerts", L"OnDemand");
        ASSERT_TRUE(broker_.Start()) << broker_.Output();
        ASSERT_TRUE(backend_.Connect(broker_.Port()));
        ASSERT_TRUE(backend_.Subscribe(std::string(kRoot) + "/#"));
    }

    MqttSettings Settings(int port) const
    {
        MqttSettings settings;
        settings.host = "127.0.0.1";
        settings.port = port;
        settings.clientId = "device-1";
        settings.firstReconnectDelay = 100ms;
        settings.maxReconnectDelay = 400ms;
        settings.connectTimeout = 3s;
        return settings;
    }

    std::unique_ptr<MosquittoNotificationAgent> StartAgent(const MqttSettings& settings)
    {
        auto agent = std::make_unique<MosquittoNotificationAgent>(settings);
        std::string error;
        EXPECT_TRUE(agent->Start(error)) << error;
        return agent;
    }

    // Asks for the connection and waits until the agent says it is there.
    void Connect(MosquittoNotificationAgent& agent)
    {
        Request request;
        const State first = agent.RequestForMqttConnection(request.params);
        if (first != State::Connected) {
            ASSERT_EQ(first, State::Connecting);
            ASSERT_EQ(request.Heard(kDeadline), State::Connected);
        }
        ASSERT_EQ(agent.GetConnectionState(), State::Connected);
    }

    void ChangePolicy(const wchar_t* features, const wchar_t* connectType)
    {
        config_->SetMqtt(features, connectType);
        VEQNotificationData changed(4, 15, L"");
        VEQPublisherSubscriber::GetInstance()->Notify(changed, L"test");
    }

    std::string Topic(const std::string& below) const { return std::string(kRoot) + "/" + below; }

    // What a back end that looks now learns of the device's presence.
    std::string RetainedStatus()
    {
        VEQ::Test::MqttTestClient late("late-backend");
        if (!late.Connect(broker_.Port()) || !late.Subscribe(Topic("status"))) {
            return "(cannot look)";
        }
        auto status = late.Next(kDeadline);
        return status && status->retained ? status->payload : "(none retained)";
    }

    std::shared_ptr<VEQ::Test::FakeConfigAgent> config_ = std::make_shared<VEQ::Test::FakeConfigAgent>();
    VEQ::Test::TempRoot root_{PlatformServices{.configAgent = config_}};
    VEQ::Test::MosquittoBroker broker_;
    VEQ::Test::MqttTestClient backend_{"backend"};
};

TEST_F(MosquittoNotificationAgentTest, ARequestConnectsTellsTheCallerAndPublishesGoBelowTheRoot)
{
    auto agent = StartAgent(Settings(broker_.Port()));
    EXPECT_EQ(agent->GetConnectionState(), State::Disconnected) << "on demand, nobody asked yet";
    EXPECT_EQ(Publish(*agent, L"app/notes/status/notification", L"early"), INotificationAgent::kNotConnected);

    Connect(*agent);
    ASSERT_TRUE(backend_.WaitFor(Topic("status"), "online", kDeadline));
    EXPECT_EQ(RetainedStatus(), "online");
    EXPECT_EQ(Publish(*agent, L"app/notes/status/notification", L"{\"n\":1}"), INotificationAgent::kPublished);
    auto message = backend_.WaitFor(Topic("app/notes/status/notification"), "", kDeadline);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->payload, "{\"n\":1}");
    EXPECT_FALSE(message->retained);
}

TEST_F(MosquittoNotificationAgentTest, OnlyMessagesInAnAppsInboxReachTheBus)
{
    BusInbox bus;
    auto agent = StartAgent(Settings(broker_.Port()));
    Connect(*agent);
    ASSERT_TRUE(backend_.WaitFor(Topic("status"), "online", kDeadline));
    struct Row {
        std::string topic;
        const char* busTopic;  // nullptr: not for the bus
    };
    const Row rows[] = {
        {Topic("inbox/app/com.example.notes/settings"), "app/com.example.notes/settings"},
        {Topic("inbox/app/com.example.notes"), "app/com.example.notes"},
        {Topic("inbox/app/a/b/c"), "app/a/b/c"},
        {Topic("inbox/other"), nullptr},
        {Topic("app/com.example.notes/settings"), nullptr},
        {"devices/device-2/inbox/app/com.example.notes/settings", nullptr},
    };
    int n = 0;
    for (const auto& row : rows) {
        ASSERT_TRUE(backend_.Publish(row.topic, "m" + std::to_string(n++))) << row.topic;
    }
    // The device's own messages do not come back to it either.
    EXPECT_EQ(Publish(*agent, L"app/com.example.notes/x", L"own"), INotificationAgent::kPublished);
    ASSERT_TRUE(backend_.WaitFor(Topic("app/com.example.notes/x"), "own", kDeadline));
    ASSERT_TRUE(backend_.Publish(Topic("inbox/app/end"), "end"));

    n = 0;
    for (const auto& row : rows) {
        const std::string payload = "m" + std::to_string(n++);
        if (row.busTopic == nullptr) {
            continue;
        }
        auto item = bus.Next(kDeadline);
        ASSERT_TRUE(item) << row.topic;
        EXPECT_EQ(item->topic, row.busTopic) << row.topic;
        EXPECT_EQ(item->payload, payload) << row.topic;
    }
    auto last = bus.Next(kDeadline);
    ASSERT_TRUE(last);
    EXPECT_EQ(last->topic, "app/end") << "something else reached the bus";
}

TEST_F(MosquittoNotificationAgentTest, ADisconnectSaysOfflineAndLeaves)
{
    auto agent = StartAgent(Settings(broker_.Port()));
    Connect(*agent);
    ASSERT_TRUE(backend_.WaitFor(Topic("status"), "online", kDeadline));
    Params params;
    params.requestType = 2;
    EXPECT_EQ(agent->Disconnect(params), State::Disconnected);
    EXPECT_EQ(Publish(*agent, L"app/notes/x", L"late"), INotificationAgent::kNotConnected);
    ASSERT_TRUE(backend_.WaitFor(Topic("status"), "offline", kDeadline));
    EXPECT_EQ(RetainedStatus(), "offline");
    EXPECT_EQ(agent->GetConnectionState(), State::Disconnected);
    // Asked again, it comes back.
    Connect(*agent);
    EXPECT_TRUE(backend_.WaitFor(Topic("status"), "online", kDeadline));
}

TEST_F(MosquittoNotificationAgentTest, EveryStateAnswersRequestsAndPublishesItsOwnWay)
{
    auto agent = std::make_unique<MosquittoNotificationAgent>(Settings(broker_.Port()));
    Request early;
    EXPECT_EQ(agent->RequestForMqttConnection(early.params), State::NotReady) << "not started";
    EXPECT_EQ(agent->GetConnectionState(), State::NotReady) << "not started";
    EXPECT_EQ(Publish(*agent, L"app/a/x", L"p"), INotificationAgent::kNotConnected) << "not started";

    std::string error;
    ASSERT_TRUE(agent->Start(error)) << error;
    Connect(*agent);
    EXPECT_EQ(Publish(*agent, L"app/a/#", L"p"), INotificationAgent::kAgentException) << "a wildcard topic";

    ChangePolicy(L"none", L"OnDemand");
    Request forbidden;
    EXPECT_EQ(agent->RequestForMqttConnection(forbidden.params), State::NotSupportedByPolicy) << "forbidden";
    EXPECT_EQ(Publish(*agent, L"app/a/x", L"p"), INotificationAgent::kDisabledByConfig) << "forbidden";
    EXPECT_TRUE(VEQ::Test::Eventually([&] { return agent->GetConnectionState() == State::NotSupportedByPolicy; }))
        << "forbidden";
    EXPECT_TRUE(backend_.WaitFor(Topic("status"), "offline", kDeadline)) << "forbidden, yet still connected";

    agent->Stop();
    Request late;
    EXPECT_EQ(agent->RequestForMqttConnection(late.params), State::ServiceStopping) << "stopped";
    EXPECT_EQ(agent->GetConnectionState(), State::ServiceStopping) << "stopped";
    ChangePolicy(L"alerts", L"OnDemand");
    EXPECT_EQ(Publish(*agent, L"app/a/x", L"p"), INotificationAgent::kNotConnected) << "stopped";
}

TEST_F(MosquittoNotificationAgentTest, AlwaysOnConnectsByItselfAndFollowsPolicyChanges)
{
    config_->SetMqtt(L"alerts", L"Always");
    auto agent = StartAgent(Settings(broker_.Port()));
    ASSERT_TRUE(backend_.WaitFor(Topic("status"), "online", kDeadline)) << "did not connect by itself";
    EXPECT_EQ(agent->GetConnectionState(), State::Connected);
    Params params;
    EXPECT_EQ(agent->Disconnect(params), State::Connected) << "a client dropped an always-on connection";

    ChangePolicy(L"alerts", L"0");
    ASSERT_TRUE(backend_.WaitFor(Topic("status"), "offline", kDeadline));
    ChangePolicy(L"alerts", L"Always");
    EXPECT_TRUE(backend_.WaitFor(Topic("status"), "online", kDeadline));
}

TEST_F(MosquittoNotificationAgentTest, ReconnectsByItselfWhenTheBrokerComesBack)
{
    auto agent = StartAgent(Settings(broker_.Port()));
    Connect(*agent);
    ASSERT_TRUE(broker_.Stop());
    ASSERT_TRUE(VEQ::Test::Eventually([&] { return agent->GetConnectionState() == State::Connecting; }))
        << "still believes it is connected";
    EXPECT_EQ(Publish(*agent, L"app/a/x", L"while away"), INotificationAgent::kNotConnected);

    ASSERT_TRUE(broker_.Start()) << broker_.Output();
    VEQ::Test::MqttTestClient backend("backend-again");
    ASSERT_TRUE(backend.Connect(broker_.Port()));
    ASSERT_TRUE(backend.Subscribe(Topic("#")));
    ASSERT_TRUE(backend.WaitFor(Topic("status"), "online", kDeadline)) << "did not come back";
    EXPECT_EQ(Publish(*agent, L"app/a/x", L"back"), INotificationAgent::kPublished);
    EXPECT_TRUE(backend.WaitFor(Topic("app/a/x"), "back", kDeadline));
}

TEST_F(MosquittoNotificationAgentTest, StoppingTellsWaitingCallersAndEndsWithoutABroker)
{
    auto agent = StartAgent(Settings(VEQ::Test::MosquittoBroker::UnusedPort()));
    Request request;
    ASSERT_EQ(agent->RequestForMqttConnection(request.params), State::Connecting);
    EXPECT_EQ(agent->GetConnectionState(), State::Connecting);
    EXPECT_FALSE(request.Heard(300ms)) << "told something while nothing changed";
    agent->Stop();
    EXPECT_EQ(request.Heard(0ms), State::ServiceStopping);
}

TEST_F(MosquittoNotificationAgentTest, UnusableSettingsAreRefusedAtStart)
{
    struct Row {
        const char* name;
        MqttSettings settings;
        const char* reason;
    };
    MqttSettings noHost = Settings(broker_.Port());
    noHost.host.clear();
    MqttSettings missingCa = Settings(broker_.Port());
    missingCa.caFile = root_.BelowUtf8("missing-ca.pem");
    for (const Row& row : {Row{"no host", noHost, "host"}, Row{"missing CA file", missingCa, "tls"}}) {
        MosquittoNotificationAgent agent(row.settings);
        std::string error;
        EXPECT_FALSE(agent.Start(error)) << row.name;
        EXPECT_NE(error.find(row.reason), std::string::npos) << row.name << ": " << error;
        EXPECT_EQ(agent.GetConnectionState(), State::NotReady) << row.name;
    }
}

// A broker that has taken the connection but not yet accepted it: the test plays it by hand.
class SilentBroker {
public:
    SilentBroker()
    {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        ::listen(listener_, 1);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~SilentBroker()
    {
        if (peer_ >= 0) {
            ::close(peer_);
        }
        ::close(listener_);
    }
    int Port() const { return port_; }

    // Until the bytes received hold text.
    bool Receive(const std::string& text, std::chrono::milliseconds deadline)
    {
        const auto until = std::chrono::steady_clock::now() + deadline;
        while (received_.find(text) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            pollfd item{peer_ >= 0 ? peer_ : listener_, POLLIN, 0};
            if (::poll(&item, 1, static_cast<int>(left.count())) <= 0) {
                continue;
            }
            if (peer_ < 0) {
                peer_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
                continue;
            }
            char buffer[4096];
            const ssize_t count = ::read(peer_, buffer, sizeof(buffer));
            if (count <= 0) {
                return false;
            }
            received_.append(buffer, static_cast<size_t>(count));
        }
        return true;
    }
    void Accept()
    {
        const unsigned char connack[] = {0x20, 0x02, 0x00, 0x00};
        ASSERT_EQ(::write(peer_, connack, sizeof(connack)), static_cast<ssize_t>(sizeof(connack)));
    }

private:
    int listener_ = -1;
    int peer_ = -1;
    int port_ = 0;
    std::string received_;
};

TEST_F(MosquittoNotificationAgentTest, AMessageTakenBeforeTheBrokerAnswersIsSentOnceItDoes)
{
    SilentBroker silent;
    auto agent = StartAgent(Settings(silent.Port()));
    Request request;
    ASSERT_EQ(agent->RequestForMqttConnection(request.params), State::Connecting);
    ASSERT_TRUE(silent.Receive("MQTT", kDeadline)) << "no CONNECT arrived";
    EXPECT_EQ(Publish(*agent, L"app/a/held", L"held-payload"), INotificationAgent::kQueued);

    silent.Accept();
    EXPECT_EQ(request.Heard(kDeadline), State::Connected);
    EXPECT_TRUE(silent.Receive("devices/device-1/app/a/held", kDeadline));
    EXPECT_TRUE(silent.Receive("held-payload", kDeadline));
}

}  // namespace
}  // namespace VEQ
