#pragma once
// What the update engine records about packages, in the LocalMachine hive (docs/packages.md):
//   Software\Tavrin\VEQ\PackageStatus\<packageId>             InstalledVersion (string)
//   Software\Tavrin\VEQ\PackageStatus\<packageId>\<version>   PackageState, OperationState,
//                                                              InstallationTrigger (strings),
//                                                              PackageSuspended (integer),
//                                                              FailedInstallRetryCount (integer)
// The engine writes them; the module only reads them, except the retry count, which it counts up
// when a forced install fails. Key names compare without regard to ASCII case.

#include <string>

namespace VEQ::utility {

inline constexpr const wchar_t* kPackageStatusKey = L"Software\\Tavrin\\VEQ\\PackageStatus";
inline constexpr const wchar_t* kPackageStateValue = L"PackageState";
inline constexpr const wchar_t* kOperationStateValue = L"OperationState";
inline constexpr const wchar_t* kInstallationTriggerValue = L"InstallationTrigger";
inline constexpr const wchar_t* kPackageSuspendedValue = L"PackageSuspended";
inline constexpr const wchar_t* kFailedInstallRetryCountValue = L"FailedInstallRetryCount";
inline constexpr const wchar_t* kInstalledVersionValue = L"InstalledVersion";

// The state the engine recorded for the last operation on this version of the package, and what
// started that operation ("manual" for a client's request). Both empty when nothing is recorded,
// the version is empty, or a value is not text; true when the package's key exists.
bool GetPackageStateInRegistry(const std::wstring& packageId, const std::wstring& version, std::wstring& state,
                               std::wstring& installationTrigger);

// The version of the package installed now; empty when none is, or the value is not text.
std::wstring GetInstalledVersion(const std::wstring& packageId);

}  // namespace VEQ::utility
