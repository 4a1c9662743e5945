#include "platform/Platform.h"

#include "platform/fs/LinuxFileSystem.h"
#include "platform/registry/SqliteRegistryStore.h"
#include "platform/string/String.h"

#include <cstdlib>
#include <mutex>
#include <unistd.h>

namespace VEQ {
namespace {

struct Installed {
    std::mutex mutex;
    bool done = false;
    PlatformPaths paths;
    PlatformServices services;
};

Installed& State()
{
    static Installed* state = new Installed();  // outlives every static that may log at exit
    return *state;
}

PlatformPaths Completed(PlatformPaths paths)
{
    if (paths.dataRoot.empty()) {
        paths.dataRoot = Platform::DefaultDataRoot();
    }
    if (paths.registryRoot.empty()) {
        paths.registryRoot = paths.dataRoot + L"/registry";
    }
    if (paths.logRoot.empty()) {
        paths.logRoot = paths.dataRoot + L"/log";
    }
    return paths;
}

void CompleteServices(const PlatformPaths& paths, PlatformServices& services)
{
    if (!services.fileSystem) {
        services.fileSystem = std::make_shared<LinuxFileSystem>();
    }
    if (!services.registry) {
        services.registry = std::make_shared<SqliteRegistryStore>(paths.registryRoot);
    }
}

Installed& Ready()
{
    Installed& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.done) {
        state.paths = Completed({});
        CompleteServices(state.paths, state.services);
        state.done = true;
    }
    return state;
}

}  // namespace

void Platform::Install(const PlatformPaths& paths, PlatformServices services)
{
    PlatformPaths completed = Completed(paths);
    CompleteServices(completed, services);
    Installed& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.paths = std::move(completed);
    state.services = std::move(services);
    state.done = true;
}

PlatformPaths Platform::Paths()
{
    Installed& state = Ready();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.paths;
}

std::shared_ptr<IFileSystem> Platform::FileSystem()
{
    Installed& state = Ready();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.services.fileSystem;
}

std::shared_ptr<IRegistryStore> Platform::Registry()
{
    Installed& state = Ready();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.services.registry;
}

std::function<Tavrin::Veq::ClientBroker::INotificationBase*(const std::string& role)> Platform::EndpointFactory()
{
    Installed& state = Ready();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.services.endpointFactory;
}

std::wstring Platform::DefaultDataRoot()
{
    if (geteuid() == 0) {
        return L"/var/lib/veq";
    }
    if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state == '/') {
        return String::UTF8ToUTF16(state) + L"/veq";
    }
    const char* home = std::getenv("HOME");
    return String::UTF8ToUTF16(home != nullptr ? home : "/tmp") + L"/.local/state/veq";
}

}  // namespace VEQ
