#include "platform/mqtt/MosquittoNotificationAgent.h"

#include "platform/agents/AgentFactory.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/fs/utility.h"
#include "platform/policy/IConfigAgent.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"

#include <mosquitto.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <pthread.h>
#include <unistd.h>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using State = INotificationAgent::MqttConnectionState;

constexpr int kConfigChangeTopic = 4;
constexpr int kConfigChangedState = 15;
constexpr int kQos = 1;
constexpr const char* kOnline = "online";
constexpr const char* kOffline = "offline";
// How long one turn of the network loop may wait for the socket. Requests to connect, leave or
// stop are noticed at the latest after one turn.
constexpr int kLoopTurnMs = 100;
// A broker that does not see us off in this time is left without its answer.
constexpr auto kLeaveTimeout = 2s;
// Messages taken while the broker has yet to accept the connection; beyond this, publishes fail.
constexpr size_t kMaxOutgoing = 100;
// A status callback older than any caller's wait has nobody left to tell.
constexpr auto kWaiterLifetime = 2min;
// Larger messages for an app are dropped: they would travel on to a client in one frame.
constexpr int kMaxInboundPayload = 1024 * 1024;
constexpr const wchar_t* kBusSource = L"MosquittoNotificationAgent";

void InitLibrary()
{
    // Never cleaned up: the library's global state stays until the process ends.
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

std::string Describe(int code)
{
    return code == MOSQ_ERR_ERRNO ? std::string(std::strerror(errno)) : std::string(mosquitto_strerror(code));
}

const char* OrNull(const std::string& text)
{
    return text.empty() ? nullptr : text.c_str();
}

}  // namespace

MosquittoNotificationAgent::MosquittoNotificationAgent(MqttSettings settings)
    : settings_(std::move(settings)),
      clientId_(settings_.clientId.empty() ? DefaultClientId() : settings_.clientId),
      topics_(settings_.topicRoot, clientId_),
      backoff_(settings_.firstReconnectDelay, settings_.maxReconnectDelay)
{
}

MosquittoNotificationAgent::~MosquittoNotificationAgent()
{
    Stop();
    if (client_ != nullptr) {
        mosquitto_destroy(client_);
    }
}

std::string MosquittoNotificationAgent::DefaultClientId()
{
    DeviceIdentity identity;
    if (CoreUtility::GetInstance()->GetDeviceIdentity(identity)) {
        return String::UTF16ToUTF8(identity.deviceId);
    }
    char host[256] = {};
    ::gethostname(host, sizeof(host) - 1);
    return std::string("veq-") + host;
}

