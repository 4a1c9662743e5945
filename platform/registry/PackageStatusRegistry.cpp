#include "platform/registry/PackageStatusRegistry.h"

#include "platform/registry/CRegUtil.h"
#include "platform/registry/PackageUtils.h"

namespace VEQ::utility {
namespace {

bool IsKeyName(const std::wstring& name)
{
    return !name.empty() && name.find_first_of(L"\\/") == std::wstring::npos;
}

}  // namespace

bool GetPackageStateInRegistry(const std::wstring& packageId, const std::wstring& version, std::wstring& state,
                               std::wstring& installationTrigger)
{
    PackageUtils package(packageId, version, kPackageStatusKey, kOperationStateValue);
    state = package.GetStringValueFromRegistry(false);
    package.SetKeyName(kInstallationTriggerValue);
    installationTrigger = package.GetStringValueFromRegistry(false);
    const std::wstring key = package.PackageKeyPath();
    return !key.empty() && CRegUtil::DoesKeyExists(HKEY_LOCAL_MACHINE, key);
}

std::wstring GetInstalledVersion(const std::wstring& packageId)
{
    std::wstring version;
    if (!IsKeyName(packageId) ||
        !CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, std::wstring(kPackageStatusKey) + L"\\" + packageId,
                                           kInstalledVersionValue, version)) {
        return {};
    }
    return version;
}

}  // namespace VEQ::utility
