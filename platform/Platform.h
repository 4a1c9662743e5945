#pragma once
// The one place where the implementations behind the platform facades are installed.
// veqd installs the Linux implementations at start; tests install doubles in their fixtures.
// A facade that is used before Install runs gets the Linux implementation with default paths.

#include <functional>
#include <memory>
#include <string>

namespace Tavrin::Veq::ClientBroker {
class INotificationBase;
}

namespace VEQ {

class IFileSystem;
class IRegistryStore;

// Where the service keeps its state. Empty members take their defaults at Install:
// dataRoot: /var/lib/veq for root, else $XDG_STATE_HOME/veq (~/.local/state/veq);
// registryRoot: dataRoot + "/registry"; logRoot: dataRoot + "/log".
struct PlatformPaths {
    std::wstring dataRoot;
    std::wstring registryRoot;
    std::wstring logRoot;
};

// Replaceable implementations. A null member gets the Linux implementation.
struct PlatformServices {
    std::shared_ptr<IFileSystem> fileSystem;
    std::shared_ptr<IRegistryStore> registry;
    // Makes the transport endpoints (by role); empty: the ZeroMQ endpoint.
    std::function<Tavrin::Veq::ClientBroker::INotificationBase*(const std::string& role)> endpointFactory;
};

class Platform {
public:
    static void Install(const PlatformPaths& paths, PlatformServices services = {});
    static PlatformPaths Paths();
    static std::shared_ptr<IFileSystem> FileSystem();
    static std::shared_ptr<IRegistryStore> Registry();
    static std::function<Tavrin::Veq::ClientBroker::INotificationBase*(const std::string& role)> EndpointFactory();

    static std::wstring DefaultDataRoot();
};

}  // namespace VEQ
