// Feeds bytes to the configuration policy reader as the policy file an administrator (or whoever
// can write it) leaves on disk, then reads the document in force the way the module does: the app
// and plugin settings, the MQTT, platform and update policies, the package list clients ask for.
// A policy written by hand must never make a reader throw, crash, leak or hang, and the text that
// clients receive as "configPolicy" must read back as the document in force.

#include "module/Extensions.h"
#include "platform/Platform.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/PolicyFile.h"
#include "platform/string/String.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::wstring policyPath;

// The private root goes when the run ends.
struct Root {
    std::string path;
    ~Root()
    {
        if (!path.empty()) {
            std::filesystem::remove_all(path);
        }
    }
} root;

[[noreturn]] void Fail(const char* what, const std::string& detail)
{
    std::fprintf(stderr, "policy: %s\n%s\n", what, detail.c_str());
    std::abort();
}

bool WritePolicyFile(const uint8_t* data, size_t size)
{
    const int fd = open(VEQ::String::UTF16ToUTF8(policyPath).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    const bool written = write(fd, data, size) == static_cast<ssize_t>(size);
    close(fd);
    return written;
}

// What the app and plugin managers take from the settings of each application entry.
void ReadExtensionSettings(VEQ::ConfigPolicyAgent& agent)
{
    VEQ::DeviceConfigPolicy policy;
    agent.GetDeviceConfigPolicy(policy);
    for (const auto& entry : policy.app_settings()) {
        const VEQ::ExtensionAppSettings* apps = entry.settings().extension_apps();
        if (apps == nullptr) {
            continue;
        }
        VEQ::Extensions::ConvertAppExtensionsEnablementStringToState(apps->enablement());
        VEQ::Extensions::ConvertElevationStringToType(apps->ipcMethods_afunix());
        VEQ::Extensions::ConvertPluginEnablementStringToType(apps->enabledPluginType());
        VEQ::Extensions::ConvertControlTypeStringToType(apps->controlType());
        for (const auto& client : apps->clients()) {
            VEQ::Extensions::ConvertElevationStringToType(client.clientElevation());
        }
    }
}

// "Get-Packagelist" filters the packages by the tags a client sends; the policy's own tags make
// filters that match, their values changed make filters that do not.
void ReadPackages(VEQ::ConfigPolicyAgent& agent)
{
    VEQ::UpdatePolicy update;
    agent.GetUpdatePolicy(update);
    agent.GetPackageDetailsInConfig(nullptr);
    const auto& packages = update.GetPackages();
    // Each filter reads the whole list again: a few packages show what a longer list would.
    for (size_t i = 0; i < packages.size() && i < 4; ++i) {
        const VEQ::Package& package = packages[i];
        std::vector<VEQ::KeyValuePair> tags = package.tags();
        if (agent.GetPackageDetailsInConfig(&tags)["packages"].empty()) {
            Fail("a package's own tags do not select it", VEQ::String::UTF16ToUTF8(package.packageId()));
        }
        for (auto& tag : tags) {
            tag.value += L"?";
        }
        agent.GetPackageDetailsInConfig(&tags);
    }
}

// Clients parse "configPolicy" as one line of JSON; texts that were not UTF-8 reach them as U+FFFD,
// so only a document without it must come back equal.
void CheckConfigPolicyText(VEQ::ConfigPolicyAgent& agent)
{
    const std::wstring wide = agent.GetConfigPolicy();
    const std::string text = VEQ::String::UTF16ToUTF8(wide);
    Json::Value reread;
    std::string error;
    if (!VEQ::PolicyFile::Parse(text, reread, error) || !reread.isObject()) {
        Fail("\"configPolicy\" is not a JSON object", error + "\n" + text);
    }
    if (wide.find(L'\xFFFD') == std::wstring::npos && reread != agent.GetPolicyDocument()) {
        Fail("\"configPolicy\" does not read back as the policy in force", text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    // Logs and roots below a private folder, never the machine's. The file is rewritten on every
    // input: in memory where there is a tmpfs, as ext4 flushes a file truncated and written again.
    std::string path = "/dev/shm/veq-policy-fuzz-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        path = "/tmp/veq-policy-fuzz-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            std::abort();
        }
    }
    root.path = path;
    VEQ::PlatformPaths paths;
    paths.dataRoot = VEQ::String::UTF8ToUTF16(path);
    paths.logRoot = L"/dev/null/none";  // no log file can open there: logging costs nothing
    paths.systemRoot = paths.dataRoot + L"/system";
    VEQ::Platform::Install(paths);
    policyPath = paths.dataRoot + L"/policy.json";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    VEQ::ConfigPolicyAgent& agent = *VEQ::ConfigPolicyAgent::GetInstance();
    agent.SetPolicyDocument(Json::Value());  // each input on its own, not on the last good one
    if (!WritePolicyFile(data, size) || !agent.LoadFromFile(policyPath)) {
        return 0;
    }
    ReadExtensionSettings(agent);
    VEQ::PlatformPolicy platform(nullptr);
    agent.LoadPlatformPolicy(platform);
    VEQ::MqttPolicy mqtt;
    agent.GetMqttPolicy(mqtt);
    ReadPackages(agent);
    CheckConfigPolicyText(agent);
    return 0;
}
