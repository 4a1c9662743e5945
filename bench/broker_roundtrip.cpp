// Round trip of a cheap command through real brokers, next to a bare ZeroMQ echo and a raw
// Unix-socket echo on the same machine. Prints median and p99 of each.
//
// The three are sampled in turn, one request each per round, with the same pause before each,
// so that they see the same machine. A broker pauses 100 ms after each message (its rate limit);
// that pause is not counted: the rounds rotate over many brokers, and each broker is asked again
// only once its pause is over.
//
// Then, with veqd as a process on a root of its own below $TMPDIR, one signed embedded plugin on
// the elevated side and apps connected there through the SDK: an app's command routed to the
// plugin by its id until the plugin's reply is back, beside "Get-VeqStatus" answered by the
// service itself, sampled in turn in the same way over the same service.

#include "broker/BaseClientBroker.h"
#include "platform/Platform.h"
#include "platform/string/String.h"
#include "platform/sync/TaskPool.h"
#include "platform/transport/ClientConnection.h"
#include "platform/transport/ZmqServerEndpoint.h"
#include "sdk/AppClient.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/FileStatus.h"
#include "tests/support/PluginWorld.h"
#include "tests/support/ScratchRoot.h"

#include <json/json.h>
#include <zmq.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
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
    double p90;
    double p99;
};

Figures Summarise(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    const auto at = [&samples](size_t percent) {
        return samples[std::min(samples.size() - 1, samples.size() * percent / 100)];
    };
    return {samples[samples.size() / 2], at(90), at(99)};
}

// Through veqd as a process: an app's command routed to a plugin, and one the service answers itself.

constexpr int kApps = 40;  // each has a broker of its own; the service takes at most 50 of one process
constexpr int kServiceWarmUp = 100;  // rounds; every app's broker has answered a few before counting
constexpr const char* kPluginId = "Bench.Echo";
// Not a name the tests' plugin acts on: it reports once connected and echoes what is routed to it.
constexpr const char* kPluginName = "EchoPlugin";
constexpr const char* kRoutedCommand = "Get-Echo";
constexpr const char* kLocalCommand = "Get-VeqStatus";
constexpr const char* kPayload = R"({"request":"status"})";
// Far beyond what a start takes: one this long is broken, not slow.
constexpr auto kStartDeadline = 20s;

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void WriteByRename(const std::string& path, const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    {
        std::ofstream file(path + ".new", std::ios::binary);
        file << Json::writeString(writer, value);
    }
    std::filesystem::rename(path + ".new", path);
}

// veqd with the plugin running on the elevated side, and kApps apps connected there. Members go in
// reverse: the apps leave while the service still runs, and a service that was not stopped by
// Stop is stopped (or killed) by its DaemonProcess.
class ServiceTargets {
public:
    explicit ServiceTargets(const std::string& root) : world_(root)
    {
        world_.AddEmbedded({kPluginId, kPluginName, "1.0.0.0", false, true, {kRoutedCommand}});
        const std::string sessionFile = root + "/session.json";
        VEQ::Test::PluginWorld::WriteSessions(sessionFile, -1, 0, {});  // nobody logged in: the elevated side only
        Json::Value config;
        config["paths"]["systemRoot"] = root + "/system";
        config["paths"]["commonDataRoot"] = root + "/common";
        config["trust"]["caFile"] = world_.Ca().CaFile();
        config["sessions"]["source"] = "file";
        config["sessions"]["file"] = sessionFile;
        WriteByRename(root + "/veqd.json", config);
        VEQ::Test::PluginPolicy policy;
        policy.enabledPluginType = "embedded";
        policy.sides = "elevated";
        WriteByRename(root + "/policy.json", VEQ::Test::PluginWorld::PolicyDocument(policy));

        veqd_ = std::make_unique<VEQ::Test::DaemonProcess>(
            root, std::vector<std::string>{"--config", root + "/veqd.json", "--policy", root + "/policy.json"});
        if (!veqd_->Start(kStartDeadline)) {
            throw Failure("veqd did not start: " + veqd_->Output());
        }
        // The plugin writes its report once the service has answered its questions: it is connected.
        const std::string report = world_.EmbeddedFolder(kPluginId) + "/elevated.report";
        const auto until = steady_clock::now() + kStartDeadline;
        while (!VEQ::Test::Exists(report)) {
            if (steady_clock::now() >= until) {
                throw Failure("the plugin did not connect within " + std::to_string(seconds(kStartDeadline).count()) +
                              " s:\n" + veqd_->Output());
            }
            std::this_thread::sleep_for(10ms);
        }
        for (int i = 0; i < kApps; ++i) {
            Veq::Sdk::AppClientOptions options;
            options.dataRoot = root;
            options.side = Veq::Sdk::Side::Elevated;
            options.extensionId = "Bench.App" + std::to_string(i);
            options.extensionName = "Bench app " + std::to_string(i);
            options.timeout = 10s;
            options.autoReconnect = false;
            apps_.push_back(std::make_unique<Veq::Sdk::AppClient>(options));
            if (auto error = apps_.back()->Connect()) {
                throw Failure("app " + std::to_string(i) + " could not connect: " + error.Message());
            }
        }
        readyAt_.assign(kApps, steady_clock::now());
    }