bool MosquittoNotificationAgent::Start(std::string& error)
{
    const wchar_t* function = L"VEQ::MosquittoNotificationAgent::Start";
    utility::InitLog(log_, L"MqttNotificationAgent.log", Log::kDebug);
    if (client_ != nullptr) {
        error = "already started";
        return false;
    }
    if (settings_.host.empty()) {
        error = "no broker host";
        return false;
    }
    InitLibrary();
    // A persistent session: what the back end sends while the device is away waits at the broker.
    client_ = mosquitto_new(clientId_.c_str(), false, this);
    if (client_ == nullptr) {
        error = "cannot create the MQTT client: " + std::string(std::strerror(errno));
        log_.e(L"%s: %s", function, error);
        return false;
    }
    mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_threaded_set(client_, true);
    int code = MOSQ_ERR_SUCCESS;
    if (!settings_.username.empty()) {
        code = mosquitto_username_pw_set(client_, settings_.username.c_str(), OrNull(settings_.password));
    }
    if (code == MOSQ_ERR_SUCCESS && !settings_.caFile.empty()) {
        code = mosquitto_tls_set(client_, settings_.caFile.c_str(), nullptr, OrNull(settings_.certFile),
                                 OrNull(settings_.keyFile), nullptr);
        if (code != MOSQ_ERR_SUCCESS) {
            error = "cannot use the TLS files (tls.caFile, tls.certFile, tls.keyFile): " + Describe(code);
        }
    }
    // Should the device vanish without a word, the broker tells the back end in its place.
    const std::string status = topics_.Status();
    if (code == MOSQ_ERR_SUCCESS) {
        code = mosquitto_will_set(client_, status.c_str(), static_cast<int>(std::strlen(kOffline)), kOffline, kQos,
                                  true);
    }
    if (code != MOSQ_ERR_SUCCESS) {
        if (error.empty()) {
            error = "cannot configure the MQTT client: " + Describe(code);
        }
        log_.e(L"%s: %s", function, error);
        mosquitto_destroy(client_);
        client_ = nullptr;
        return false;
    }
    mosquitto_connect_callback_set(client_, &MosquittoNotificationAgent::OnConnect);
    mosquitto_disconnect_callback_set(client_, &MosquittoNotificationAgent::OnDisconnect);
    mosquitto_message_callback_set(client_, &MosquittoNotificationAgent::OnMessage);
    mosquitto_log_callback_set(client_, &MosquittoNotificationAgent::OnLog);

    const MqttConnectMode mode = ReadMode();
    busSubscription_ = VEQPublisherSubscriber::GetInstance()->Subscribe(
        [this](VEQNotificationData& data) {
            if (data.getTopicId() == kConfigChangeTopic && data.getEventState() == kConfigChangedState) {
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    policyChanged_ = true;
                }
                wake_.notify_all();
            }
        },
        false);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        mode_ = mode;
        started_ = true;
    }
    thread_ = std::thread(&MosquittoNotificationAgent::Run, this);
    ::pthread_setname_np(thread_.native_handle(), "veq-mqtt");
    log_.i(L"%s: broker %s:%d, client id %s, topic root %s, TLS %s", function, settings_.host, settings_.port,
           clientId_, topics_.Root(), settings_.caFile.empty() ? L"off" : L"on");
    return true;
}

void MosquittoNotificationAgent::Stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!started_ || stopping_) {
            return;
        }
        stopping_ = true;
    }
    wake_.notify_all();
    if (!busSubscription_.empty()) {
        VEQPublisherSubscriber::GetInstance()->Unsubscribe(busSubscription_);
    }
    std::vector<Waiter> waiters;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        waiters.swap(waiters_);
        outgoing_.clear();
    }
    for (auto& waiter : waiters) {
        try {
            waiter.callback(State::ServiceStopping);
        } catch (const std::exception& failure) {
            log_.e(L"%s: a status callback failed: %s", L"VEQ::MosquittoNotificationAgent::Stop", failure.what());
        }
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    log_.i(L"%s: stopped", L"VEQ::MosquittoNotificationAgent::Stop");
}

MqttConnectMode MosquittoNotificationAgent::ReadMode()
{
    MqttPolicy policy;
    auto agent = AgentFactory::GetInstance()->GetConfigPolicyAgent();
    if (!agent || !agent->GetMqttPolicy(policy)) {
        return MqttConnectMode::Forbidden;
    }
    return ConnectModeOf(policy);
}

bool MosquittoNotificationAgent::Wanted() const
{
    return !stopping_ && mode_ != MqttConnectMode::Forbidden && (requested_ || mode_ == MqttConnectMode::AlwaysOn);
}

MosquittoNotificationAgent::MqttConnectionState MosquittoNotificationAgent::StateLocked() const
{
    if (!started_) {
        return State::NotReady;
    }
    if (stopping_) {
        return State::ServiceStopping;
    }
    if (mode_ == MqttConnectMode::Forbidden) {
        return State::NotSupportedByPolicy;
    }
    if (!Wanted()) {
        return State::Disconnected;  // even while the leave is on its way
    }
    return link_ == Link::Up && !leaving_ ? State::Connected : State::Connecting;
}

MosquittoNotificationAgent::MqttConnectionState MosquittoNotificationAgent::GetConnectionState()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return StateLocked();
}

