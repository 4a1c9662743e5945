// Round trip of a cheap command through real brokers, next to a bare ZeroMQ echo and a raw
// Unix-socket echo on the same machine. Prints median and p99 of each.
//
// A broker pauses 100 ms after each message (its rate limit). That pause is not counted: the
// requests rotate over many brokers, and each broker is asked again only once its pause is over.

#include "broker/BaseClientBroker.h"
#include "platform/Platform.h"
#include "platform/string/String.h"
#include "platform/transport/ClientConnection.h"

#include <zmq.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono;
using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::Message;

namespace {

constexpr int kSamples = 2000;
constexpr int kBrokers = 24;
constexpr auto kBrokerPause = 110ms;
const std::string kPayload = R"({"request":"status"})";

class EchoCommand : public VEQ::BaseCommandHandler {
public:
    Result GetResponse(const VEQ::ClientRequest& request, bool&) override
    {
        return Succeeded(request.getMessage(), "Receive-Echo", request.getMessage().notification.payload);
    }
    const std::vector<std::string>& GetSupportedCommandNames() override { return names_; }
    VEQ::ElevationType GetSupportedContext() override { return VEQ::ElevationType::Both; }
    ExtensionType GetSupportedExtensionType() override { return ExtensionType::Both; }

private:
    std::vector<std::string> names_{"Echo"};
};

class BenchBroker : public VEQ::BaseClientBroker {
public:
    BenchBroker(const VEQ::BrokerContext& broker, const VEQ::ClientContext& client) : BaseClientBroker(broker, client)
    {
        handlers.push_back(new EchoCommand());
    }
};

struct Figures {
    double median;
    double p99;
};

Figures Summarise(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return {samples[samples.size() / 2], samples[std::min(samples.size() - 1, samples.size() * 99 / 100)]};
}

double MicrosSince(steady_clock::time_point start)
{
    return duration<double, std::micro>(steady_clock::now() - start).count();
}

std::vector<double> MeasureBrokers(const std::string& root)
{
    VEQ::BrokerContext brokerContext;
    brokerContext.setConnectionMethod(VEQ::ConnectionMethod::LocalSocket);
    brokerContext.setElevationType(VEQ::ElevationType::User);
    brokerContext.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::App);
    std::vector<std::unique_ptr<BenchBroker>> brokers;
    std::vector<std::unique_ptr<ClientConnection>> clients;
    for (int i = 0; i < kBrokers; ++i) {
        VEQ::ClientContext client;
        client.extensionId = "bench-" + std::to_string(i);
        brokers.push_back(std::make_unique<BenchBroker>(brokerContext, client));
        brokers.back()->StartServer();
        clients.push_back(std::make_unique<ClientConnection>());
        if (!clients.back()->Connect(VEQ::String::UTF16ToUTF8(brokers.back()->get_soketID()), 5s)) {
            std::fprintf(stderr, "cannot connect: %s\n", clients.back()->LastError().c_str());
            std::exit(1);
        }
    }
    (void)root;
    std::vector<steady_clock::time_point> readyAt(kBrokers, steady_clock::now());
    std::vector<double> samples;
    Message message;
    message.notification.command = "Echo";
    message.notification.payload = kPayload;
    for (int i = 0; i < kSamples + kBrokers; ++i) {
        const int b = i % kBrokers;
        std::this_thread::sleep_until(readyAt[b]);
        message.guid = "g" + std::to_string(i);
        const auto start = steady_clock::now();
        auto result = clients[b]->Send(message, 5s);
        const double elapsed = MicrosSince(start);
        readyAt[b] = steady_clock::now() + kBrokerPause;
        if (!result || !result->isSuccess) {
            std::fprintf(stderr, "broker request failed\n");
            std::exit(1);
        }
        if (i >= kBrokers) {  // the first round warms each connection up
            samples.push_back(elapsed);
        }
    }
    clients.clear();
    brokers.clear();
    return samples;
}

