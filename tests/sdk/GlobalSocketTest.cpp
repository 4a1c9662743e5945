// Finding a side's global socket from what the service published in the registry.

#include "sdk/GlobalSocket.h"

#include "platform/registry/CRegUtil.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace Veq::Sdk {
namespace {

struct Row {
    const char* name;
    const wchar_t* publishedValue;  // null: nothing written
    std::wstring publishedId;
    Side side;
    ErrorCode expected;
    std::string expectedPathBelowRoot;  // for a success
    std::string messageMentions;        // for an error; "@" stands for the root
};

TEST(GlobalSocketTest, BuildsTheSidesPathFromThePublishedIdOrSaysWhatIsMissing)
{
    const std::vector<Row> rows = {
        {"user side", GlobalSocket::kUserSocketValue, L"id-1", Side::User, ErrorCode::None,
         "/Broker/SharedUser/id-1", ""},
        {"elevated side", GlobalSocket::kElevatedSocketValue, L"id-2", Side::Elevated, ErrorCode::None,
         "/Broker/Elevated/id-2", ""},
        {"no registry at all", nullptr, L"", Side::User, ErrorCode::NotPublished, "", "@/registry/machine.db"},
        {"only the other side published", GlobalSocket::kUserSocketValue, L"id-3", Side::Elevated,
         ErrorCode::NotPublished, "", "afxunix-elevatedsocket"},
        {"an empty id", GlobalSocket::kUserSocketValue, L"", Side::User, ErrorCode::NotPublished, "",
         "afxunix-usersocket"},
        {"an id that climbs out of the folder", GlobalSocket::kUserSocketValue, L"../../etc", Side::User,
         ErrorCode::BadReply, "", "../../etc"},
        {"an id that is a parent folder", GlobalSocket::kElevatedSocketValue, L"..", Side::Elevated,
         ErrorCode::BadReply, "", "not a plain file name"},
    };
    for (const Row& row : rows) {
        VEQ::Test::TempRoot temp;
        if (row.publishedValue != nullptr) {
            ASSERT_TRUE(VEQ::CRegUtil::SetKeyValue(VEQ::HKEY_LOCAL_MACHINE, GlobalSocket::kBrokerKey,
                                                   row.publishedValue, row.publishedId))
                << row.name;
        }
        const DataRoot root = DataRoot::Resolve(temp.PathUtf8());
        std::string path = "stale";
        const Error error = GlobalSocket::Locate(root, row.side, path);
        EXPECT_EQ(error.Code(), row.expected) << row.name << ": " << error.Message();
        if (row.expected == ErrorCode::None) {
            EXPECT_EQ(path, temp.PathUtf8() + row.expectedPathBelowRoot) << row.name;
            continue;
        }
        EXPECT_TRUE(path.empty()) << row.name;
        std::string mention = row.messageMentions;
        if (mention.rfind('@', 0) == 0) {
            mention = temp.PathUtf8() + mention.substr(1);
        }
        EXPECT_NE(error.Message().find(mention), std::string::npos) << row.name << ": " << error.Message();
    }
}

TEST(GlobalSocketTest, LookingCreatesNothing)
{
    VEQ::Test::TempRoot temp;
    std::string path;
    EXPECT_EQ(GlobalSocket::Locate(DataRoot::Resolve(temp.PathUtf8()), Side::User, path).Code(),
              ErrorCode::NotPublished);
    struct stat status {};
    EXPECT_NE(::stat(temp.BelowUtf8("registry").c_str(), &status), 0) << "a reader created the registry";
}

}  // namespace
}  // namespace Veq::Sdk
