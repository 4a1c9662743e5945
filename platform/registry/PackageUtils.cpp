#include "platform/registry/PackageUtils.h"

#include "platform/registry/CRegUtil.h"

#include <cstdint>
#include <utility>

namespace VEQ {
namespace {

bool IsKeyName(const std::wstring& name)
{
    return !name.empty() && name.find_first_of(L"\\/") == std::wstring::npos;
}

}  // namespace

PackageUtils::PackageUtils(std::wstring packageId, std::wstring packageVersion)
    : packageId_(std::move(packageId)), packageVersion_(std::move(packageVersion))
{
}

PackageUtils::PackageUtils(std::wstring packageId, std::wstring packageVersion, std::wstring keyPath,
                           std::wstring valueName)
    : packageId_(std::move(packageId)), packageVersion_(std::move(packageVersion)), keyPath_(std::move(keyPath)),
      valueName_(std::move(valueName))
{
}

void PackageUtils::SetRegPath(std::wstring keyPath)
{
    keyPath_ = std::move(keyPath);
}

void PackageUtils::SetKeyName(std::wstring valueName)
{
    valueName_ = std::move(valueName);
}

std::wstring PackageUtils::PackageKeyPath() const
{
    if (keyPath_.empty() || !IsKeyName(packageId_) || !IsKeyName(packageVersion_)) {
        return {};
    }
    return keyPath_ + L"\\" + packageId_ + L"\\" + packageVersion_;
}

int PackageUtils::GetIntValueFromReg(bool /*flag*/)
{
    const std::wstring key = PackageKeyPath();
    uint32_t value = 0;
    if (key.empty() || !CRegUtil::GetRegValueOfDwordType(HKEY_LOCAL_MACHINE, key, valueName_, value)) {
        return -1;
    }
    return static_cast<int>(value);
}

std::wstring PackageUtils::GetStringValueFromRegistry(bool /*flag*/)
{
    const std::wstring key = PackageKeyPath();
    std::wstring value;
    if (key.empty() || !CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, key, valueName_, value)) {
        return {};
    }
    return value;
}

bool PackageUtils::SetKeyValueInRegistry(int value, bool /*flag*/)
{
    const std::wstring key = PackageKeyPath();
    return !key.empty() && CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, key, valueName_, static_cast<uint32_t>(value));
}

}  // namespace VEQ
