#include "platform/registry/CRegUtil.h"

#include "platform/Platform.h"
#include "platform/registry/IRegistryStore.h"

namespace VEQ {

int CRegUtil::CreateKey(Hive hive, const std::wstring& keyPath, int /*view*/)
{
    const auto store = Platform::Registry();
    return store && store->CreateKey(hive, keyPath) ? 1 : 0;
}

bool CRegUtil::DoesKeyExists(Hive hive, const std::wstring& keyPath)
{
    const auto store = Platform::Registry();
    return store && store->KeyExists(hive, keyPath);
}

bool CRegUtil::SetKeyValue(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                           const std::wstring& value)
{
    const auto store = Platform::Registry();
    return store && store->SetString(hive, keyPath, valueName, value);
}

bool CRegUtil::SetKeyValue(Hive hive, const std::wstring& keyPath, const std::wstring& valueName, uint32_t value)
{
    const auto store = Platform::Registry();
    return store && store->SetDword(hive, keyPath, valueName, value);
}

bool CRegUtil::SetKeyValueIn64BitRegView(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                                         const std::wstring& value)
{
    return SetKeyValue(hive, keyPath, valueName, value);
}

bool CRegUtil::SetKeyValueIn64BitRegView(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                                         uint32_t value)
{
    return SetKeyValue(hive, keyPath, valueName, value);
}

bool CRegUtil::GetRegValueOfStringType(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                                       std::wstring& value)
{
    const auto store = Platform::Registry();
    if (!store) {
        return false;
    }
    auto found = store->GetString(hive, keyPath, valueName);
    if (!found) {
        return false;
    }
    value = std::move(*found);
    return true;
}

bool CRegUtil::GetRegValueOfDwordType(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                                      uint32_t& value)
{
    const auto store = Platform::Registry();
    if (!store) {
        return false;
    }
    const auto found = store->GetDword(hive, keyPath, valueName);
    if (!found) {
        return false;
    }
    value = *found;
    return true;
}

bool CRegUtil::DeleteRegValue(Hive hive, const std::wstring& keyPath, const std::wstring& valueName)
{
    const auto store = Platform::Registry();
    return store && store->DeleteValue(hive, keyPath, valueName);
}

bool CRegUtil::DeleteKey(Hive hive, const std::wstring& keyPath)
{
    const auto store = Platform::Registry();
    return store && store->DeleteKey(hive, keyPath);
}

bool CRegUtil::DeleteUsersRegKey(Hive hive, const std::wstring& keyPath, bool isSystemProcess,
                                 const std::wstring& userSid)
{
    const auto store = Platform::Registry();
    if (!store) {
        return false;
    }
    if (hive == Hive::CurrentUser && isSystemProcess) {
        return store->DeleteUserKey(userSid, keyPath);
    }
    return store->DeleteKey(hive, keyPath);
}

}  // namespace VEQ
