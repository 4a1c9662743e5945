#pragma once

#include "broker/BaseCommandHandler.h"
#include "http/HttpCommandRequest.h"

#include <string>
#include <vector>

namespace VEQ {

// "Invoke-HttpRequest": a client names a URL relative to the back end's mutual-TLS base, and the
// service makes the request with the device's certificate (docs/http.md, "Invoke-HttpRequest").
// Plugins may reach any URL below the base. Elevated apps reach only kAllowedRelativeUrls, and
// only while the companion management service runs; apps on the user side do not get the
// command. Nothing outside the base is ever contacted: a URL that would leave it once glued is
// refused before anything is sent.
class InvokeHttpRequestCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Invoke-HttpRequest";
    static constexpr const char* kReplyCommand = "Receive-HttpRequest";
    static constexpr const wchar_t* kGatedService = L"VelmardeskManagementService";
    // What an elevated app may reach: prefixes of the relative URL, letter case ignored.
    static const std::vector<std::wstring> kAllowedRelativeUrls;

    InvokeHttpRequestCommand(Log& log, ElevationType elevationType, ExtensionType extensionType);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    // Both for an elevated app's broker, and then the allow-list applies to every request; Plugin
    // for any other broker. The handler factories' IsApplicable is the one caller that matters.
    ExtensionType GetSupportedExtensionType() override;

    // Whether the named service runs; false on any failure.
    bool IsServiceRunning(const std::wstring& serviceName);
    bool validateParameters(HttpCommandRequest& request, const std::string& payload);

private:
    bool IsGated() const;
    // Glues the request to the mutual-TLS base, sends it, and fills the reply.
    void Forward(const HttpCommandRequest& request, Result& result);

    std::vector<std::string> commandNames_;
    ElevationType elevationType;
    ExtensionType extensionType;
    bool m_restrictToAllowList = false;
};

}  // namespace VEQ
