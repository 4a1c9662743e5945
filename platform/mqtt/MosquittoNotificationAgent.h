#pragma once

#include "platform/log/Log.h"
#include "platform/mqtt/INotificationAgent.h"
#include "platform/mqtt/MqttConnectMode.h"
#include "platform/mqtt/MqttSettings.h"
#include "platform/mqtt/MqttTopics.h"
#include "platform/mqtt/ReconnectBackoff.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace VEQ {

// The service's one MQTT connection, on libmosquitto (topics and payloads: docs/mqtt.md).
//
// A network thread of its own runs the client. It connects when a client asks for it (on demand,
// NRT) or by itself when the policy says always on, reconnects with back-off for as long as the
// connection is wanted, and puts messages for apps on the bus. No caller waits on the network:
// a request answers Connecting at once and reports through its callback, a publish only queues.
class MosquittoNotificationAgent : public INotificationAgent {
public:
    explicit MosquittoNotificationAgent(MqttSettings settings);
    ~MosquittoNotificationAgent() override;
    MosquittoNotificationAgent(const MosquittoNotificationAgent&) = delete;
    MosquittoNotificationAgent& operator=(const MosquittoNotificationAgent&) = delete;

    // Creates the client and starts the network thread. False, with the reason, when the settings
    // cannot be used; the agent then answers NotReady.
    bool Start(std::string& error);
    // Waiting requests hear ServiceStopping, the device says "offline" and leaves the broker, and
    // the network thread ends. Afterwards requests answer ServiceStopping and publishes 3003.
    void Stop();

    int32_t Publish(VEQNotificationData& data, const std::wstring& topic) override;
    MqttConnectionState RequestForMqttConnection(MqttConnectionRequestParams& params) override;
    MqttConnectionState Disconnect(MqttConnectionRequestParams& params) override;
    MqttConnectionState GetConnectionState() override;

    const MqttTopics& Topics() const { return topics_; }
    const std::string& ClientId() const { return clientId_; }

    // The client id of a device whose configuration names none: the device id, else its host name.
    static std::string DefaultClientId();

private:
    using Clock = std::chrono::steady_clock;
    enum class Link { Down, Opening, Up };
    struct Waiter {
        Clock::time_point since;
        std::function<void(MqttConnectionState)> callback;
    };
    struct Outgoing {
        std::string topic;
        std::string payload;
    };

    void Run();
    void OpenLink(std::unique_lock<std::mutex>& lock);
    void Leave();
    void LinkDown();
    bool Wanted() const;
    MqttConnectionState StateLocked() const;
    static MqttConnectMode ReadMode();

    static void OnConnect(mosquitto* client, void* self, int code);
    static void OnDisconnect(mosquitto* client, void* self, int code);
    static void OnMessage(mosquitto* client, void* self, const mosquitto_message* message);
    static void OnLog(mosquitto* client, void* self, int level, const char* text);
    void Connected();
    void Deliver(const mosquitto_message& message);

    const MqttSettings settings_;
    const std::string clientId_;
    const MqttTopics topics_;
    mosquitto* client_ = nullptr;
    std::thread thread_;
    std::wstring busSubscription_;
    Log log_;

    std::mutex mutex_;  // guards what follows; never held while calling libmosquitto or a callback
    std::condition_variable wake_;
    bool started_ = false;
    bool stopping_ = false;
    bool policyChanged_ = false;
    MqttConnectMode mode_ = MqttConnectMode::Forbidden;
    bool requested_ = false;  // a client asked for the connection and nobody dropped it since
    Link link_ = Link::Down;
    bool leaving_ = false;  // our DISCONNECT is on its way
    Clock::time_point attemptStarted_{};
    Clock::time_point leaveStarted_{};
    Clock::time_point nextAttempt_{};
    ReconnectBackoff backoff_;
    std::vector<Waiter> waiters_;
    std::deque<Outgoing> outgoing_;  // taken while the broker has yet to accept the connection
};

}  // namespace VEQ
