#pragma once

#include "broker/BaseCommandHandler.h"
#include "http/WarrantyRequest.h"
#include "platform/http/InvokeHttpResponse.h"

#include <cstdint>
#include <string>
#include <vector>

namespace VEQ {

// "GetWarrantyInfoAndUpdateTagReg": a plugin names a warranty service, its key and the device's
// serial number; the service asks it for the device's warranty and paid-service end dates and
// keeps the latest of each as applicability tags (docs/http.md, "Warranty tags").
class GetWarrantyInfoAndUpdateTagRegCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "GetWarrantyInfoAndUpdateTagReg";
    static constexpr const char* kReplyCommand = "Receive-GetWarrantyInfoAndUpdateTagReg";
    static constexpr const wchar_t* kTagsKey = L"SOFTWARE\\Tavrin\\VEQ\\Applicability\\Tags";
    static constexpr const wchar_t* kWarrantyTagName = L"Device.Warranty.ExpirationDate";
    static constexpr const wchar_t* kSwiftTuneTagName = L"Device.SwiftTune.ExpirationDate";
    static constexpr const wchar_t* kGuardLatchTagName = L"Device.GuardLatch.ExpirationDate";
    // A date the service did not give becomes one this many days ago: long ended.
    static constexpr int32_t kDefaultAgeDays = -1095;

    explicit GetWarrantyInfoAndUpdateTagRegCommand(Log& log);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;
    virtual VEQCore::InvokeHttpResponse RequestWarrantyInfo(const WarrantyRequest& request);
    virtual bool WriteToRegistry(const std::wstring& keyPath, const std::wstring& valueName, const std::string& value);

    // The latest warranty end, and the latest end of each paid service, as the reply writes them.
    bool ParseDaysUntilExpirationDate(const std::string& body, std::string& warranty, std::string& swiftTune,
                                      std::string& guardLatch);
    bool UpdateTagInRegistry(std::string date, std::wstring tagName, int32_t defaultAgeDays);

private:
    // The failure text of a request that is not to be sent; empty when it may go.
    static std::string Validate(const std::string& payload, WarrantyRequest& request);
    static std::string Latest(const std::vector<std::string>& dates);

    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
