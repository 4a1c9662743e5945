#pragma once
// Finds the global socket of a side: the service publishes its id in the registry, and the socket
// lives in the side's broker folder below the data root.

#include "sdk/DataRoot.h"
#include "sdk/Error.h"
#include "sdk/Side.h"

#include <string>

namespace Veq::Sdk {

class GlobalSocket {
public:
    static constexpr const wchar_t* kBrokerKey = L"Software\\Tavrin\\VEQ\\Broker";
    static constexpr const wchar_t* kUserSocketValue = L"afxunix-usersocket";
    static constexpr const wchar_t* kElevatedSocketValue = L"afxunix-elevatedsocket";

    static const wchar_t* ValueName(Side side);
    // <root>/Broker/SharedUser or <root>/Broker/Elevated.
    static std::string Folder(const std::string& root, Side side);
    // Reads the id published for side (read-only; nothing is created) and sets path to the
    // socket's file. The error says what is missing and where.
    static Error Locate(const DataRoot& root, Side side, std::string& path);
};

}  // namespace Veq::Sdk