MosquittoNotificationAgent::MqttConnectionState MosquittoNotificationAgent::RequestForMqttConnection(
    MqttConnectionRequestParams& params)
{
    const wchar_t* function = L"VEQ::MosquittoNotificationAgent::RequestForMqttConnection";
    const MqttConnectMode mode = ReadMode();
    std::unique_lock<std::mutex> lock(mutex_);
    if (!started_) {
        return State::NotReady;
    }
    if (stopping_) {
        return State::ServiceStopping;
    }
    if (mode == MqttConnectMode::Forbidden) {
        return State::NotSupportedByPolicy;
    }
    requested_ = true;
    if (link_ == Link::Up && !leaving_) {
        return State::Connected;
    }
    const Clock::time_point now = Clock::now();
    std::erase_if(waiters_, [&](const Waiter& waiter) { return now - waiter.since > kWaiterLifetime; });
    if (params.statusCallback) {
        waiters_.push_back({now, params.statusCallback});
    }
    // Somebody is waiting now: no long back-off, but no faster than a first retry either.
    nextAttempt_ = std::min(nextAttempt_, attemptStarted_ + settings_.firstReconnectDelay);
    lock.unlock();
    wake_.notify_all();
    log_.d(L"%s: requested by %s", function, params.clientId);
    return State::Connecting;
}

MosquittoNotificationAgent::MqttConnectionState MosquittoNotificationAgent::Disconnect(
    MqttConnectionRequestParams& params)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!started_) {
        return State::NotReady;
    }
    if (stopping_) {
        return State::ServiceStopping;
    }
    requested_ = false;
    outgoing_.clear();
    const MqttConnectionState state = StateLocked();  // an always-on connection stays
    lock.unlock();
    wake_.notify_all();
    log_.d(L"%s: requested by %s", L"VEQ::MosquittoNotificationAgent::Disconnect", params.clientId);
    return state;
}

int32_t MosquittoNotificationAgent::Publish(VEQNotificationData& data, const std::wstring& topic)
{
    const wchar_t* function = L"VEQ::MosquittoNotificationAgent::Publish";
    try {
        if (ReadMode() == MqttConnectMode::Forbidden) {
            return kDisabledByConfig;
        }
        Outgoing message{topics_.Outbound(String::UTF16ToUTF8(topic)), String::UTF16ToUTF8(data.getPayload())};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!Wanted() || leaving_ || link_ == Link::Down) {
                return kNotConnected;
            }
            if (link_ == Link::Opening) {
                if (outgoing_.size() >= kMaxOutgoing) {
                    return kNotConnected;
                }
                outgoing_.push_back(std::move(message));
                return kQueued;
            }
        }
        const int code = mosquitto_publish(client_, nullptr, message.topic.c_str(),
                                           static_cast<int>(message.payload.size()), message.payload.data(), kQos,
                                           false);
        if (code == MOSQ_ERR_SUCCESS) {
            return kPublished;
        }
        if (code == MOSQ_ERR_NO_CONN) {
            return kNotConnected;  // lost since we looked
        }
        log_.e(L"%s: %s refused: %s", function, message.topic, Describe(code));
        return kAgentException;
    } catch (const std::exception& failure) {
        log_.e(L"%s: %s", function, failure.what());
        return kAgentException;
    }
}

