#pragma once
// The one place where the implementations behind the platform facades are installed.
// veqd installs the Linux implementations and its agents at start; tests install doubles in
// their fixtures. A facade used before Install runs gets the Linux implementation with default paths.

#include <functional>
#include <memory>
#include <string>

namespace Tavrin::Veq::ClientBroker {
class INotificationBase;
}

namespace VEQ {

class IConfigAgent;
class IFileSystem;
class INotificationAgent;
class IProcessApi;
class IRegistryStore;

// Where the service keeps its state. Empty members take their defaults at Install:
// dataRoot: /var/lib/veq for root, else $XDG_STATE_HOME/veq (~/.local/state/veq);
// registryRoot: dataRoot + "/registry"; logRoot: dataRoot + "/log".
struct PlatformPaths {
    std::wstring dataRoot;
    std::wstring registryRoot;
    std::wstring logRoot;
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
    // Makes the transport endpoints (by role); empty: the ZeroMQ endpoint.
    EndpointFactoryFunction endpointFactory;
};

class Platform {
public:
    static void Install(const PlatformPaths& paths, PlatformServices services = {});
    static PlatformPaths Paths();
    static std::shared_ptr<IFileSystem> FileSystem();
    static std::shared_ptr<IRegistryStore> Registry();
    static std::shared_ptr<IProcessApi> Process();
    static std::shared_ptr<IConfigAgent> ConfigAgent();
    static std::shared_ptr<INotificationAgent> NotificationAgent();
    static EndpointFactoryFunction EndpointFactory();

    static std::wstring DefaultDataRoot();
};

}  // namespace VEQ
