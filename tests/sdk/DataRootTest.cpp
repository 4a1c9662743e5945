// Which data root an app looks in, from what it is given and its environment.

#include "sdk/DataRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace Veq::Sdk {
namespace {

namespace fs = std::filesystem;

class TempFolder {
public:
    TempFolder()
    {
        std::string pattern = "/tmp/veq-sdk-root-XXXXXX";
        path_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
    }
    ~TempFolder()
    {
        std::error_code error;
        fs::remove_all(path_, error);
    }
    const std::string& Path() const { return path_; }
    // A service's registry below folder.
    void PlantRegistry(const std::string& folder) const
    {
        fs::create_directories(path_ + folder + "/registry");
        std::ofstream(path_ + folder + "/registry/machine.db") << "";
    }

private:
    std::string path_;
};

struct Row {
    const char* name;
    std::string explicitRoot;
    std::map<std::string, std::string> environment;  // "@" stands for the temporary folder
    std::string plantedRegistryBelow;                 // empty: none
    std::string expectedPath;
    std::string expectedOrigin;
};

TEST(DataRootTest, PicksTheGivenRootThenVeqRootThenAStateFolderWithARegistryThenTheSystemRoot)
{
    const std::vector<Row> rows = {
        {"given root wins over VEQ_ROOT", "/srv/veq/", {{"VEQ_ROOT", "/elsewhere"}}, "", "/srv/veq", "given"},
        {"VEQ_ROOT wins over a state folder", "", {{"VEQ_ROOT", "/elsewhere//"}, {"XDG_STATE_HOME", "@/state"}},
         "/state/veq", "/elsewhere", "from VEQ_ROOT"},
        {"empty VEQ_ROOT is not a root", "", {{"VEQ_ROOT", ""}, {"HOME", "@/nohome"}}, "", "/var/lib/veq",
         "the system default"},
        {"XDG state folder with a registry", "", {{"XDG_STATE_HOME", "@/state"}, {"HOME", "@/home"}}, "/state/veq",
         "@/state/veq", "this user's state folder"},
        {"XDG state folder without a registry", "", {{"XDG_STATE_HOME", "@/state"}, {"HOME", "@/home"}},
         "/home/.local/state/veq", "/var/lib/veq", "the system default"},
        {"home state folder when XDG_STATE_HOME is unset", "", {{"HOME", "@/home"}}, "/home/.local/state/veq",
         "@/home/.local/state/veq", "this user's state folder"},
        {"relative XDG_STATE_HOME is ignored", "", {{"XDG_STATE_HOME", "state"}, {"HOME", "@/home"}},
         "/home/.local/state/veq", "@/home/.local/state/veq", "this user's state folder"},
    };
    for (const Row& row : rows) {
        TempFolder temp;
        ASSERT_FALSE(temp.Path().empty());
        const auto expand = [&](std::string text) {
            if (text.rfind('@', 0) == 0) {
                text = temp.Path() + text.substr(1);
            }
            return text;
        };
        std::map<std::string, std::string> environment;
        for (const auto& [name, value] : row.environment) {
            environment[name] = expand(value);
        }
        if (!row.plantedRegistryBelow.empty()) {
            temp.PlantRegistry(row.plantedRegistryBelow);
        }
        const DataRoot root = DataRoot::Resolve(row.explicitRoot, [&](const char* name) -> const char* {
            auto found = environment.find(name);
            return found == environment.end() ? nullptr : found->second.c_str();
        });
        EXPECT_EQ(root.Path(), expand(row.expectedPath)) << row.name;
        EXPECT_EQ(root.Origin(), row.expectedOrigin) << row.name;
        EXPECT_EQ(root.MachineHiveFile(), expand(row.expectedPath) + "/registry/machine.db") << row.name;
    }
}

}  // namespace
}  // namespace Veq::Sdk
