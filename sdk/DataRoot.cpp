#include "sdk/DataRoot.h"

#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Veq::Sdk {
namespace {

std::string WithoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

std::string NonEmpty(const DataRoot::Environment& environment, const char* name)
{
    const char* value = environment(name);
    return value != nullptr ? std::string(value) : std::string();
}

std::string HomeFolder(const DataRoot::Environment& environment)
{
    if (std::string home = NonEmpty(environment, "HOME"); !home.empty()) {
        return home;
    }
    const passwd* entry = ::getpwuid(::getuid());
    return entry != nullptr && entry->pw_dir != nullptr ? std::string(entry->pw_dir) : std::string();
}

// The folder where a service run by this user would keep its state; empty when there is none.
std::string UserStateRoot(const DataRoot::Environment& environment)
{
    // A relative XDG_STATE_HOME is invalid by its own rules and is ignored.
    if (std::string state = NonEmpty(environment, "XDG_STATE_HOME"); !state.empty() && state.front() == '/') {
        return WithoutTrailingSlashes(state) + "/veq";
    }
    const std::string home = HomeFolder(environment);
    return home.empty() ? std::string() : WithoutTrailingSlashes(home) + "/.local/state/veq";
}

bool IsFile(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

DataRoot::DataRoot(std::string path, std::string origin) : path_(std::move(path)), origin_(std::move(origin)) {}

DataRoot DataRoot::Resolve(const std::string& explicitRoot)
{
    return Resolve(explicitRoot, [](const char* name) { return static_cast<const char*>(std::getenv(name)); });
}

DataRoot DataRoot::Resolve(const std::string& explicitRoot, const Environment& environment)
{
    if (!explicitRoot.empty()) {
        return DataRoot(WithoutTrailingSlashes(explicitRoot), "given");
    }
    if (std::string fromVariable = NonEmpty(environment, kRootVariable); !fromVariable.empty()) {
        return DataRoot(WithoutTrailingSlashes(fromVariable), std::string("from ") + kRootVariable);
    }
    if (const std::string userRoot = UserStateRoot(environment);
        !userRoot.empty() && IsFile(userRoot + "/registry/machine.db")) {
        return DataRoot(userRoot, "this user's state folder");
    }
    return DataRoot(kSystemRoot, "the system default");
}

}  // namespace Veq::Sdk
