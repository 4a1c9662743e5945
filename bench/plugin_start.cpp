// From PluginInstance::Start to the plugin's first command answered (target: median <= 300 ms):
// the broker, the two signature checks, the host copy, the host process as a child of the
// service, its connection and two questions about its plugin, loading the plugin, and the
// plugin's own first command. The host and the plugin are the real ones, signed by a CA made here.

#include "broker/BrokerContext.h"
#include "plugins/PluginInstance.h"
#include "platform/Platform.h"
#include "platform/fs/ProcessDataRoot.h"
#include "platform/string/String.h"
#include "platform/transport/FolderWatch.h"
#include "tests/support/TestCa.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace std::chrono;
using namespace std::chrono_literals;

namespace {

constexpr int kStarts = 40;

}  // namespace

int main()
{
    const char* tmp = std::getenv("TMPDIR");
    std::string root = std::string(tmp != nullptr && *tmp == '/' ? tmp : "/tmp") + "/veq-plugin-bench-XXXXXX";
    if (mkdtemp(root.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    VEQ::Test::TestCa ca(root + "/ca", "Bench CA");
    VEQ::PlatformPaths paths;
    paths.dataRoot = VEQ::String::UTF8ToUTF16(root);
    paths.systemRoot = paths.dataRoot + L"/system";
    VEQ::PlatformSettings settings;
    settings.trustCaFile = VEQ::String::UTF8ToUTF16(ca.CaFile());
    VEQ::Platform::Install(paths, {}, settings);
    VEQ::ProcessDataRoot::ExportForChildren(root);

    const std::string host = root + "/system/Service/Hosts/x64/VEQPluginHost.exe";
    const std::string folder = root + "/system/EmbeddedPlugins/Bench/bin";
    fs::create_directories(fs::path(host).parent_path());
    fs::create_directories(folder);
    fs::copy_file(VEQ_PLUGIN_HOST_PROGRAM, host);
    fs::copy_file(VEQ_TEST_PLUGIN, folder + "/BenchPlugin.dll");
    ca.SignFile(host);
    ca.SignFile(folder + "/BenchPlugin.dll");
    const VEQ::PluginManifest manifest("BenchPlugin", L"Bench", VEQ::RuntimeType::Unmanaged, "1.0", {}, {},
                                       VEQ::PluginExecutionDetails(VEQ::StartupType::Auto, {}, "", "\\bin\\BenchPlugin.dll"),
                                       L"");
    const VEQ::PluginDetails details(VEQ::PluginSourceType::Embedded, manifest);
    VEQ::BrokerContext context;
    context.setConnectionMethod(VEQ::ConnectionMethod::LocalSocket);
    context.setElevationType(VEQ::ElevationType::Elevated);
    context.setExtensionType(Tavrin::Veq::ClientBroker::ExtensionType::Plugin);

    const std::string marker = folder + "/elevated.first";
    std::vector<double> samples;
    for (int n = 0; n < kStarts; ++n) {
        fs::remove(marker);
        Tavrin::Veq::ClientBroker::FolderWatch watch(marker);
        VEQ::PluginInstance instance(details, context);
        const auto start = steady_clock::now();
        instance.Start();
        const auto deadline = start + 10s;
        while (!fs::exists(marker) && steady_clock::now() < deadline) {
            if (!watch.WaitForChange(duration_cast<microseconds>(deadline - steady_clock::now()))) {
                std::this_thread::sleep_for(1ms);  // the folder cannot be watched
            }
        }
        const auto answered = steady_clock::now();
        if (!fs::exists(marker)) {
            std::fprintf(stderr, "the plugin did not answer within 10 s (start %d)\n", n);
            return 1;
        }
        samples.push_back(duration<double, std::milli>(answered - start).count());
        instance.Suspend(true);
    }
    std::sort(samples.begin(), samples.end());
    std::printf("plugin start to first command answered (%d starts): median %.1f ms, p90 %.1f ms, min %.1f ms, "
                "max %.1f ms (target: median <= 300 ms)\n",
                kStarts, samples[samples.size() / 2], samples[samples.size() * 9 / 10], samples.front(), samples.back());
    fs::remove_all(root);
    return 0;
}
