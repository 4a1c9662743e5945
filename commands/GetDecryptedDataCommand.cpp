#include "commands/GetDecryptedDataCommand.h"

#include "broker/ReplyJson.h"
#include "commands/GetDecryptedDataResponse.h"
#include "platform/crypto/BinaryText.h"
#include "platform/crypto/CipherUtility.h"
#include "platform/crypto/DeviceCrypto.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"

#include <openssl/crypto.h>

#include <exception>

namespace VEQ {
namespace {

constexpr const wchar_t* kFunction = L"VEQ::GetDecryptedDataCommand::GetResponse";
constexpr size_t kDataKeySize = 16;
constexpr size_t kIvSize = 12;

std::vector<unsigned char> Bytes(std::string text)
{
    std::vector<unsigned char> bytes(text.begin(), text.end());
    OPENSSL_cleanse(text.data(), text.size());
    return bytes;
}

// The id names a registry key of its own: no separator may reach into another plugin's key.
bool IsKeyName(const std::string& id)
{
    return !id.empty() && id.find_first_of("\\/") == std::string::npos;
}

}  // namespace

GetDecryptedDataCommand::GetDecryptedDataCommand(Log& log, const std::string& extensionId)
    : BaseCommandHandler(log), commandNames_{kCommandName}, extensionId_(extensionId)
{
}

BaseCommandHandler::Result GetDecryptedDataCommand::GetResponse(const ClientRequest& request,
                                                                bool& /*pendingOperation*/)
{
    Result result;
    std::vector<unsigned char> key;
    std::string plainText;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            return NotSupported(result, message, kFunction);
        }
        if (message.notification.command != kCommandName) {
            return result;
        }
        Json::Value parsed;
        try {
            ReplyJson::Parse(message.notification.payload, parsed);
        } catch (const Json::Exception&) {
            parsed = Json::Value();
        }
        const Json::Value& data = parsed.isObject() ? parsed["dataBase64"] : Json::Value::null;
        const std::string dataBase64 = data.isString() ? data.asString() : std::string();

        // A fresh key and vector every time: equal requests never give equal answers.
        key = Bytes(CipherUtility::GenRandom(kDataKeySize));
        const std::vector<unsigned char> iv = Bytes(CipherUtility::GenRandom(kIvSize));
        std::vector<unsigned char> tag;
        plainText = DeviceCrypto::DecryptValue(dataBase64);
        GetDecryptedDataResponse response;
        response.dataBase64 = EncryptDataAndStoreRegValues(plainText, key, iv, tag, extensionId_);
        if (response.dataBase64.empty()) {
            if (log_ != nullptr) {
                log_->e(L"%s: Encrypted data is empty", kFunction);
            }
            response.responseCode = "-1";
            response.responseDescription = "Failed";
            result = Succeeded(message, kReplyCommand, GetDecryptedDataResponse::Serialize(response));
            result.message.statusCode = -1;  // a success at the protocol's level: the payload tells
        } else {
            response.responseCode = "0";
            response.responseDescription = "Success";
            result = Succeeded(message, kReplyCommand, GetDecryptedDataResponse::Serialize(response));
        }
    } catch (const std::exception& error) {
        result.isSuccess = false;
        result.message.statusText = std::string("Exception caught:") + error.what();
        if (log_ != nullptr) {
            log_->e(L"%s: Exception caught:%s", kFunction, error.what());
        }
    }
    OPENSSL_cleanse(key.data(), key.size());
    OPENSSL_cleanse(plainText.data(), plainText.size());
    return result;
}

std::string GetDecryptedDataCommand::EncryptDataAndStoreRegValues(const std::string& plainText,
                                                                  const std::vector<unsigned char>& key,
                                                                  const std::vector<unsigned char>& iv,
                                                                  std::vector<unsigned char>& tag,
                                                                  const std::string& pluginId)
{
    static constexpr const wchar_t* kStoreFunction = L"VEQ::GetDecryptedDataCommand::EncryptDataAndStoreRegValues";
    if (!IsKeyName(pluginId)) {
        if (log_ != nullptr) {
            log_->e(L"%s: Failed", kStoreFunction);
        }
        return {};
    }
    const std::vector<unsigned char> cipher = CipherUtility::EVP_GCM_Encrypt(plainText, key, iv, tag);
    const std::string resultText = BinaryText::binToBase64String(cipher);

    // Its outcome is not what decides: a key that could not be protected makes an empty
    // "dataKey", which no one can open, and the data with it.
    std::vector<unsigned char> protectedKey;
    CipherUtility::DPAPIEncrypt(key, protectedKey);
    const std::string protectedKeyBase64 = BinaryText::binToBase64String(protectedKey);

    const std::wstring keyPath = std::wstring(kPluginsKey) + String::UTF8ToUTF16(pluginId);
    if (!CRegUtil::DoesKeyExists(HKEY_LOCAL_MACHINE, keyPath)) {
        CRegUtil::CreateKey(HKEY_LOCAL_MACHINE, keyPath, 0);
    }
    const bool keyStored =
        CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, keyPath, kDataKeyValue, String::UTF8ToUTF16(protectedKeyBase64));
    // Written even when "dataKey" was not; the reply says Failed either way.
    const std::string ivTag = BinaryText::binToBase64String(iv) + BinaryText::binToBase64String(tag);
    const bool ivTagStored =
        CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, keyPath, kDataIvTagValue, String::UTF8ToUTF16(ivTag));
    if (keyStored && ivTagStored) {
        return resultText;
    }
    if (log_ != nullptr) {
        log_->e(L"%s: Failed", kStoreFunction);
    }
    return {};
}

const std::vector<std::string>& GetDecryptedDataCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType GetDecryptedDataCommand::GetSupportedContext()
{
    return ElevationType::Elevated;
}

BaseCommandHandler::ExtensionType GetDecryptedDataCommand::GetSupportedExtensionType()
{
    return ExtensionType::Plugin;
}

}  // namespace VEQ
