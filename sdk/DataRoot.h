#pragma once
// Where the service keeps its state, as seen from an app: the folder below which the registry and
// the broker sockets are.

#include <functional>
#include <string>

namespace Veq::Sdk {

class DataRoot {
public:
    static constexpr const char* kRootVariable = "VEQ_ROOT";
    static constexpr const char* kSystemRoot = "/var/lib/veq";

    using Environment = std::function<const char*(const char* name)>;

    // In this order: explicitRoot when not empty; $VEQ_ROOT; the user's state folder
    // ($XDG_STATE_HOME/veq or ~/.local/state/veq) when it holds registry/machine.db, which is
    // where a service run by this user keeps its state; otherwise /var/lib/veq, the service's.
    static DataRoot Resolve(const std::string& explicitRoot = {});
    // The same with the environment read through environment (for tests).
    static DataRoot Resolve(const std::string& explicitRoot, const Environment& environment);

    const std::string& Path() const { return path_; }
    // How the root was chosen, e.g. "from VEQ_ROOT".
    const std::string& Origin() const { return origin_; }
    std::string RegistryRoot() const { return path_ + "/registry"; }
    std::string MachineHiveFile() const { return RegistryRoot() + "/machine.db"; }
    // "/var/lib/veq (the system default)", for messages.
    std::string Describe() const { return path_ + " (" + origin_ + ")"; }

private:
    DataRoot(std::string path, std::string origin);

    std::string path_;
    std::string origin_;
};

}  // namespace Veq::Sdk