std::vector<double> MeasureZmqEcho(const std::string& root, microseconds gap)
{
    zmq::context_t context(1);
    const std::string address = "ipc://" + root + "/zmq-echo-" + std::to_string(gap.count());
    zmq::socket_t server(context, zmq::socket_type::router);
    server.bind(address);
    std::thread echo([&server] {
        while (true) {
            zmq::message_t id;
            zmq::message_t body;
            if (!server.recv(id) || !server.recv(body)) {
                return;
            }
            if (body.size() == 0) {
                return;
            }
            server.send(id, zmq::send_flags::sndmore);
            server.send(body, zmq::send_flags::none);
        }
    });
    zmq::socket_t client(context, zmq::socket_type::dealer);
    client.connect(address);
    std::vector<double> samples;
    const std::string frame = R"({"guid":"g","notification":{"command":"Echo","payload":"{\"request\":\"status\"}"}})";
    for (int i = 0; i < kSamples + 100; ++i) {
        std::this_thread::sleep_for(gap);
        const auto start = steady_clock::now();
        client.send(zmq::buffer(frame));
        zmq::message_t reply;
        (void)client.recv(reply);
        if (i >= 100) {
            samples.push_back(MicrosSince(start));
        }
    }
    client.send(zmq::message_t(), zmq::send_flags::none);
    echo.join();
    return samples;
}

std::vector<double> MeasureUnixEcho(const std::string& root, microseconds gap)
{
    const std::string path = root + "/unix-echo-" + std::to_string(gap.count());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(listener, 1) != 0) {
        std::perror("unix echo");
        std::exit(1);
    }
    std::thread echo([listener] {
        const int peer = ::accept(listener, nullptr, nullptr);
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(peer, buffer, sizeof(buffer))) > 0) {
            if (::write(peer, buffer, static_cast<size_t>(count)) != count) {
                break;
            }
        }
        ::close(peer);
    });
    const int client = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        std::perror("unix connect");
        std::exit(1);
    }
    const std::string frame = R"({"guid":"g","notification":{"command":"Echo","payload":"{\"request\":\"status\"}"}})";
    std::vector<double> samples;
    char buffer[4096];
    for (int i = 0; i < kSamples + 100; ++i) {
        std::this_thread::sleep_for(gap);
        const auto start = steady_clock::now();
        if (::write(client, frame.data(), frame.size()) != static_cast<ssize_t>(frame.size())) {
            std::exit(1);
        }
        size_t received = 0;
        while (received < frame.size()) {
            const ssize_t count = ::read(client, buffer, sizeof(buffer));
            if (count <= 0) {
                std::exit(1);
            }
            received += static_cast<size_t>(count);
        }
        if (i >= 100) {
            samples.push_back(MicrosSince(start));
        }
    }
    ::close(client);
    echo.join();
    ::close(listener);
    return samples;
}

}  // namespace

int main()
{
    char rootTemplate[] = "/tmp/veq-bench-XXXXXX";
    const std::string root = ::mkdtemp(rootTemplate);
    VEQ::Platform::Install({VEQ::String::UTF8ToUTF16(root)});

    const auto gap = duration_cast<microseconds>(kBrokerPause) / kBrokers;
    const Figures unixHot = Summarise(MeasureUnixEcho(root, 0us));
    const Figures zmqHot = Summarise(MeasureZmqEcho(root, 0us));
    std::printf("hot: unix %.1f/%.1f zmq %.1f/%.1f\n", unixHot.median, unixHot.p99, zmqHot.median, zmqHot.p99);
    const Figures unixEcho = Summarise(MeasureUnixEcho(root, gap));
    const Figures zmqEcho = Summarise(MeasureZmqEcho(root, gap));
    const Figures broker = Summarise(MeasureBrokers(root));

    std::printf("round trip over the same machine, %d samples each (microseconds)\n", kSamples);
    std::printf("%-22s %10s %10s\n", "", "median", "p99");
    std::printf("%-22s %10.1f %10.1f\n", "raw Unix-socket echo", unixEcho.median, unixEcho.p99);
    std::printf("%-22s %10.1f %10.1f\n", "bare ZeroMQ echo", zmqEcho.median, zmqEcho.p99);
    std::printf("%-22s %10.1f %10.1f\n", "broker command", broker.median, broker.p99);
    std::printf("broker / ZeroMQ echo: median %.2fx, p99 %.2fx (target: median <= 1.5x)\n",
                broker.median / zmqEcho.median, broker.p99 / zmqEcho.p99);
    std::filesystem::remove_all(root);
    return 0;
}
