#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace VEQ {

// The host's own settings, which are not policy (docs/veqd.md): developer switches, the tenant's
// endpoints, and the MQTT broker the service connects to.
struct HostConfig {
    bool customSettingsEnabled = false;
    bool skipSignedContentCheck = false;
    bool skipHostSignatureCheck = false;
    bool skipPluginSignatureCheck = false;
    bool disableSecurity = false;
    std::wstring realm;
    std::wstring apiMtlsBaseUri;  // endpoints.apiMtlsBaseUri

    std::string systemRoot;      // paths.systemRoot; empty: the platform's default
    std::string commonDataRoot;  // paths.commonDataRoot; empty: <root>/common
    std::string trustCaFile;     // trust.caFile
    uint32_t hostRuntimeRelease = 533320;  // plugins.hostRuntimeRelease
    int32_t processorArchitecture = -1;    // plugins.processorArchitecture; -1: from uname
    std::string sessionSource = "logind";  // sessions.source: "logind" or "file"
    std::string sessionFile;               // sessions.file

    // http.*: how the service reaches the back end (docs/http.md).
    struct Http {
        std::string clientCert;
        std::string clientKey;
        std::string caFile;
        std::string publicCaFile;
        std::string proxy;
        std::string serviceGateUnit;  // the unit behind the management service, or "always"/"never"
    } http;

    // policy.*: where a refresh asked by a client takes the policy from (docs/policy.md).
    struct Policy {
        std::string url;                  // empty: the policy file is re-read
        std::string refresh = "service";  // "service": this service refreshes; "external": another agent does
    } policy;

    struct Mqtt {
        std::string host;  // empty: the service runs without MQTT
        int32_t port = 1883;
        std::string clientId;
        std::string username;
        std::string password;
        int32_t keepAliveSeconds = 30;
        std::string caFile;
        std::string certFile;
        std::string keyFile;
        std::string topicRoot;
    } mqtt;

    // Reads a host configuration file. A missing file gives the defaults when optional is true;
    // anything unreadable or malformed gives nullopt and a message saying what is wrong.
    static std::optional<HostConfig> Load(const std::string& path, bool optional, std::string& error);
    static std::optional<HostConfig> Parse(const std::string& text, std::string& error);
};

}  // namespace VEQ
