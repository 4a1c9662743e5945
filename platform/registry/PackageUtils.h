#pragma once
// Per-package values in the LocalMachine hive, at <keyPath>\<packageId>\<packageVersion>,
// e.g. Software\Tavrin\VEQ\PackageStatus\<id>\<version>, value FailedInstallRetryCount.
// An id or version that is empty or holds a separator names no key: reads find nothing
// and writes fail, so that one package can't reach another's values.

#include <string>

namespace VEQ {

class PackageUtils {
public:
    PackageUtils(std::wstring packageId, std::wstring packageVersion);
    PackageUtils(std::wstring packageId, std::wstring packageVersion, std::wstring keyPath, std::wstring valueName);

    void SetRegPath(std::wstring keyPath);
    void SetKeyName(std::wstring valueName);

    // The DWORD value, or -1 when there is none. The flag selects a registry view on
    // Windows; Linux has one, so it is ignored.
    int GetIntValueFromReg(bool flag);
    // The string value, or empty when there is none.
    std::wstring GetStringValueFromRegistry(bool flag);
    // Creates the key when missing.
    bool SetKeyValueInRegistry(int value, bool flag);

    // The package's key, or empty when the id or version can't name one.
    std::wstring PackageKeyPath() const;

private:
    std::wstring packageId_;
    std::wstring packageVersion_;
    std::wstring keyPath_;
    std::wstring valueName_;
};

}  // namespace VEQ