// The network thread: connects while the connection is wanted, turns the client's loop while
// there is a socket, and leaves when the connection is no longer wanted.
void MosquittoNotificationAgent::Run()
{
    const wchar_t* function = L"VEQ::MosquittoNotificationAgent::Run";
    try {
        std::unique_lock<std::mutex> lock(mutex_);
        while (true) {
            if (policyChanged_) {
                policyChanged_ = false;
                lock.unlock();
                const MqttConnectMode mode = ReadMode();
                lock.lock();
                mode_ = mode;
                if (mode_ == MqttConnectMode::Forbidden) {
                    requested_ = false;  // a later permission does not bring old requests back
                    outgoing_.clear();
                }
                continue;
            }
            const Clock::time_point now = Clock::now();
            if (link_ == Link::Down) {
                if (stopping_) {
                    break;
                }
                if (!Wanted()) {
                    wake_.wait(lock);
                } else if (now < nextAttempt_) {
                    wake_.wait_until(lock, nextAttempt_);
                } else {
                    OpenLink(lock);
                }
                continue;
            }
            if (!Wanted() && !leaving_) {
                leaving_ = true;
                leaveStarted_ = now;
                lock.unlock();
                Leave();
                lock.lock();
                continue;
            }
            if (leaving_ ? now - leaveStarted_ > kLeaveTimeout
                         : link_ == Link::Opening && now - attemptStarted_ > settings_.connectTimeout) {
                log_.w(L"%s: no answer from %s:%d in time", function, settings_.host, settings_.port);
                LinkDown();
                continue;
            }
            lock.unlock();
            const int code = mosquitto_loop(client_, kLoopTurnMs, 1);
            lock.lock();
            if (code != MOSQ_ERR_SUCCESS && link_ != Link::Down) {
                log_.w(L"%s: connection to %s:%d ended: %s", function, settings_.host, settings_.port, Describe(code));
                LinkDown();
            }
        }
    } catch (const std::exception& failure) {
        log_.e(L"%s: the network thread ends: %s", function, failure.what());
    }
}

void MosquittoNotificationAgent::OpenLink(std::unique_lock<std::mutex>& lock)
{
    link_ = Link::Opening;
    leaving_ = false;
    attemptStarted_ = Clock::now();
    lock.unlock();
    const int code = mosquitto_connect_async(client_, settings_.host.c_str(), settings_.port,
                                             settings_.keepAliveSeconds);
    const std::string reason = code == MOSQ_ERR_SUCCESS ? std::string() : Describe(code);
    lock.lock();
    if (code != MOSQ_ERR_SUCCESS) {
        log_.w(L"%s: cannot reach %s:%d: %s", L"VEQ::MosquittoNotificationAgent::OpenLink", settings_.host,
               settings_.port, reason);
        LinkDown();
    }
}

// Said before leaving, since the broker only speaks our will when we vanish without a word.
void MosquittoNotificationAgent::Leave()
{
    const std::string status = topics_.Status();
    mosquitto_publish(client_, nullptr, status.c_str(), static_cast<int>(std::strlen(kOffline)), kOffline, kQos, true);
    mosquitto_disconnect(client_);
}

void MosquittoNotificationAgent::LinkDown()
{
    const bool orderly = leaving_;
    link_ = Link::Down;
    leaving_ = false;
    if (orderly) {
        backoff_.Reset();
        nextAttempt_ = Clock::now();
    } else {
        nextAttempt_ = Clock::now() + backoff_.Next();
    }
}

void MosquittoNotificationAgent::OnConnect(mosquitto* /*client*/, void* self, int code)
{
    auto* agent = static_cast<MosquittoNotificationAgent*>(self);
    if (code != 0) {
        // The loop then reports the refusal as an error and the attempt counts as failed.
        agent->log_.w(L"%s: the broker refused the connection: %s", L"VEQ::MosquittoNotificationAgent::OnConnect",
                      mosquitto_connack_string(code));
        return;
    }
    try {
        agent->Connected();
    } catch (const std::exception& failure) {
        agent->log_.e(L"%s: %s", L"VEQ::MosquittoNotificationAgent::OnConnect", failure.what());
    }
}

