#include "digest/SmartMessageV2Utility.h"

#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/log/Log.h"
#include "platform/process/ProcessWrap.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "platform/util/System.h"

namespace VEQ::SmartMessageV2 {

bool SmartMessageV2Utility::DeleteCachedMessageDigest()
{
    const wchar_t* function = L"VEQ::SmartMessageV2::SmartMessageV2Utility::DeleteCachedMessageDigest";
    std::wstring root;
    utility::GetVeqAppDataRootPath(root);
    const std::wstring path = root + kDigestDataDirectory + L"\\" + kDigestFileName;
    if (!FileSystem::fileExists(path)) {
        g_log.e(L"%s Cached Message Digest not found. %s", function, path);
        return true;
    }
    if (FileSystem::deleteDirectoryOrFile(path, false)) {
        g_log.e(L"%s Deleted Cached Message Digest %s", function, path);
        return true;
    }
    g_log.e(L"%s Failed to delete Cached Message Digest %s", function, path);
    return false;
}

bool SmartMessageV2Utility::DeleteEtag()
{
    const wchar_t* function = L"VEQ::SmartMessageV2::SmartMessageV2Utility::DeleteEtag";
    std::wstring etag;
    if (!CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, kMessagingPluginKey, kEtagValueName, etag)) {
        g_log.w(L"%s Etag not found in registry", function);
        return false;
    }
    const std::wstring path = std::wstring(kMessagingPluginKey) + L"\\" + kEtagValueName;
    if (CRegUtil::DeleteRegValue(HKEY_LOCAL_MACHINE, kMessagingPluginKey, kEtagValueName)) {
        g_log.d(L"%s Deleted Etag from registry %s", function, path);
        return true;
    }
    g_log.e(L"%s Failed to delete Etag from registry %s", function, path);
    return false;
}

bool SmartMessageV2Utility::DeletePreviousDownloadDigestTimestamp()
{
    const wchar_t* function = L"VEQ::SmartMessageV2::SmartMessageV2Utility::DeletePreviousDownloadDigestTimestamp";
    const bool isSystemProcess = ProcessWrap::IsSystemProcess();
    const std::wstring sid = System::GetLoggedInUserSID();
    // The log names the value the key held, as the digest commands know it.
    const std::wstring shown = std::wstring(kStatusKey) + kTimestampSuffix;
    if (CRegUtil::DeleteUsersRegKey(HKEY_CURRENT_USER, kStatusKey, isSystemProcess, sid)) {
        g_log.d(L"%s Deleted LastMessageDigestTimeStamp from registry %s", function, shown);
        return true;
    }
    g_log.e(L"%s Failed to delete LastMessageDigestTimeStamp from registry %s", function, shown);
    return false;
}

bool SmartMessageV2Utility::ReadPreviousHash(std::string& hash)
{
    std::wstring value;
    const bool exists = CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, kMessagingPluginKey, kHashValueName, value);
    g_log.d(L"%s Exists %d", L"VEQ::SmartMessageV2::SmartMessageV2Utility::ReadPreviousHash", exists ? 1 : 0);
    if (exists) {
        hash = String::UTF16ToUTF8(value);
    }
    return exists;
}

void SmartMessageV2Utility::UpdateHashInRegistry(std::string hash)
{
    const wchar_t* function = L"VEQ::SmartMessageV2::SmartMessageV2Utility::UpdateHashInRegistry";
    if (CRegUtil::SetKeyValueIn64BitRegView(HKEY_LOCAL_MACHINE, kMessagingPluginKey, kHashValueName,
                                            String::UTF8ToUTF16(hash))) {
        g_log.d(L"%s Updated hash path %s", function, std::wstring(kMessagingPluginKey));
    } else {
        g_log.e(L"%s Failed to update hash path %s", function, std::wstring(kMessagingPluginKey));
    }
}

}  // namespace VEQ::SmartMessageV2
