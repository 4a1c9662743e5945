// Round trip of a cheap command through real brokers, next to a bare ZeroMQ echo and a raw
// Unix-socket echo on the same machine. Prints median and p99 of each.
//
// The three are sampled in turn, one request each per round, with the same pause before each,
// so that they see the same machine. A broker pauses 100 ms after each message (its rate limit);
// that pause is not counted: the rounds rotate over many brokers, and each broker is asked again
// only once its pause is over.

#include "broker/BaseClientBroker.h"
#include "platform/Platform.h"
#include "platform/string/String.h"
#include "platform/sync/TaskPool.h"
#include "platform/transport/ClientConnection.h"
#include "platform/transport/ZmqServerEndpoint.h"

#include <zmq.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
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
constexpr int kWarmUp = 50;
constexpr int kBrokers = 40;
constexpr auto kBrokerPause = 110ms;
const std::string kFrame = R"({"guid":"g","notification":{"command":"Echo","payload":"{\"request\":\"status\"}"}})";

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
        SetHandlers({new EchoCommand()});
    }
};

double MicrosSince(steady_clock::time_point start)
{
    return duration<double, std::micro>(steady_clock::now() - start).count();
}

[[noreturn]] void Fail(const char* what)
{
    std::perror(what);
    std::exit(1);
}

class BrokerTarget {
public:
    BrokerTarget()
    {
        VEQ::BrokerContext context;
        context.setConnectionMethod(VEQ::ConnectionMethod::LocalSocket);
        context.setElevationType(VEQ::ElevationType::User);
        context.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::App);
        for (int i = 0; i < kBrokers; ++i) {
            VEQ::ClientContext client;
            client.extensionId = "bench-" + std::to_string(i);
            brokers_.push_back(std::make_unique<BenchBroker>(context, client));
            brokers_.back()->StartServer();
            clients_.push_back(std::make_unique<ClientConnection>());
            if (!clients_.back()->Connect(VEQ::String::UTF16ToUTF8(brokers_.back()->get_soketID()), 5s)) {
                std::fprintf(stderr, "cannot connect: %s\n", clients_.back()->LastError().c_str());
                std::exit(1);
            }
        }
        readyAt_.assign(kBrokers, steady_clock::now());
        message_.notification.command = "Echo";
        message_.notification.payload = R"({"request":"status"})";
    }

    // The next broker whose pause is over, waiting for it if need be.
    double Sample()
    {
        const int b = next_++ % kBrokers;
        std::this_thread::sleep_until(readyAt_[b]);
        message_.guid = "g" + std::to_string(next_);
        const auto start = steady_clock::now();
        auto result = clients_[b]->Send(message_, 5s);
        const double elapsed = MicrosSince(start);
        readyAt_[b] = steady_clock::now() + kBrokerPause;
        if (!result || !result->isSuccess) {
            std::fprintf(stderr, "broker request failed\n");
            std::exit(1);
        }
        return elapsed;
    }

private:
    std::vector<std::unique_ptr<BenchBroker>> brokers_;
    std::vector<std::unique_ptr<ClientConnection>> clients_;
    std::vector<steady_clock::time_point> readyAt_;
    Message message_;
    int next_ = 0;
};

// A bare ZeroMQ echo. With handOff, the echo makes the hand-off every broker command makes: the
// receiving thread runs the answer as a task on a pool thread, waits for it, then sends it itself.
// That is the least a broker can cost.
class ZmqEchoTarget {
public:
    ZmqEchoTarget(const std::string& root, bool handOff)
        : server_(context_, zmq::socket_type::router), client_(context_, zmq::socket_type::dealer)
    {
        const std::string address = "ipc://" + root + (handOff ? "/zmq-hand-off-echo" : "/zmq-echo");
        server_.bind(address);
        echo_ = std::thread([this, handOff] {
            while (true) {
                zmq::message_t id;
                zmq::message_t body;
                if (!server_.recv(id) || !server_.recv(body) || body.size() == 0) {
                    return;
                }
                if (handOff) {
                    auto answer =
                        VEQ::TaskPool::Shared().Submit([&body] { return zmq::message_t(body.data(), body.size()); });
                    answer.wait();
                    body = answer.get();
                }
                server_.send(id, zmq::send_flags::sndmore);
                server_.send(body, zmq::send_flags::none);
            }
        });
        client_.connect(address);
    }

    ~ZmqEchoTarget()
    {
        client_.send(zmq::message_t(), zmq::send_flags::none);
        echo_.join();
    }

    double Sample()
    {
        const auto start = steady_clock::now();
        client_.send(zmq::buffer(kFrame));
        zmq::message_t reply;
        (void)client_.recv(reply);
        return MicrosSince(start);
    }

private:
    zmq::context_t context_{1};
    zmq::socket_t server_;
    zmq::socket_t client_;
    std::thread echo_;
};