void MosquittoNotificationAgent::Connected()
{
    const wchar_t* function = L"VEQ::MosquittoNotificationAgent::Connected";
    std::vector<Waiter> waiters;
    std::deque<Outgoing> outgoing;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        link_ = Link::Up;
        backoff_.Reset();
        if (!Wanted()) {
            return;  // no longer wanted: the loop leaves on its next turn
        }
        waiters.swap(waiters_);
        outgoing.swap(outgoing_);
    }
    log_.i(L"%s: connected to %s:%d", function, settings_.host, settings_.port);
    // In this order, so that whoever sees "online" finds the inbox subscribed.
    const std::string inbox = topics_.InboxFilter();
    const std::string status = topics_.Status();
    int code = mosquitto_subscribe(client_, nullptr, inbox.c_str(), kQos);
    if (code != MOSQ_ERR_SUCCESS) {
        log_.e(L"%s: cannot subscribe to %s: %s", function, inbox, Describe(code));
    }
    mosquitto_publish(client_, nullptr, status.c_str(), static_cast<int>(std::strlen(kOnline)), kOnline, kQos, true);
    for (const auto& message : outgoing) {
        code = mosquitto_publish(client_, nullptr, message.topic.c_str(), static_cast<int>(message.payload.size()),
                                 message.payload.data(), kQos, false);
        if (code != MOSQ_ERR_SUCCESS) {
            log_.e(L"%s: a queued message to %s was lost: %s", function, message.topic, Describe(code));
        }
    }
    for (auto& waiter : waiters) {
        try {
            waiter.callback(State::Connected);
        } catch (const std::exception& failure) {
            log_.e(L"%s: a status callback failed: %s", function, failure.what());
        }
    }
}

void MosquittoNotificationAgent::OnDisconnect(mosquitto* /*client*/, void* self, int code)
{
    auto* agent = static_cast<MosquittoNotificationAgent*>(self);
    bool wasUp = false;
    {
        std::lock_guard<std::mutex> lock(agent->mutex_);
        if (agent->link_ == Link::Down) {
            return;
        }
        wasUp = agent->link_ == Link::Up && !agent->leaving_;
        agent->LinkDown();
    }
    if (wasUp) {
        agent->log_.w(L"%s: connection lost (%d)", L"VEQ::MosquittoNotificationAgent::OnDisconnect", code);
    } else {
        agent->log_.i(L"%s: disconnected", L"VEQ::MosquittoNotificationAgent::OnDisconnect");
    }
}

void MosquittoNotificationAgent::OnMessage(mosquitto* /*client*/, void* self, const mosquitto_message* message)
{
    auto* agent = static_cast<MosquittoNotificationAgent*>(self);
    try {
        if (message != nullptr) {
            agent->Deliver(*message);
        }
    } catch (const std::exception& failure) {
        agent->log_.e(L"%s: %s", L"VEQ::MosquittoNotificationAgent::OnMessage", failure.what());
    }
}

// On the network thread, with no lock of ours held: the bus calls the brokers from here.
void MosquittoNotificationAgent::Deliver(const mosquitto_message& message)
{
    const wchar_t* function = L"VEQ::MosquittoNotificationAgent::Deliver";
    const std::string topic = message.topic != nullptr ? message.topic : "";
    const auto busTopic = topics_.BusTopic(topic);
    if (!busTopic) {
        log_.w(L"%s: dropped a message on %s, outside the inbox", function, topic);
        return;
    }
    if (message.payloadlen > kMaxInboundPayload) {
        log_.w(L"%s: dropped a message of %d bytes on %s", function, message.payloadlen, topic);
        return;
    }
    const std::string payload = message.payloadlen > 0
                                    ? std::string(static_cast<const char*>(message.payload),
                                                  static_cast<size_t>(message.payloadlen))
                                    : std::string();
    VEQNotificationData data(String::UTF8ToUTF16(*busTopic), String::UTF8ToUTF16(payload), true);
    log_.d(L"%s: %d bytes for %s", function, message.payloadlen, *busTopic);
    VEQPublisherSubscriber::GetInstance()->Notify(data, kBusSource);
}

void MosquittoNotificationAgent::OnLog(mosquitto* /*client*/, void* self, int level, const char* text)
{
    if (level == MOSQ_LOG_DEBUG || text == nullptr) {
        return;  // one line per packet
    }
    auto* agent = static_cast<MosquittoNotificationAgent*>(self);
    agent->log_.d(L"%s: %s", L"VEQ::MosquittoNotificationAgent::OnLog", text);
}

}  // namespace VEQ
