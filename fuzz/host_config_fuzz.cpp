// Feeds bytes to the reader of veqd's host configuration. The file is the administrator's, but a
// bad one must stop the service with a message, not crash it or let it start on settings the
// reader promises to refuse: relative paths, ports and intervals out of range, a policy URL that
// is not https, a session source it does not know.

#include "daemon/HostConfig.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace {

[[noreturn]] void Fail(const char* what, const std::string& text)
{
    std::fprintf(stderr, "host config: %s\n%s\n", what, text.c_str());
    std::abort();
}

bool AbsoluteOrEmpty(const std::string& path)
{
    return path.empty() || path.front() == '/';
}

void CheckAccepted(const VEQ::HostConfig& config, const std::string& text)
{
    const std::pair<const char*, const std::string*> paths[] = {
        {"paths.systemRoot", &config.systemRoot},   {"paths.commonDataRoot", &config.commonDataRoot},
        {"trust.caFile", &config.trustCaFile},      {"sessions.file", &config.sessionFile},
        {"http.clientCert", &config.http.clientCert}, {"http.clientKey", &config.http.clientKey},
        {"http.caFile", &config.http.caFile},       {"http.publicCaFile", &config.http.publicCaFile},
    };
    for (const auto& [name, path] : paths) {
        if (!AbsoluteOrEmpty(*path)) {
            Fail((std::string(name) + " was taken relative").c_str(), text);
        }
    }
    if (config.sessionSource != "logind" && config.sessionSource != "file") {
        Fail("an unknown session source was taken", text);
    }
    if (config.sessionSource == "file" && config.sessionFile.empty()) {
        Fail("a session file source was taken without a file", text);
    }
    if (config.mqtt.port < 1 || config.mqtt.port > 65535) {
        Fail("mqtt.port out of range was taken", text);
    }
    if (config.mqtt.keepAliveSeconds < 5 || config.mqtt.keepAliveSeconds > 3600) {
        Fail("mqtt.keepAliveSeconds out of range was taken", text);
    }
    if (config.processorArchitecture < -1 || config.processorArchitecture > 65535) {
        Fail("plugins.processorArchitecture out of range was taken", text);
    }
    if (config.hostRuntimeRelease > 0x7FFFFFFFu) {
        Fail("plugins.hostRuntimeRelease out of range was taken", text);
    }
    if (!config.policy.url.empty() && config.policy.url.rfind("https://", 0) != 0) {
        Fail("a policy URL that is not https was taken", text);
    }
    if (config.policy.refresh != "service" && config.policy.refresh != "external") {
        Fail("an unknown policy refresh was taken", text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string error;
    if (const auto config = VEQ::HostConfig::Parse(text, error)) {
        CheckAccepted(*config, text);
    } else if (error.empty()) {
        Fail("a configuration was refused without a message", text);
    }
    return 0;
}
