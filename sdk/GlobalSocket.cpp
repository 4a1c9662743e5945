#include "sdk/GlobalSocket.h"

#include "platform/registry/SqliteRegistryStore.h"
#include "platform/string/String.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace Veq::Sdk {
namespace {

// The id becomes a file name: anything that could climb out of the broker folder is refused.
bool IsPlainFileName(const std::string& id)
{
    return !id.empty() && id != "." && id != ".." && id.find('/') == std::string::npos &&
           id.find('\0') == std::string::npos;
}

}  // namespace

const wchar_t* GlobalSocket::ValueName(Side side)
{
    return side == Side::User ? kUserSocketValue : kElevatedSocketValue;
}

std::string GlobalSocket::Folder(const std::string& root, Side side)
{
    return root + (side == Side::User ? "/Broker/SharedUser" : "/Broker/Elevated");
}

Error GlobalSocket::Locate(const DataRoot& root, Side side, std::string& path)
{
    using VEQ::String;
    path.clear();
    const std::string hive = root.MachineHiveFile();
    const std::string sideName = SideName(side);
    const std::string valueName = String::UTF16ToUTF8(ValueName(side));
    if (::access(hive.c_str(), F_OK) != 0) {
        return {ErrorCode::NotPublished,
                "no registry at " + hive + ", so the " + sideName + " side cannot be found: the service has not run with data root " +
                    root.Describe() + ". Start the service, or name its data root (veqctl --root, or VEQ_ROOT)."};
    }
    if (::access(hive.c_str(), R_OK) != 0) {
        const int error = errno;
        return {ErrorCode::PermissionDenied,
                "cannot read the registry " + hive + ": " + std::strerror(error) +
                    ". It should be readable by every local user; check its mode and its folders'."};
    }
    auto registry = VEQ::SqliteRegistryStore::OpenReadOnly(String::UTF8ToUTF16(root.RegistryRoot()));
    const auto id = registry->GetString(VEQ::HKEY_LOCAL_MACHINE, kBrokerKey, ValueName(side));
    if (!id || id->empty()) {
        return {ErrorCode::NotPublished,
                "the " + sideName + " side is not open: no value " + valueName + " under HKLM\\" +
                    String::UTF16ToUTF8(kBrokerKey) + " in " + hive +
                    ". The service is not running, or app extensions are off on that side by policy. Try again "
                    "once the service runs, or try the other side."};
    }
    const std::string idText = String::UTF16ToUTF8(*id);
    if (!IsPlainFileName(idText)) {
        return {ErrorCode::BadReply, "the " + sideName + " side's socket id \"" + idText + "\" published in " + hive +
                                         " is not a plain file name; refusing to use it."};
    }
    path = Folder(root.Path(), side) + "/" + idText;
    return {};
}

}  // namespace Veq::Sdk
