#pragma once
// Where the global socket id of each side is published for apps to find.

#include "module/ElevationType.h"

namespace VEQ::GlobalSocketIds {

inline constexpr const wchar_t* kBrokerKey = L"Software\\Tavrin\\VEQ\\Broker";
inline constexpr const wchar_t* kUserSocketValue = L"afxunix-usersocket";
inline constexpr const wchar_t* kElevatedSocketValue = L"afxunix-elevatedsocket";

inline const wchar_t* ValueNameFor(ElevationType elevation)
{
    return elevation == ElevationType::User ? kUserSocketValue : kElevatedSocketValue;
}

}  // namespace VEQ::GlobalSocketIds
