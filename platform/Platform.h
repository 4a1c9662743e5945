#pragma once
// The one place where the implementations behind the platform facades are installed.
// veqd installs the Linux implementations and its agents at start; tests install doubles in
// their fixtures. A facade used before Install runs gets the Linux implementation with default paths.

#include "platform/http/HttpClientSettings.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Tavrin::Veq::ClientBroker {
class INotificationBase;
}

namespace VEQ {

class ApplicabilityEvaluator;
class ICodeTrust;
class IConfigAgent;
class IFileSystem;
class INotificationAgent;
class IProcessApi;
class IRegistryStore;
class ISessionSource;

// Where the service keeps its state. Empty members take their defaults at Install:
// dataRoot: /var/lib/veq for root, else $XDG_STATE_HOME/veq (~/.local/state/veq);
// registryRoot: dataRoot + "/registry"; logRoot: dataRoot + "/log";
// systemRoot: the read-only product files (hosts, embedded plugins, resources), DefaultSystemRoot();
// commonDataRoot: data shared by all users (plugin repository, host copies), dataRoot + "/common".
// The module builds its paths below the last two as Windows does; PathMapper puts them here.
struct PlatformPaths {
    std::wstring dataRoot;
    std::wstring registryRoot;
    std::wstring logRoot;
    std::wstring systemRoot;
    std::wstring commonDataRoot;
};

// Host settings that platform parts read (docs/veqd.md). Defaults serve an ordinary machine.
struct PlatformSettings {
    // PEM bundle of the certificates that signed code and signed manifests must chain to.
    // Empty: nothing is trusted.
    std::wstring trustCaFile;
    // The release number of the host runtime that plugins are checked against.
    uint32_t hostRuntimeRelease = 533320;
    // Processor architecture as the service reports it (9 x64, 12 ARM64); -1: from uname.
    int32_t processorArchitecture = -1;
    // Where the active user session is learnt: "logind", or "file" (sessionFile, see SessionFileSource).
    std::string sessionSource = "logind";
    std::string sessionFile;
    // How the service reaches the back end over HTTPS (host config "http", docs/http.md).
    HttpClientSettings http;
};

using EndpointFactoryFunction = std::function<Tavrin::Veq::ClientBroker::INotificationBase*(const std::string& role)>;

// Replaceable implementations. A null member gets the Linux implementation, except the
// notification agent: without one the service runs without MQTT.
struct PlatformServices {
    std::shared_ptr<IFileSystem> fileSystem;
    std::shared_ptr<IRegistryStore> registry;
    std::shared_ptr<IProcessApi> process;
    // The device configuration policy; null: the process-wide ConfigPolicyAgent.
    std::shared_ptr<IConfigAgent> configAgent;
    std::shared_ptr<INotificationAgent> notificationAgent;
    // Code signatures and signed content; null: OpenSSL against PlatformSettings::trustCaFile.
    std::shared_ptr<ICodeTrust> codeTrust;
    // The active user session; null: as PlatformSettings::sessionSource says.
    std::shared_ptr<ISessionSource> sessionSource;
    // The applicability rule engine; null: ApplicabilityEvaluator itself.
    std::shared_ptr<ApplicabilityEvaluator> applicabilityEvaluator;
    // Makes the transport endpoints (by role); empty: the ZeroMQ endpoint.
    EndpointFactoryFunction endpointFactory;
};

class Platform {
public:
    static void Install(const PlatformPaths& paths, PlatformServices services = {}, PlatformSettings settings = {});
    static PlatformPaths Paths();
    static PlatformSettings Settings();
    static std::shared_ptr<IFileSystem> FileSystem();
    static std::shared_ptr<IRegistryStore> Registry();
    static std::shared_ptr<IProcessApi> Process();
    static std::shared_ptr<IConfigAgent> ConfigAgent();
    static std::shared_ptr<INotificationAgent> NotificationAgent();
    static EndpointFactoryFunction EndpointFactory();
    static std::shared_ptr<ICodeTrust> CodeTrust();
    static std::shared_ptr<ISessionSource> Sessions();
    static std::shared_ptr<ApplicabilityEvaluator> Evaluator();

    static std::wstring DefaultDataRoot();
    // /usr/lib/veq, or the build tree's staging folder for programs run from the build tree.
    static std::wstring DefaultSystemRoot();
};

}  // namespace VEQ
