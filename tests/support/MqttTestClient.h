#pragma once
// An outside MQTT client for tests, on libmosquitto: the back end's side of the device's topics.
// It subscribes again after each reconnection, so it follows a broker that restarts.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace VEQ::Test {

class MqttTestClient {
public:
    struct Message {
        std::string topic;
        std::string payload;
        bool retained = false;
    };

    explicit MqttTestClient(const std::string& clientId);
    ~MqttTestClient();
    MqttTestClient(const MqttTestClient&) = delete;
    MqttTestClient& operator=(const MqttTestClient&) = delete;

    bool Connect(int port, std::chrono::milliseconds deadline = std::chrono::seconds(5));
    // Returns once the broker has confirmed the subscription.
    bool Subscribe(const std::string& filter, std::chrono::milliseconds deadline = std::chrono::seconds(5));
    // QoS 1; returns once the broker has taken the message.
    bool Publish(const std::string& topic, const std::string& payload,
                 std::chrono::milliseconds deadline = std::chrono::seconds(5));

    std::optional<Message> Next(std::chrono::milliseconds timeout);
    // The next message on topic with payload (any payload when empty); others before it are dropped.
    std::optional<Message> WaitFor(const std::string& topic, const std::string& payload,
                                   std::chrono::milliseconds timeout);

private:
    static void OnConnect(mosquitto* client, void* self, int code);
    static void OnSubscribe(mosquitto* client, void* self, int mid, int count, const int* granted);
    static void OnPublish(mosquitto* client, void* self, int mid);
    static void OnMessage(mosquitto* client, void* self, const mosquitto_message* message);
    bool WaitUntil(std::chrono::milliseconds deadline, const std::function<bool()>& condition);

    mosquitto* client_ = nullptr;
    bool loopStarted_ = false;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool connected_ = false;
    std::vector<std::string> filters_;
    std::set<int> acknowledged_;
    std::deque<Message> messages_;
};

}  // namespace VEQ::Test