    // The next app whose broker's pause is over, waiting for it if need be.
    double Sample(bool routed)
    {
        const int a = next_++ % kApps;
        std::this_thread::sleep_until(readyAt_[a]);
        Veq::Sdk::AppClient::Result result;
        const auto start = steady_clock::now();
        const auto error = routed ? apps_[a]->Send(kRoutedCommand, kPayload, result, kPluginId)
                                  : apps_[a]->Send(kLocalCommand, "{}", result);
        const double elapsed = MicrosSince(start);
        readyAt_[a] = steady_clock::now() + kBrokerPause;
        if (error) {
            throw Failure(std::string(routed ? kRoutedCommand : kLocalCommand) + " failed: " + error.Message());
        }
        // A routed reply is the plugin's, stamped with its id; anything else went wrong on the way.
        if (!result.isSuccess || (routed && result.message.senderId != kPluginId)) {
            throw Failure(std::string(routed ? kRoutedCommand : kLocalCommand) + " was not answered: " +
                          std::to_string(result.message.statusCode) + " " + result.message.statusText);
        }
        return elapsed;
    }

    void Stop()
    {
        apps_.clear();
        if (veqd_->Stop() != 0) {
            std::fprintf(stderr, "veqd did not stop cleanly:\n%s\n", veqd_->Output().c_str());
        }
    }

private:
    VEQ::Test::PluginWorld world_;
    std::unique_ptr<VEQ::Test::DaemonProcess> veqd_;
    std::vector<std::unique_ptr<Veq::Sdk::AppClient>> apps_;
    std::vector<steady_clock::time_point> readyAt_;
    int next_ = 0;
};

void RoutedAndLocal()
{
    // Made before the service, so that the service has stopped before its files go.
    const VEQ::Test::ScratchRoot scratch("veq-route-bench");
    ServiceTargets service(scratch.Path());
    std::vector<double> samples[2];  // [0] routed, [1] local
    // Every app is asked again only once its broker's pause is over: two samples a round.
    const auto gap = duration_cast<microseconds>(kBrokerPause) / kApps;
    for (int i = 0; i < kSamples + kServiceWarmUp; ++i) {
        for (int k = 0; k < 2; ++k) {
            const int target = (k + i) % 2;
            std::this_thread::sleep_for(gap);
            const double sample = service.Sample(target == 0);
            if (i >= kServiceWarmUp) {
                samples[target].push_back(sample);
            }
        }
    }
    service.Stop();
    std::printf("\nthrough veqd as a process, apps on the elevated side, %d interleaved samples each, ~%lld us apart "
                "(microseconds)\n",
                kSamples, static_cast<long long>(gap.count()));
    std::printf("%-24s %10s %10s %10s\n", "", "median", "p90", "p99");
    const Figures routed = Summarise(samples[0]);
    const Figures local = Summarise(samples[1]);
    std::printf("%-24s %10.1f %10.1f %10.1f\n", "routed to a plugin", routed.median, routed.p90, routed.p99);
    std::printf("%-24s %10.1f %10.1f %10.1f\n", "local Get-VeqStatus", local.median, local.p90, local.p99);
    std::printf("routed / local: median %.2fx, p90 %.2fx\n", routed.median / local.median, routed.p90 / local.p90);
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
    int status = 0;
    try {
        RoutedAndLocal();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "broker_roundtrip: %s\n", error.what());
        status = 1;
    }
    std::filesystem::remove_all(root);
    return status;
}
