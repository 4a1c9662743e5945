#include "platform/Platform.h"

#include "platform/applicability/ApplicabilityEvaluator.h"
#include "platform/crypto/OpenSslCodeTrust.h"
#include "platform/fs/LinuxFileSystem.h"
#include "platform/mqtt/INotificationAgent.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/process/LinuxProcessApi.h"
#include "platform/registry/SqliteRegistryStore.h"
#include "platform/session/LogindSessionSource.h"
#include "platform/session/SessionFileSource.h"
#include "platform/string/String.h"

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <unistd.h>

namespace VEQ {
namespace {

struct Installed {
    std::mutex mutex;
    bool done = false;
    PlatformPaths paths;
    PlatformServices services;
    PlatformSettings settings;
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
    if (paths.systemRoot.empty()) {
        paths.systemRoot = Platform::DefaultSystemRoot();
    }
    if (paths.commonDataRoot.empty()) {
        paths.commonDataRoot = paths.dataRoot + L"/common";
    }
    return paths;
}

void CompleteServices(const PlatformPaths& paths, const PlatformSettings& settings, PlatformServices& services)
{
    if (!services.fileSystem) {
        services.fileSystem = std::make_shared<LinuxFileSystem>();
    }
    if (!services.registry) {
        services.registry = std::make_shared<SqliteRegistryStore>(paths.registryRoot);
    }
    if (!services.process) {
        services.process = std::make_shared<LinuxProcessApi>();
    }
    if (!services.configAgent) {
        // The agent is a process-wide singleton; the pointer does not own it.
        services.configAgent = std::shared_ptr<IConfigAgent>(ConfigPolicyAgent::GetInstance(), [](IConfigAgent*) {});
    }
    if (!services.codeTrust) {
        services.codeTrust = std::make_shared<OpenSslCodeTrust>();
    }
    if (!services.applicabilityEvaluator) {
        services.applicabilityEvaluator = std::make_shared<ApplicabilityEvaluator>();
    }
    if (!services.sessionSource) {
        if (settings.sessionSource == "file") {
            services.sessionSource = std::make_shared<SessionFileSource>(settings.sessionFile);
        } else {
            services.sessionSource = std::make_shared<LogindSessionSource>();
        }
    }
}

// A copy of one installed member, installing the defaults first if nobody has.
template <typename Member>
Member Read(Member PlatformServices::*member)
{
    Installed& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.done) {
        state.paths = Completed({});
        CompleteServices(state.paths, state.settings, state.services);
        state.done = true;
    }
    return state.services.*member;
}

}  // namespace

void Platform::Install(const PlatformPaths& paths, PlatformServices services, PlatformSettings settings)
{
    PlatformPaths completed = Completed(paths);
    CompleteServices(completed, settings, services);
    Installed& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.paths = std::move(completed);
    state.services = std::move(services);
    state.settings = std::move(settings);
    state.done = true;
}

PlatformSettings Platform::Settings()
{
    Read(&PlatformServices::fileSystem);  // completes the defaults
    Installed& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.settings;
}

std::shared_ptr<ICodeTrust> Platform::CodeTrust()
{
    return Read(&PlatformServices::codeTrust);
}

std::shared_ptr<ApplicabilityEvaluator> Platform::Evaluator()
{
    return Read(&PlatformServices::applicabilityEvaluator);
}

std::shared_ptr<ISessionSource> Platform::Sessions()
{
    return Read(&PlatformServices::sessionSource);
}

PlatformPaths Platform::Paths()
{
    Read(&PlatformServices::fileSystem);  // completes the defaults
    Installed& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.paths;
}

std::shared_ptr<IFileSystem> Platform::FileSystem()
{
    return Read(&PlatformServices::fileSystem);
}

std::shared_ptr<IRegistryStore> Platform::Registry()
{
    return Read(&PlatformServices::registry);
}

std::shared_ptr<IProcessApi> Platform::Process()
{
    return Read(&PlatformServices::process);
}

std::shared_ptr<IConfigAgent> Platform::ConfigAgent()
{
    return Read(&PlatformServices::configAgent);
}

std::shared_ptr<INotificationAgent> Platform::NotificationAgent()
{
    return Read(&PlatformServices::notificationAgent);
}

EndpointFactoryFunction Platform::EndpointFactory()
{
    return Read(&PlatformServices::endpointFactory);
}

std::wstring Platform::DefaultSystemRoot()
{
    // A program of the build tree runs with the product files staged there (scripts/run, tests),
    // an installed one with those of the package.
    std::error_code error;
    const std::string self = std::filesystem::read_symlink("/proc/self/exe", error).string();
    const std::string buildTree = VEQ_BUILD_TREE "/";
    if (!error && self.compare(0, buildTree.size(), buildTree) == 0) {
        return String::UTF8ToUTF16(buildTree + "stage/lib/veq");
    }
    return L"/usr/lib/veq";
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
