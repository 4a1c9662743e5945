#pragma once

#include "broker/BaseCommandHandler.h"

#include <string>
#include <vector>

namespace VEQ {

// "Get-DecryptedData": opens "dataBase64", encrypted to the device key, and hands the data back
// under a fresh AES-128-GCM key. The key, protected for this machine, and the vector and tag are
// stored for the plugin under HKLM\Software\Tavrin\VEQ\plugins\<extensionId>, as "dataKey" and
// "dataIvTag"; each request replaces them. For elevated plugins only.
class GetDecryptedDataCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Get-DecryptedData";
    static constexpr const char* kReplyCommand = "Receive-DecryptedData";
    static constexpr const wchar_t* kPluginsKey = L"Software\\Tavrin\\VEQ\\plugins\\";
    static constexpr const wchar_t* kDataKeyValue = L"dataKey";
    static constexpr const wchar_t* kDataIvTagValue = L"dataIvTag";

    // extensionId: the plugin the broker serves; it names the registry key.
    GetDecryptedDataCommand(Log& log, const std::string& extensionId);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

    // Encrypts plainText with key and iv, fills tag, stores the protected key and base64(iv)
    // followed by base64(tag) for pluginId, and returns base64 of the cipher bytes. Empty when
    // either value could not be stored.
    std::string EncryptDataAndStoreRegValues(const std::string& plainText, const std::vector<unsigned char>& key,
                                             const std::vector<unsigned char>& iv, std::vector<unsigned char>& tag,
                                             const std::string& pluginId);

private:
    std::vector<std::string> commandNames_;
    std::string extensionId_;
};

}  // namespace VEQ