class UnixEchoTarget {
public:
    explicit UnixEchoTarget(const std::string& root)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s/unix-echo", root.c_str());
        listener_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(listener_, 1) != 0) {
            Fail("unix echo");
        }
        echo_ = std::thread([this] {
            const int peer = ::accept(listener_, nullptr, nullptr);
            char buffer[4096];
            ssize_t count = 0;
            while ((count = ::read(peer, buffer, sizeof(buffer))) > 0) {
                if (::write(peer, buffer, static_cast<size_t>(count)) != count) {
                    break;
                }
            }
            ::close(peer);
        });
        client_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (::connect(client_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            Fail("unix connect");
        }
    }

    ~UnixEchoTarget()
    {
        ::close(client_);
        echo_.join();
        ::close(listener_);
    }

    double Sample()
    {
        char buffer[4096];
        const auto start = steady_clock::now();
        if (::write(client_, kFrame.data(), kFrame.size()) != static_cast<ssize_t>(kFrame.size())) {
            Fail("unix write");
        }
        size_t received = 0;
        while (received < kFrame.size()) {
            const ssize_t count = ::read(client_, buffer, sizeof(buffer));
            if (count <= 0) {
                Fail("unix read");
            }
            received += static_cast<size_t>(count);
        }
        return MicrosSince(start);
    }

private:
    int listener_ = -1;
    int client_ = -1;
    std::thread echo_;
};

// Our endpoint and client with a bare answering loop: the transport's share of the broker's time.
class TransportEchoTarget {
public:
    explicit TransportEchoTarget(const std::string& root)
    {
        Tavrin::Veq::ClientBroker::ConnectionDetails details{1, root + "/transport-echo"};
        if (endpoint_.Start(details) != 0) {
            Fail("transport echo");
        }
        answering_ = std::thread([this] {
            while (true) {
                auto received = endpoint_.Wait(Tavrin::Veq::ClientBroker::INotificationBase::kInfinite);
                if (received.message.notification.command.empty()) {
                    return;
                }
                Tavrin::Veq::ClientBroker::Result answer;
                answer.isSuccess = true;
                answer.message = received.message;
                endpoint_.SendResult(answer);
            }
        });
        if (!client_.Connect(root + "/transport-echo", 5s)) {
            Fail("transport echo connect");
        }
        message_.notification.command = "Echo";
        message_.notification.payload = R"({"request":"status"})";
    }

    ~TransportEchoTarget()
    {
        endpoint_.Stop();
        answering_.join();
    }

    double Sample()
    {
        message_.guid = "t" + std::to_string(next_++);
        const auto start = steady_clock::now();
        if (!client_.Send(message_, 5s)) {
            Fail("transport echo send");
        }
        return MicrosSince(start);
    }

private:
    Tavrin::Veq::ClientBroker::ZmqServerEndpoint endpoint_;
    ClientConnection client_;
    std::thread answering_;
    Message message_;
    int next_ = 0;
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

}  // namespace

int main()
{
    char rootTemplate[] = "/tmp/veq-bench-XXXXXX";
    const std::string root = ::mkdtemp(rootTemplate);
    VEQ::Platform::Install({VEQ::String::UTF8ToUTF16(root)});
    {
        UnixEchoTarget unixEcho(root);
        ZmqEchoTarget zmqEcho(root, false);
        ZmqEchoTarget handOffEcho(root, true);
        TransportEchoTarget transport(root);
        BrokerTarget broker;
        struct Target {
            const char* name;
            std::function<double()> sample;
            std::vector<double> samples;
        };
        std::vector<Target> targets;
        targets.push_back({"raw Unix-socket echo", [&] { return unixEcho.Sample(); }, {}});
        targets.push_back({"bare ZeroMQ echo", [&] { return zmqEcho.Sample(); }, {}});
        targets.push_back({"ZeroMQ echo + hand-off", [&] { return handOffEcho.Sample(); }, {}});
        targets.push_back({"our transport echo", [&] { return transport.Sample(); }, {}});
        targets.push_back({"broker command", [&] { return broker.Sample(); }, {}});
        // Each round asks every target once, in an order that rotates, so that none always comes
        // first after the pause or right after another.
        const auto gap = duration_cast<microseconds>(kBrokerPause) / kBrokers / targets.size();
        for (int i = 0; i < kSamples + kWarmUp; ++i) {
            for (size_t k = 0; k < targets.size(); ++k) {
                Target& target = targets[(k + static_cast<size_t>(i)) % targets.size()];
                std::this_thread::sleep_for(gap);
                const double sample = target.sample();  // the broker also sleeps until its broker is ready
                if (i >= kWarmUp) {
                    target.samples.push_back(sample);
                }
            }
        }
        std::printf("round trip on this machine, %d interleaved samples each, ~%lld us apart (microseconds)\n",
                    kSamples, static_cast<long long>(gap.count()));
        std::printf("%-24s %10s %10s\n", "", "median", "p99");
        std::vector<Figures> figures;
        for (const auto& target : targets) {
            figures.push_back(Summarise(target.samples));
            std::printf("%-24s %10.1f %10.1f\n", target.name, figures.back().median, figures.back().p99);
        }
        const Figures& z = figures[1];
        const Figures& h = figures[2];
        const Figures& b = figures[4];
        std::printf("hand-off alone / ZeroMQ echo: median %.2fx (what the dispatch threading costs by itself)\n",
                    h.median / z.median);
        std::printf("broker / ZeroMQ echo: median %.2fx, p99 %.2fx (target: median <= 1.5x)\n", b.median / z.median,
                    b.p99 / z.p99);
    }
    std::filesystem::remove_all(root);
    return 0;
}
