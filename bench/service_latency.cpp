// Two latencies of the service that apps feel, on this machine:
//  - handshake to first reply: "ConnectTo-Veq" on the global socket, connecting to the private
//    broker, and the result of a first "Get-VeqStatus" (target: median <= 2 ms). The app is a
//    process of its own, as apps are: forked before the service starts any thread;
//  - policy write to push: a policy file written until a connected elevated app holds the
//    "Receive-DeviceConfig" push (target: median <= 100 ms).

#include "apps/AppExtensionManager.h"
#include "apps/AppExtensionOperator.h"
#include "platform/Platform.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/PolicyFileWatcher.h"
#include "platform/string/String.h"
#include "platform/transport/ClientConnection.h"
#include "platform/transport/WireCodec.h"
#include "sdk/AppClient.h"

#include <json/json.h>
#include <zmq.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono;
using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::ClientConnection;
using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::WireCodec;

namespace {

constexpr int kHandshakes = 300;
constexpr int kPolicyWrites = 30;
// Each handshake uses one of this process's 50 connection slots until the closed broker is swept
// (once a second), so handshakes are spread out.
constexpr auto kHandshakeSpacing = 25ms;

[[noreturn]] void Fail(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

double Median(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

void Report(const char* name, std::vector<double> samples, const char* target)
{
    std::sort(samples.begin(), samples.end());
    std::printf("%-28s median %8.2f ms   p99 %8.2f ms   (%zu samples, target: %s)\n", name,
                samples[samples.size() / 2], samples[std::min(samples.size() - 1, samples.size() * 99 / 100)],
                samples.size(), target);
}

std::string Policy(const std::string& marker)
{
    return R"({"app_settings":[{"application_id":"Tavrin.veq","settings":{"extension_apps":{"enablement":"enabled",)"
           R"("ipcMethods_afunix":"both"}}}],"mqtt":{"mqttFeatures":")" +
           marker + R"(","mqttConnectType":"0"}})";
}

void WritePolicy(const std::string& path, const std::string& text)
{
    std::ofstream(path + ".new") << text;
    std::filesystem::rename(path + ".new", path);
}

// Where a handshake's time goes: the handshake's reply, connecting to the private broker, the first command.
// Next to them, what ZeroMQ alone costs between the two processes: a fresh connection with one
// request and reply, and one request and reply on an open connection. The handshake needs two
// fresh connections (the global socket, then the broker's) and one more round trip at least.
struct Phases {
    std::vector<double> handshake;
    std::vector<double> connect;
    std::vector<double> command;
    std::vector<double> fresh;
    std::vector<double> roundTrip;
};
constexpr size_t kSamplesPerRound = 6;

double MillisSince(steady_clock::time_point start)
{
    return duration<double, std::milli>(steady_clock::now() - start).count();
}

double HandshakeToFirstReply(const std::string& globalPath, int index, Phases& phases)
{
    const auto start = steady_clock::now();
    ClientConnection global;
    if (!global.ConnectRequestsOnly(globalPath, 5s)) {
        Fail(global.LastError());
    }
    Message handshake;
    handshake.guid = "hs-" + std::to_string(index);
    handshake.notification.command = "ConnectTo-Veq";
    handshake.notification.payload = R"({"extensionId":"bench.app","sdkVersion":"1","clientProcessId":)" +
                                     std::to_string(::getpid()) + "}";
    auto reply = global.Send(handshake, 5s);
    phases.handshake.push_back(MillisSince(start));
    std::string error;
    auto payload = reply ? WireCodec::ParseObject(reply->message.notification.payload, error) : std::nullopt;
    const std::string brokerPath = payload ? (*payload)["callbackConnection"].asString() : "";
    if (brokerPath.empty()) {
        Fail("handshake refused or unanswered");
    }
    ClientConnection app;
    const auto connecting = steady_clock::now();
    if (!app.Connect(brokerPath, 5s)) {
        Fail(app.LastError());
    }
    phases.connect.push_back(MillisSince(connecting));
    const auto commanding = steady_clock::now();
    Message status;
    status.guid = "status-" + std::to_string(index);
    status.notification.command = "Get-VeqStatus";
    auto result = app.Send(status, 5s);
    const double elapsed = MillisSince(start);
    phases.command.push_back(MillisSince(commanding));
    if (!result || !result->isSuccess) {
        Fail("no first reply");
    }
    app.SendRaw({R"({"guid":"bye","notification":{"command":"Close-Connection"}})"});  // frees the slot
    return elapsed;
}

