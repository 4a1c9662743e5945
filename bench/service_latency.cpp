// Two latencies of the service that apps feel, on this machine:
//  - handshake to first reply: "ConnectTo-Veq" on the global socket, connecting to the private
//    broker, and the result of a first "Get-VeqStatus" (target: median <= 2 ms);
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

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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
struct Phases {
    std::vector<double> handshake;
    std::vector<double> connect;
    std::vector<double> command;
};

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
        for (int i = 0; i < kHandshakes; ++i) {
            handshakes.push_back(HandshakeToFirstReply(globalPath, i, phases));
            std::this_thread::sleep_for(kHandshakeSpacing);
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
        Report("policy write to push", pushes, "median <= 100 ms");
        listener.Close();
        manager.Stop();
    }
    watcher.Stop();
    std::filesystem::remove_all(root);
    return 0;
}
