#include "platform/util/CoreUtility.h"

#include "platform/Platform.h"
#include "platform/crypto/ICodeTrust.h"
#include "platform/crypto/JwsVerifier.h"
#include "platform/http/HttpClient.h"
#include "platform/policy/IConfigAgent.h"
#include "platform/log/Log.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <optional>

#include <openssl/evp.h>

namespace VEQ {
namespace {

constexpr size_t kMachineIdDigits = 32;

// A machine-id file holds 32 lower-case hex digits and a line feed. An empty file, or
// "uninitialized" while the system is first booting, holds no id yet.
std::optional<std::wstring> ReadMachineId(const std::wstring& path)
{
    std::ifstream file(String::UTF16ToUTF8(path));
    std::string line;
    if (!file || !std::getline(file, line)) {
        return std::nullopt;
    }
    if (line.size() != kMachineIdDigits ||
        !std::all_of(line.begin(), line.end(), [](unsigned char c) { return std::isxdigit(c) != 0; }) ||
        line.find_first_not_of('0') == std::string::npos) {
        return std::nullopt;
    }
    std::wstring id;
    for (size_t n = 0; n < line.size(); ++n) {
        if (n == 8 || n == 12 || n == 16 || n == 20) {
            id += L'-';
        }
        id += static_cast<wchar_t>(std::toupper(static_cast<unsigned char>(line[n])));
    }
    return id;
}

}  // namespace

CoreUtility* CoreUtility::GetInstance()
{
    static CoreUtility* instance = new CoreUtility();  // handlers may still run while statics go
    return instance;
}

CoreUtility::CoreUtility() : machineIdFiles_(DefaultMachineIdFiles()) {}

std::vector<std::wstring> CoreUtility::DefaultMachineIdFiles()
{
    return {L"/etc/machine-id", L"/var/lib/dbus/machine-id"};
}

void CoreUtility::SetMachineIdFiles(std::vector<std::wstring> files)
{
    std::lock_guard<std::mutex> lock(mutex_);
    machineIdFiles_ = std::move(files);
    knownId_.clear();
}

bool CoreUtility::GetDeviceIdentity(DeviceIdentity& identity)
{
    std::vector<std::wstring> files;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!knownId_.empty()) {
            identity.deviceId = knownId_;
            return true;
        }
        files = machineIdFiles_;
    }
    for (const auto& file : files) {
        if (auto id = ReadMachineId(file)) {
            identity.deviceId = std::move(*id);
            std::lock_guard<std::mutex> lock(mutex_);
            if (files == machineIdFiles_) {
                knownId_ = identity.deviceId;  // unless the files were replaced meanwhile
            }
            return true;
        }
    }
    identity.deviceId.clear();
    return false;
}

VEQCore::InvokeHttpResponse CoreUtility::SendHttpRequest(const std::string& url,
                                                         const std::map<std::string, std::string>& headers,
                                                         VEQCore::HttpMethodCode method, const std::string& payload,
                                                         int32_t authType, bool flag, const std::string& responseFile)
{
    // A client per call: the settings are read as they are now, and calls share nothing.
    return HttpClient(Platform::Settings().http)
        .SendHttpRequest(url, headers, method, payload, authType, flag, responseFile);
}

std::string CoreUtility::ConvertBytesToString(const std::vector<uint8_t>& bytes)
{
    return HttpClient::ConvertBytesToString(bytes);
}

std::string CoreUtility::ComputeUrlHash(const std::string& url)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(url.data(), url.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
        return {};
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hash;
    for (unsigned int i = 0; i < length; ++i) {
        hash.push_back(kHex[digest[i] >> 4]);
        hash.push_back(kHex[digest[i] & 0x0f]);
    }
    return hash;
}

SignatureCheckResult CoreUtility::VerifyContentWithKeys(const std::string& text, const std::vector<std::wstring>& keys,
                                                        bool enforce)
{
    SignatureCheckResult result = JwsVerifier::VerifyContentWithKeys(text, keys, enforce);
    if (!result.isValid) {
        g_log.d(L"%s: %s", L"VEQ::CoreUtility::VerifyContentWithKeys", result.message);
    } else if (result.status != SignatureCheckResult::kValid) {
        g_log.w(L"%s: accepted unverified content: %s", L"VEQ::CoreUtility::VerifyContentWithKeys", result.message);
    }
    return result;
}

SignatureCheckResult CoreUtility::VerifyContentWithAgent(const std::string& text, std::shared_ptr<IConfigAgent> agent,
                                                         bool enforce)
{
    const std::vector<std::wstring> keys =
        agent ? JwsVerifier::KeysFromPolicy(String::UTF16ToUTF8(agent->GetConfigPolicy())) : std::vector<std::wstring>();
    return VerifyContentWithKeys(text, keys, enforce);
}

bool CoreUtility::decodeSignedContent(const std::string& encoded, std::string& decoded, IConfigAgent* /*agent*/,
                                      bool strict)
{
    const SignatureCheckResult result = Platform::CodeTrust()->DecodeSignedContent(encoded, decoded, strict);
    if (!result.isValid) {
        g_log.e(L"%s: %s", L"VEQ::CoreUtility::decodeSignedContent", result.message);
    }
    return result.isValid;
}

bool CoreUtility::IsDeviceRegistered()
{
    uint32_t registered = 0;
    return CRegUtil::GetRegValueOfDwordType(HKEY_LOCAL_MACHINE, kRegistrationKey, kRegistrationValue, registered) &&
           registered == 1;
}

bool CoreUtility::SetDeviceRegistered(bool registered)
{
    return CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, kRegistrationKey, kRegistrationValue,
                                 static_cast<uint32_t>(registered ? 1 : 0));
}

}  // namespace VEQ
