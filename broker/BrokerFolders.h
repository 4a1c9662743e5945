#pragma once
// Where the brokers' socket files live, below the service's data root.

namespace VEQ::BrokerFolders {

inline constexpr const wchar_t* kBroker = L"/Broker/";
inline constexpr const wchar_t* kSharedUser = L"SharedUser/";
inline constexpr const wchar_t* kElevated = L"Elevated/";
// Full control for local users, administrators and the system account, nothing inherited: on
// this platform, reachable by every local user.
inline constexpr const wchar_t* kSharedUserAcl =
    L"/inheritance:r /q /c /t /grant *S-1-5-32-545:(OI)(CI)F *S-1-5-32-544:(OI)(CI)F *S-1-5-18:(OI)(CI)F";
// Suffix of the file of an endpoint's notification channel, beside its socket file.
inline constexpr const wchar_t* kNotifySuffix = L"_notify";

}  // namespace VEQ::BrokerFolders
