#include "plugins/PluginInstance.h"

#include "broker/PluginClientBroker.h"
#include "plugins/PluginHostProcess.h"
#include "platform/crypto/CertificateValidationWrapper.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/process/CurrentProcess.h"
#include "platform/process/ProcessHandles.h"
#include "platform/string/String.h"

#include <new>

namespace VEQ {
namespace {

constexpr const wchar_t* kSourceHosts = L"\\drivers\\Tavrin\\VEQ\\Service\\Hosts\\";

}  // namespace

PluginInstance::PluginInstance(const PluginDetails& pluginDetails, const BrokerContext& brokerContext)
    : pluginDetails_(pluginDetails), brokerContext_(brokerContext)
{
    const wchar_t* function = L"VEQ::PluginInstance::PluginInstance";
    if (utility::InitLog(log, L"PluginInstance.log", 4)) {
        log.d(L"%s: Init", function);
    }
    ClientContext clientContext;
    clientContext.extensionId = String::UTF16ToUTF8(pluginDetails_.getPluginManifest().getPluginId());
    clientContext.extensionName = pluginDetails_.getPluginManifest().getPluginName();
    try {
        clientBroker_ = new PluginClientBroker(brokerContext_, clientContext, pluginDetails_);
    } catch (const std::bad_alloc&) {
        log.e(L"%s: bad_array_new_length exception", function);
    }
}

PluginInstance::~PluginInstance()
{
    log.d(L"%s: init", L"VEQ::PluginInstance::~PluginInstance");
    delete clientBroker_;
    delete hostProcess_;
}

void PluginInstance::Start()
{
    StartClientHandler();
    if (!IsHostExeValid()) {
        log.e(L"%s: Certificate validation failed for plugin host exe", L"VEQ::PluginInstance::Start");
        return;
    }
    StartHostProcess();
}

void PluginInstance::StartClientHandler()
{
    if (clientBroker_ != nullptr) {
        clientBroker_->Start();
    }
}

void PluginInstance::StartHostProcess()
{
    if (hostProcess_ == nullptr && clientBroker_ != nullptr) {
        hostProcess_ =
            new PluginHostProcess(pluginDetails_, &clientBroker_->get_soketID(), brokerContext_.getElevationType());
    }
    if (hostProcess_ != nullptr) {
        hostProcess_->Start();
    }
}

bool PluginInstance::IsHostExeValid()
{
    const wchar_t* function = L"VEQ::PluginInstance::IsHostExeValid";
    log.d(L"%s: init", function);
    const std::wstring path =
        FileSystem::GetSystemFolderPath() + kSourceHosts + pluginDetails_.getPlatform() + L"\\VEQPluginHost.exe";
    const bool valid =
        DeveloperSettings::GetInstance()->IsSkipHostSignatureCheck() || CertificateValidationWrapper::IsFileValid(path);
    log.d(L"%s: exits with %d", function, valid ? 1 : 0);
    return valid;
}

void PluginInstance::Suspend(bool waitForExit)
{
    const wchar_t* function = L"VEQ::PluginInstance::Suspend";
    const PluginManifest& manifest = pluginDetails_.getPluginManifest();
    const unsigned long thread = CurrentProcess::GetCurrentThreadId();
    log.d(L"%s: Enter Thread Id : %d, plugin id: %s, plugin path: %s, plugin version: %s", function, thread,
          manifest.getPluginId(), pluginDetails_.getPluginFullPath(), manifest.getPluginVersion());
    if (hostProcess_ != nullptr) {
        if (clientBroker_ != nullptr) {
            Notification stop;
            stop.command = kStopPluginCommand;
            if (!clientBroker_->Notify(stop)) {
                log.e(L"%s: Failed to send stop plugin notification", function);
            }
        }
        log.d(L"%s: Notified, Thread Id : %d", function, thread);
        if (waitForExit) {
            const ProcessHandle handle =
                ProcessHandles::OpenProcess(static_cast<uint32_t>(hostProcess_->GetProcessID()));
            if (handle != nullptr) {
                const WaitResult waited = ProcessHandles::WaitForSingleObject(handle, kStopWaitMs);
                ProcessHandles::CloseHandle(handle);
                if (waited == WaitResult::Timeout) {
                    // The caller decides what becomes of a plugin that outran its time.
                    log.d(L"%s:Wait timed out : %d", function, hostProcess_->GetProcessID());
                    return;
                }
            }
        } else {
            hostProcess_->Kill();
        }
    }
    log.d(L"%s: Plugin client broker suspend initiated, Thread Id : %d", function, thread);
    if (clientBroker_ != nullptr) {
        clientBroker_->Suspend();
    }
    log.d(L"%s: Exit", function);
}

void PluginInstance::OnVEQNotification(VEQNotificationData& data)
{
    if (clientBroker_ != nullptr) {
        clientBroker_->OnVEQNotification(data);
    }
}

bool PluginInstance::notifyPlugin(Notification& notification)
{
    return clientBroker_ != nullptr && clientBroker_->Notify(notification);
}

bool PluginInstance::notifyPluginAndWaitForResponse(Message& request, Result& response)
{
    return clientBroker_ != nullptr && clientBroker_->NotifyAndWaitForResponse(request, response);
}

std::wstring PluginInstance::getPluginID() const
{
    return pluginDetails_.getPluginManifest().getPluginId();
}

std::string PluginInstance::getPluginName() const
{
    return pluginDetails_.getPluginManifest().getPluginName();
}

const std::list<PluginCommand>& PluginInstance::getCommands() const
{
    return pluginDetails_.getPluginManifest().getCommands();
}

ElevationType PluginInstance::getElevationType() const
{
    return brokerContext_.getElevationType();
}

PluginSourceType PluginInstance::getPluginSourceType() const
{
    return pluginDetails_.getSourceType();
}

bool PluginInstance::isPluginRunning()
{
    return hostProcess_ != nullptr && hostProcess_->IsRunning();
}

}  // namespace VEQ