// A bare ZeroMQ echo in the service's process, for the app's reference figures.
class ZmqEcho {
public:
    explicit ZmqEcho(const std::string& path) : server_(context_, zmq::socket_type::router), address_("ipc://" + path)
    {
        server_.bind(address_);
        echo_ = std::thread([this] {
            while (true) {
                zmq::message_t id;
                zmq::message_t body;
                if (!server_.recv(id) || !server_.recv(body)) {
                    return;
                }
                if (body.size() == 0) {
                    return;
                }
                server_.send(id, zmq::send_flags::sndmore);
                server_.send(body, zmq::send_flags::none);
            }
        });
    }

    ~ZmqEcho()
    {
        zmq::socket_t stopper(context_, zmq::socket_type::dealer);
        stopper.connect(address_);
        stopper.send(zmq::message_t(), zmq::send_flags::none);
        echo_.join();
    }

private:
    zmq::context_t context_{1};
    zmq::socket_t server_;
    std::string address_;
    std::thread echo_;
};

double ZmqRequest(zmq::socket_t& socket)
{
    const auto start = steady_clock::now();
    socket.send(zmq::str_buffer("ping"), zmq::send_flags::none);
    zmq::message_t reply;
    if (!socket.recv(reply)) {
        Fail("no echo");
    }
    return MillisSince(start);
}

std::string ReadLine(int fd)
{
    std::string line;
    char c = 0;
    while (::read(fd, &c, 1) == 1 && c != '\n') {
        line += c;
    }
    return line;
}

// The app's side: reads the global socket's path and the echo's path from fromService, then sends
// the samples of each round (in ms) on toService.
[[noreturn]] void RunApp(int fromService, int toService)
{
    const std::string globalPath = ReadLine(fromService);
    const std::string echoPath = ReadLine(fromService);
    zmq::context_t context(1);
    zmq::socket_t open(context, zmq::socket_type::dealer);
    open.connect("ipc://" + echoPath);
    for (int i = 0; i < kHandshakes; ++i) {
        Phases phases;
        const double total = HandshakeToFirstReply(globalPath, i, phases);
        std::this_thread::sleep_for(kHandshakeSpacing / 2);
        const auto start = steady_clock::now();
        {
            zmq::socket_t fresh(context, zmq::socket_type::dealer);
            fresh.set(zmq::sockopt::linger, 0);
            fresh.connect("ipc://" + echoPath);
            ZmqRequest(fresh);
        }
        const double freshConnection = MillisSince(start);
        const double roundTrip = ZmqRequest(open);
        const double samples[kSamplesPerRound] = {total, phases.handshake.back(), phases.connect.back(),
                                                  phases.command.back(), freshConnection, roundTrip};
        if (::write(toService, samples, sizeof(samples)) != static_cast<ssize_t>(sizeof(samples))) {
            std::_Exit(1);
        }
        std::this_thread::sleep_for(kHandshakeSpacing / 2);
    }
    std::_Exit(0);
}

