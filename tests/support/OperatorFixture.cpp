#include "tests/support/OperatorFixture.h"

#include "apps/GlobalSocketIds.h"
#include "broker/BrokerFolders.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "platform/util/CGuid.h"

namespace VEQ::Test {

std::string PublishGlobalSocket(ElevationType side)
{
    const bool user = side == ElevationType::User;
    const std::wstring id = Utility::CGuid::NewGuid(true);
    CRegUtil::CreateKey(HKEY_LOCAL_MACHINE, GlobalSocketIds::kBrokerKey);
    CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, GlobalSocketIds::kBrokerKey, GlobalSocketIds::ValueNameFor(side), id);
    std::wstring folder;
    utility::GetVeqAppDataRootPath(folder);
    folder += BrokerFolders::kBroker;
    folder += user ? BrokerFolders::kSharedUser : BrokerFolders::kElevated;
    FileSystem::createDirectory(folder, true);
    if (user) {
        utility::ApplyFilePermissions(folder, BrokerFolders::kSharedUserAcl, true);
    }
    utility::createFileWithAcl(folder + id, user);
    return String::UTF16ToUTF8(folder + id);
}

}  // namespace VEQ::Test
