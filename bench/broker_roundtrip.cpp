// Round trip of a cheap command through real brokers, next to a bare ZeroMQ echo, a raw
// Unix-socket echo and a D-Bus method call on the same machine. Prints median and p99 of each.
//
// They are sampled in turn, one request each per round, with the same pause before each,
// so that they see the same machine. A broker pauses 100 ms after each message (its rate limit);
// that pause is not counted: the rounds rotate over many brokers, and each broker is asked again
// only once its pause is over.
//
// The D-Bus call goes through a private dbus-daemon (the session configuration, on a socket of
// this run's folder) to an object served by sd-bus on a thread with a bus connection and event
// loop of its own, as the brokers are threads of this process: the common way of asking a local
// service something on Linux, as an anchor for what a broker command costs.
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
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
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

[[noreturn]] void FailBus(const char* what, int error)
{
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(-error));
    std::exit(1);
}

// A private dbus-daemon with the session bus's configuration, listening on a socket below root.
class DbusDaemon {
public:
    explicit DbusDaemon(const std::string& root)
    {
        std::string listen = "--address=unix:path=" + root + "/dbus-socket";
        std::vector<std::string> args = {"dbus-daemon", "--session", "--nofork", "--print-address", listen};
        std::vector<char*> argv;
        for (auto& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        // What it says on stderr is kept for a failed start: it warns of limits it cannot raise.
        const std::string log = root + "/dbus-daemon.log";
        const int errors = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        int output[2];
        if (errors < 0 || ::pipe2(output, O_CLOEXEC) != 0) {
            Fail("dbus-daemon output");
        }
        pid_ = ::fork();
        if (pid_ < 0) {
            Fail("fork");
        }
        if (pid_ == 0) {
            ::dup2(output[1], STDOUT_FILENO);
            ::dup2(errors, STDERR_FILENO);
            ::execvp(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(errors);
        ::close(output[1]);
        // It prints its address once it listens.
        char c = 0;
        while (::read(output[0], &c, 1) == 1 && c != '\n') {
            address_ += c;
        }
        ::close(output[0]);
        if (address_.empty()) {
            std::ifstream said(log);
            std::fprintf(stderr, "dbus-daemon did not start (is it installed? scripts/install-deps)\n%s\n",
                         std::string(std::istreambuf_iterator<char>(said), {}).c_str());
            std::exit(1);
        }
    }

    ~DbusDaemon()
    {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }

    const std::string& Address() const { return address_; }

private:
    pid_t pid_ = -1;
    std::string address_;
};

constexpr const char* kBusName = "org.tavrin.VeqBench";
constexpr const char* kObjectPath = "/org/tavrin/VeqBench";
constexpr const char* kInterface = "org.tavrin.VeqBench";
constexpr uint64_t kBusWakeMicros = 100000;  // how soon the echo's loop sees that it should end

int OnEcho(sd_bus_message* call, void*, sd_bus_error*)
{
    const char* text = nullptr;
    const int read = sd_bus_message_read(call, "s", &text);
    return read < 0 ? read : sd_bus_reply_method_return(call, "s", text);
}

const sd_bus_vtable kEchoVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "s", "s", OnEcho, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

sd_bus* OpenBus(const std::string& address)
{
    sd_bus* bus = nullptr;
    int error = sd_bus_new(&bus);
    if (error >= 0) {
        error = sd_bus_set_address(bus, address.c_str());
    }
    if (error >= 0) {
        error = sd_bus_set_bus_client(bus, 1);
    }
    if (error >= 0) {
        error = sd_bus_start(bus);
    }
    if (error < 0) {
        FailBus("cannot connect to the private bus", error);
    }
    return bus;
}

// An echo method on the bus: "Echo" takes a string and returns it. The server has a bus connection
// and event loop of its own on a thread of this process; the client calls from the sampling thread.
class DbusEchoTarget {
public:
    explicit DbusEchoTarget(const std::string& root) : daemon_(root)
    {
        std::promise<void> ready;
        auto served = ready.get_future();
        server_ = std::thread([this, &ready] { Serve(ready); });
        served.wait();
        client_ = OpenBus(daemon_.Address());
    }

    ~DbusEchoTarget()
    {
        sd_bus_flush_close_unref(client_);
        stop_ = true;
        server_.join();
    }

    double Sample()
    {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        const char* echoed = nullptr;
        const auto start = steady_clock::now();
        int result =
            sd_bus_call_method(client_, kBusName, kObjectPath, kInterface, "Echo", &error, &reply, "s", kFrame.c_str());
        if (result >= 0) {
            result = sd_bus_message_read(reply, "s", &echoed);
        }
        const double elapsed = MicrosSince(start);
        if (result < 0 || echoed == nullptr || kFrame != echoed) {
            FailBus(error.message != nullptr ? error.message : "D-Bus echo", result < 0 ? result : -EPROTO);
        }
        sd_bus_message_unref(reply);
        sd_bus_error_free(&error);
        return elapsed;
    }

private:
    void Serve(std::promise<void>& ready)
    {
        sd_bus* bus = OpenBus(daemon_.Address());
        sd_bus_slot* slot = nullptr;
        int error = sd_bus_add_object_vtable(bus, &slot, kObjectPath, kInterface, kEchoVtable, nullptr);
        if (error >= 0) {
            error = sd_bus_request_name(bus, kBusName, 0);
        }
        if (error < 0) {
            FailBus("cannot serve the D-Bus echo", error);
        }
        ready.set_value();
        while (!stop_) {
            error = sd_bus_process(bus, nullptr);
            if (error < 0) {
                FailBus("D-Bus echo loop", error);
            }
            if (error == 0) {
                sd_bus_wait(bus, kBusWakeMicros);
            }
        }
        sd_bus_slot_unref(slot);
        sd_bus_flush_close_unref(bus);
    }

    DbusDaemon daemon_;
    sd_bus* client_ = nullptr;
    std::atomic<bool> stop_{false};
    std::thread server_;
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
        DbusEchoTarget dbusEcho(root);  // first: it forks dbus-daemon while this process has few threads
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
        targets.push_back({"D-Bus method call", [&] { return dbusEcho.Sample(); }, {}});
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
        const Figures& d = figures[5];
        std::printf("broker / ZeroMQ echo: median %.2fx, p99 %.2fx (target: median <= 1.5x)\n", b.median / z.median,
                    b.p99 / z.p99);
        std::printf("broker command / D-Bus call: median %.2fx, p99 %.2fx\n", b.median / d.median, b.p99 / d.p99);
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