bool ReadSamples(int fromApp, std::vector<double>& handshakes, Phases& phases)
{
    for (int i = 0; i < kHandshakes; ++i) {
        double samples[kSamplesPerRound];
        size_t got = 0;
        while (got < sizeof(samples)) {
            const ssize_t n = ::read(fromApp, reinterpret_cast<char*>(samples) + got, sizeof(samples) - got);
            if (n <= 0) {
                return false;
            }
            got += static_cast<size_t>(n);
        }
        handshakes.push_back(samples[0]);
        phases.handshake.push_back(samples[1]);
        phases.connect.push_back(samples[2]);
        phases.command.push_back(samples[3]);
        phases.fresh.push_back(samples[4]);
        phases.roundTrip.push_back(samples[5]);
    }
    return true;
}

}  // namespace

int main()
{
    const char* base = std::getenv("TMPDIR");
    std::string rootTemplate = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/veq-bench-XXXXXX";
    if (::mkdtemp(rootTemplate.data()) == nullptr) {
        Fail("cannot make a folder under " + rootTemplate);
    }
    const std::string root = rootTemplate;
    std::printf("data root: %s\n", root.c_str());
    std::fflush(stdout);
    int toApp[2];
    int fromApp[2];
    if (::pipe(toApp) != 0 || ::pipe(fromApp) != 0) {
        Fail("cannot make pipes");
    }
    const pid_t app = ::fork();
    if (app < 0) {
        Fail("cannot fork the app");
    }
    if (app == 0) {
        RunApp(toApp[0], fromApp[1]);
    }
    const std::string policyPath = root + "/policy.json";
    VEQ::Platform::Install({VEQ::String::UTF8ToUTF16(root)});
    WritePolicy(policyPath, Policy("none"));
    VEQ::PolicyFileWatcher watcher(*VEQ::ConfigPolicyAgent::GetInstance());
    watcher.Start(VEQ::String::UTF8ToUTF16(policyPath));
    {
        VEQ::AppExtensionManager manager;
        manager.Start();

        const std::string globalPath =
            VEQ::String::UTF16ToUTF8(VEQ::AppExtensionOperator::GlobalSocketPath(VEQ::ElevationType::User));
        std::vector<double> handshakes;
        Phases phases;
        ZmqEcho echo(root + "/zmq-echo");
        const std::string line = globalPath + "\n" + root + "/zmq-echo\n";
        int status = 0;
        if (::write(toApp[1], line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
            !ReadSamples(fromApp[0], handshakes, phases) || ::waitpid(app, &status, 0) != app || status != 0) {
            Fail("the app process failed");
        }

        Veq::Sdk::AppClientOptions options;
        options.dataRoot = root;
        options.side = Veq::Sdk::Side::Elevated;
        options.extensionId = "bench.listener";
        Veq::Sdk::AppClient listener(options);
        if (auto error = listener.Connect()) {
            Fail(error.Message());
        }
        std::vector<double> pushes;
        for (int i = 0; i < kPolicyWrites; ++i) {
            const auto start = steady_clock::now();
            WritePolicy(policyPath, Policy("alerts-" + std::to_string(i)));
            auto push = listener.NextPush(5s);
            if (!push || push->command != "Receive-DeviceConfig") {
                Fail("no Receive-DeviceConfig after a policy write");
            }
            pushes.push_back(duration<double, std::milli>(steady_clock::now() - start).count());
        }
        Report("handshake to first reply", handshakes, "median <= 2 ms");
        Report("  of which handshake reply", phases.handshake, "-");
        Report("  of which broker connect", phases.connect, "-");
        Report("  of which first command", phases.command, "-");
        Report("ZeroMQ alone: fresh + 1 RTT", phases.fresh, "-");
        Report("ZeroMQ alone: 1 round trip", phases.roundTrip, "-");
        std::printf("ZeroMQ floor of a handshake (two fresh connections and a round trip): %.2f ms\n",
                    2 * Median(phases.fresh) + Median(phases.roundTrip));
        Report("policy write to push", pushes, "median <= 100 ms");
        listener.Close();
        manager.Stop();
    }
    watcher.Stop();
    std::filesystem::remove_all(root);
    return 0;
}
