#include "daemon/HostConfig.h"

#include "platform/string/String.h"

#include <json/json.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>

namespace VEQ {
namespace {

// Each reader accepts an absent member and refuses one of the wrong type.
bool ReadBool(const Json::Value& object, const char* name, bool& out, std::string& error)
{
    const Json::Value& value = object[name];
    if (value.isNull()) {
        return true;
    }
    if (!value.isBool()) {
        error = std::string("\"") + name + "\" must be true or false";
        return false;
    }
    out = value.asBool();
    return true;
}

bool ReadString(const Json::Value& object, const char* name, std::string& out, std::string& error)
{
    const Json::Value& value = object[name];
    if (value.isNull()) {
        return true;
    }
    if (!value.isString()) {
        error = std::string("\"") + name + "\" must be a string";
        return false;
    }
    out = value.asString();
    return true;
}

// Paths in the host configuration must not depend on where the service was started.
bool ReadAbsolutePath(const Json::Value& object, const char* name, std::string& out, std::string& error)
{
    if (!ReadString(object, name, out, error)) {
        return false;
    }
    if (!out.empty() && out.front() != '/') {
        error = std::string("\"") + name + "\" must be an absolute path";
        return false;
    }
    return true;
}

bool ReadInt(const Json::Value& object, const char* name, int32_t& out, int32_t low, int32_t high, std::string& error)
{
    const Json::Value& value = object[name];
    if (value.isNull()) {
        return true;
    }
    if (!value.isInt() || value.asInt() < low || value.asInt() > high) {
        error = std::string("\"") + name + "\" must be a whole number from " + std::to_string(low) + " to " +
                std::to_string(high);
        return false;
    }
    out = value.asInt();
    return true;
}

bool ReadSection(const Json::Value& root, const char* name, Json::Value& out, std::string& error)
{
    out = root[name];
    if (!out.isNull() && !out.isObject()) {
        error = std::string("\"") + name + "\" must be an object";
        return false;
    }
    if (out.isNull()) {
        out = Json::Value(Json::objectValue);
    }
    return true;
}

}  // namespace

std::optional<HostConfig> HostConfig::Load(const std::string& path, bool optional, std::string& error)
{
    std::ifstream file(path);
    if (!file) {
        if (errno == ENOENT && optional) {
            return HostConfig();
        }
        error = path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    std::stringstream text;
    text << file.rdbuf();
    auto config = Parse(text.str(), error);
    if (!config) {
        error = path + ": " + error;
    }
    return config;
}

std::optional<HostConfig> HostConfig::Parse(const std::string& text, std::string& error)
{
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string parseErrors;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &parseErrors) || !root.isObject()) {
            error = "not a JSON object" + (parseErrors.empty() ? std::string() : ": " + parseErrors);
            return std::nullopt;
        }
    } catch (const Json::Exception& failure) {
        error = failure.what();
        return std::nullopt;
    }
    HostConfig config;
    Json::Value developer;
    Json::Value paths;
    Json::Value trust;
    Json::Value plugins;
    Json::Value sessions;
    Json::Value endpoints;
    Json::Value mqtt;
    Json::Value tls;
    Json::Value http;
    Json::Value policy;
    std::string realm;
    std::string apiMtlsBaseUri;
    int32_t runtimeRelease = static_cast<int32_t>(config.hostRuntimeRelease);
    const bool valid =
        ReadSection(root, "developer", developer, error) && ReadSection(root, "endpoints", endpoints, error) &&
        ReadSection(root, "paths", paths, error) && ReadSection(root, "trust", trust, error) &&
        ReadSection(root, "plugins", plugins, error) && ReadSection(root, "sessions", sessions, error) &&
        ReadString(sessions, "source", config.sessionSource, error) &&
        ReadAbsolutePath(sessions, "file", config.sessionFile, error) &&
        ReadBool(developer, "skipHostSignatureCheck", config.skipHostSignatureCheck, error) &&
        ReadBool(developer, "skipPluginSignatureCheck", config.skipPluginSignatureCheck, error) &&
        ReadBool(developer, "disableSecurity", config.disableSecurity, error) &&
        ReadAbsolutePath(paths, "systemRoot", config.systemRoot, error) &&
        ReadAbsolutePath(paths, "commonDataRoot", config.commonDataRoot, error) &&
        ReadAbsolutePath(trust, "caFile", config.trustCaFile, error) &&
        ReadInt(plugins, "hostRuntimeRelease", runtimeRelease, 0, std::numeric_limits<int32_t>::max(), error) &&
        ReadInt(plugins, "processorArchitecture", config.processorArchitecture, 0, 65535, error) &&
        ReadSection(root, "mqtt", mqtt, error) && ReadSection(mqtt, "tls", tls, error) &&
        ReadBool(developer, "customSettingsEnabled", config.customSettingsEnabled, error) &&
        ReadBool(developer, "skipSignedContentCheck", config.skipSignedContentCheck, error) &&
        ReadString(endpoints, "realm", realm, error) && ReadString(mqtt, "host", config.mqtt.host, error) &&
        ReadInt(mqtt, "port", config.mqtt.port, 1, 65535, error) &&
        ReadString(mqtt, "clientId", config.mqtt.clientId, error) &&
        ReadString(mqtt, "username", config.mqtt.username, error) &&
        ReadString(mqtt, "password", config.mqtt.password, error) &&
        ReadInt(mqtt, "keepAliveSeconds", config.mqtt.keepAliveSeconds, 5, 3600, error) &&
        ReadString(mqtt, "topicRoot", config.mqtt.topicRoot, error) &&
        ReadString(tls, "caFile", config.mqtt.caFile, error) && ReadString(tls, "certFile", config.mqtt.certFile, error) &&
        ReadString(tls, "keyFile", config.mqtt.keyFile, error) && ReadSection(root, "http", http, error) &&
        ReadAbsolutePath(http, "clientCert", config.http.clientCert, error) &&
        ReadAbsolutePath(http, "clientKey", config.http.clientKey, error) &&
        ReadAbsolutePath(http, "caFile", config.http.caFile, error) &&
        ReadAbsolutePath(http, "publicCaFile", config.http.publicCaFile, error) &&
        ReadString(http, "proxy", config.http.proxy, error) &&
        ReadString(http, "serviceGateUnit", config.http.serviceGateUnit, error) &&
        ReadString(endpoints, "apiMtlsBaseUri", apiMtlsBaseUri, error) && ReadSection(root, "policy", policy, error) &&
        ReadString(policy, "url", config.policy.url, error) && ReadString(policy, "refresh", config.policy.refresh, error);
    if (!valid) {
        return std::nullopt;
    }
    config.realm = String::UTF8ToUTF16(realm);
    config.apiMtlsBaseUri = String::UTF8ToUTF16(apiMtlsBaseUri);
    config.hostRuntimeRelease = static_cast<uint32_t>(runtimeRelease);
    if (config.sessionSource != "logind" && config.sessionSource != "file") {
        error = "\"source\" must be \"logind\" or \"file\"";
        return std::nullopt;
    }
    if (!config.policy.url.empty() && config.policy.url.rfind("https://", 0) != 0) {
        error = "\"url\" of \"policy\" must be an https URL";
        return std::nullopt;
    }
    if (config.policy.refresh != "service" && config.policy.refresh != "external") {
        error = "\"refresh\" of \"policy\" must be \"service\" or \"external\"";
        return std::nullopt;
    }
    if (config.sessionSource == "file" && config.sessionFile.empty()) {
        error = "\"sessions\" with \"source\": \"file\" needs \"file\"";
        return std::nullopt;
    }
    return config;
}

}  // namespace VEQ
