#include "tests/support/MqttTestClient.h"

#include <mosquitto.h>

#include <algorithm>
#include <functional>

namespace VEQ::Test {

MqttTestClient::MqttTestClient(const std::string& clientId)
{
    static const int initialised = mosquitto_lib_init();
    (void)initialised;
    client_ = mosquitto_new(clientId.c_str(), true, this);
    mosquitto_connect_callback_set(client_, &MqttTestClient::OnConnect);
    mosquitto_subscribe_callback_set(client_, &MqttTestClient::OnSubscribe);
    mosquitto_publish_callback_set(client_, &MqttTestClient::OnPublish);
    mosquitto_message_callback_set(client_, &MqttTestClient::OnMessage);
    mosquitto_reconnect_delay_set(client_, 1, 1, false);
}

MqttTestClient::~MqttTestClient()
{
    if (loopStarted_) {
        mosquitto_disconnect(client_);
        mosquitto_loop_stop(client_, false);
    }
    mosquitto_destroy(client_);
}

bool MqttTestClient::WaitUntil(std::chrono::milliseconds deadline, const std::function<bool()>& condition)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, deadline, condition);
}

bool MqttTestClient::Connect(int port, std::chrono::milliseconds deadline)
{
    if (mosquitto_connect_async(client_, "127.0.0.1", port, 30) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_start(client_) != MOSQ_ERR_SUCCESS) {
        return false;
    }
    loopStarted_ = true;
    return WaitUntil(deadline, [&] { return connected_; });
}

bool MqttTestClient::Subscribe(const std::string& filter, std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> lock(mutex_);
    filters_.push_back(filter);
    int mid = 0;
    if (mosquitto_subscribe(client_, &mid, filter.c_str(), 1) != MOSQ_ERR_SUCCESS) {
        return false;
    }
    return changed_.wait_for(lock, deadline, [&] { return acknowledged_.count(mid) > 0; });
}

bool MqttTestClient::Publish(const std::string& topic, const std::string& payload, std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> lock(mutex_);
    int mid = 0;
    if (mosquitto_publish(client_, &mid, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1, false) !=
        MOSQ_ERR_SUCCESS) {
        return false;
    }
    return changed_.wait_for(lock, deadline, [&] { return acknowledged_.count(mid) > 0; });
}

std::optional<MqttTestClient::Message> MqttTestClient::Next(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [&] { return !messages_.empty(); })) {
        return std::nullopt;
    }
    Message message = std::move(messages_.front());
    messages_.pop_front();
    return message;
}

std::optional<MqttTestClient::Message> MqttTestClient::WaitFor(const std::string& topic, const std::string& payload,
                                                               std::chrono::milliseconds timeout)
{
    const auto until = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
        auto message = Next(std::max(left, std::chrono::milliseconds(0)));
        if (!message) {
            return std::nullopt;
        }
        if (message->topic == topic && (payload.empty() || message->payload == payload)) {
            return message;
        }
    }
}

void MqttTestClient::OnConnect(mosquitto* client, void* self, int code)
{
    auto* test = static_cast<MqttTestClient*>(self);
    std::lock_guard<std::mutex> lock(test->mutex_);
    test->connected_ = code == 0;
    if (code == 0) {
        for (const auto& filter : test->filters_) {
            mosquitto_subscribe(client, nullptr, filter.c_str(), 1);  // a new session has none
        }
    }
    test->changed_.notify_all();
}

void MqttTestClient::OnSubscribe(mosquitto* /*client*/, void* self, int mid, int /*count*/, const int* /*granted*/)
{
    auto* test = static_cast<MqttTestClient*>(self);
    std::lock_guard<std::mutex> lock(test->mutex_);
    test->acknowledged_.insert(mid);
    test->changed_.notify_all();
}

void MqttTestClient::OnPublish(mosquitto* /*client*/, void* self, int mid)
{
    auto* test = static_cast<MqttTestClient*>(self);
    std::lock_guard<std::mutex> lock(test->mutex_);
    test->acknowledged_.insert(mid);
    test->changed_.notify_all();
}

void MqttTestClient::OnMessage(mosquitto* /*client*/, void* self, const mosquitto_message* message)
{
    auto* test = static_cast<MqttTestClient*>(self);
    Message copy;
    copy.topic = message->topic;
    copy.payload.assign(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
    copy.retained = message->retain;
    std::lock_guard<std::mutex> lock(test->mutex_);
    test->messages_.push_back(std::move(copy));
    test->changed_.notify_all();
}

}  // namespace VEQ::Test
