#include "platform/registry/SqliteRegistryStore.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <latch>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace VEQ {
namespace {

namespace fs = std::filesystem;

class ScopedUmask {
public:
    explicit ScopedUmask(mode_t mask) : previous_(::umask(mask)) {}
    ~ScopedUmask() { ::umask(previous_); }

private:
    mode_t previous_;
};

mode_t ModeOf(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? (status.st_mode & 07777) : 0;
}

std::wstring Wide(const std::string& text)
{
    return std::wstring(text.begin(), text.end());
}

class RegistryStoreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        root_ = temp_.BelowUtf8("state/registry");  // neither level exists yet
        store_ = std::make_unique<SqliteRegistryStore>(Wide(root_));
    }

    VEQ::Test::TempRoot temp_;
    std::string root_;
    std::unique_ptr<SqliteRegistryStore> store_;
};

TEST_F(RegistryStoreTest, KeyPathsAndValueNamesIgnoreAsciiLetterCaseOnly)
{
    struct Row {
        const wchar_t* writtenKey;
        const wchar_t* writtenName;
        const wchar_t* readKey;
        const wchar_t* readName;
        bool same;
    };
    const Row rows[] = {
        {L"Software\\Tavrin\\VEQ\\Broker", L"afxunix-usersocket", L"SOFTWARE\\tavrin\\veq\\broker", L"AFXUNIX-USERSOCKET", true},
        {L"SOFTWARE\\Tavrin\\VEQ\\Plugins\\MessagingPlugin", L"Etag", L"SOFTWARE\\Tavrin\\veq\\Plugins\\MessagingPlugin", L"etag", true},
        {L"Software\\Case", L"Name", L"Software\\Case", L"Name", true},
        {L"Software\\\u00c4rger", L"v", L"Software\\\u00e4rger", L"v", false},
        {L"Software\\Umlaut", L"\u00c4", L"Software\\Umlaut", L"\u00e4", false},
        {L"Software\\Prefix", L"v", L"Software\\Prefi", L"v", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "written " << String::UTF16ToUTF8(row.writtenKey) << " / "
                                        << String::UTF16ToUTF8(row.writtenName));
        ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, row.writtenKey, row.writtenName, L"data"));
        EXPECT_EQ(store_->GetString(HKEY_LOCAL_MACHINE, row.readKey, row.readName).has_value(), row.same);
    }
}

TEST_F(RegistryStoreTest, TheSpellingFirstWrittenIsKeptForKeysAndNames)
{
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ", L"Extension-Support", L"1"));
    ASSERT_TRUE(store_->SetDword(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TAVRIN\\veq", L"extension-support", 1));
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"software\\tavrin\\VEQ\\broker"));

    EXPECT_EQ(store_->SubKeys(HKEY_LOCAL_MACHINE, L"SOFTWARE"), std::vector<std::wstring>{L"Tavrin"});
    EXPECT_EQ(store_->SubKeys(HKEY_LOCAL_MACHINE, L"software\\tavrin"), std::vector<std::wstring>{L"VEQ"});
    EXPECT_EQ(store_->SubKeys(HKEY_LOCAL_MACHINE, L"software\\tavrin\\veq"), std::vector<std::wstring>{L"broker"});
    EXPECT_EQ(store_->ValueNames(HKEY_LOCAL_MACHINE, L"software\\tavrin\\veq"),
              std::vector<std::wstring>{L"Extension-Support"});
}

TEST_F(RegistryStoreTest, SeparatorsAreNormalisedAndAnEmptyPathOrRootIsRefused)
{
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ", L"v", L"data"));
    for (const wchar_t* spelling : {L"Software/Tavrin/VEQ", L"\\Software\\Tavrin\\VEQ\\", L"//Software\\\\Tavrin//VEQ/",
                                    L"Software/Tavrin\\VEQ"}) {
        SCOPED_TRACE(String::UTF16ToUTF8(spelling));
        EXPECT_EQ(store_->GetString(HKEY_LOCAL_MACHINE, spelling, L"v"), L"data");
    }
    EXPECT_EQ(store_->SubKeys(HKEY_LOCAL_MACHINE, L"Software"), std::vector<std::wstring>{L"Tavrin"});

    for (const wchar_t* empty : {L"", L"\\", L"/", L"\\\\//"}) {
        SCOPED_TRACE(testing::Message() << "path '" << String::UTF16ToUTF8(empty) << "'");
        EXPECT_FALSE(store_->CreateKey(HKEY_LOCAL_MACHINE, empty));
        EXPECT_FALSE(store_->SetString(HKEY_LOCAL_MACHINE, empty, L"v", L"x"));
        EXPECT_FALSE(store_->SetDword(HKEY_LOCAL_MACHINE, empty, L"v", 1));
        EXPECT_FALSE(store_->KeyExists(HKEY_LOCAL_MACHINE, empty));
        EXPECT_FALSE(store_->DeleteKey(HKEY_LOCAL_MACHINE, empty));
    }
    EXPECT_FALSE(SqliteRegistryStore(L"").SetString(HKEY_LOCAL_MACHINE, L"K", L"v", L"x")) << "an empty root names no files";
}

TEST_F(RegistryStoreTest, CreatingAKeyOrValueCreatesItsMissingParents)
{
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ\\Broker"));
    ASSERT_TRUE(store_->SetDword(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ\\PackageStatus\\pkg\\1.0", L"n", 3));
    EXPECT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ\\Broker")) << "existing key";

    for (const wchar_t* key : {L"Software", L"Software\\Tavrin", L"Software\\Tavrin\\VEQ", L"Software\\Tavrin\\VEQ\\Broker",
                               L"Software\\Tavrin\\VEQ\\PackageStatus", L"Software\\Tavrin\\VEQ\\PackageStatus\\pkg"}) {
        EXPECT_TRUE(store_->KeyExists(HKEY_LOCAL_MACHINE, key)) << String::UTF16ToUTF8(key);
    }
    EXPECT_EQ(store_->SubKeys(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ"),
              (std::vector<std::wstring>{L"Broker", L"PackageStatus"}));
}

TEST_F(RegistryStoreTest, DeleteKeyRemovesItsValuesAndWholeSubtreeButNotItsNeighbours)
{
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"A", L"top", L"kept"));
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"A\\B", L"mid", L"gone"));
    ASSERT_TRUE(store_->SetDword(HKEY_LOCAL_MACHINE, L"A\\B\\C", L"leaf", 7));
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"A\\B\\C\\D", L"deep", L"gone"));
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"A\\BC", L"neighbour", L"kept"));
    ASSERT_TRUE(store_->SetString(HKEY_CURRENT_USER, L"A\\B", L"mid", L"other hive"));

    EXPECT_TRUE(store_->DeleteKey(HKEY_LOCAL_MACHINE, L"a\\b"));

    for (const wchar_t* key : {L"A\\B", L"A\\B\\C", L"A\\B\\C\\D"}) {
        EXPECT_FALSE(store_->KeyExists(HKEY_LOCAL_MACHINE, key)) << String::UTF16ToUTF8(key);
    }
    EXPECT_EQ(store_->GetString(HKEY_LOCAL_MACHINE, L"A", L"top"), L"kept");
    EXPECT_EQ(store_->GetString(HKEY_LOCAL_MACHINE, L"A\\BC", L"neighbour"), L"kept");
    EXPECT_EQ(store_->GetString(HKEY_CURRENT_USER, L"A\\B", L"mid"), L"other hive");
    EXPECT_FALSE(store_->DeleteKey(HKEY_LOCAL_MACHINE, L"A\\B")) << "already gone";

    // Values of a deleted key must not come back with a new key of the same name.
    ASSERT_TRUE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"A\\B\\C\\D"));
    EXPECT_TRUE(store_->ValueNames(HKEY_LOCAL_MACHINE, L"A\\B").empty());
    EXPECT_TRUE(store_->ValueNames(HKEY_LOCAL_MACHINE, L"A\\B\\C").empty());
    EXPECT_TRUE(store_->ValueNames(HKEY_LOCAL_MACHINE, L"A\\B\\C\\D").empty());
}

TEST_F(RegistryStoreTest, DeleteValueReportsWhetherThereWasOne)
{
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"K", L"Etag", L"x"));
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"K", L"Other", L"y"));

    EXPECT_TRUE(store_->DeleteValue(HKEY_LOCAL_MACHINE, L"k", L"ETAG"));
    EXPECT_FALSE(store_->DeleteValue(HKEY_LOCAL_MACHINE, L"K", L"Etag"));
    EXPECT_FALSE(store_->DeleteValue(HKEY_LOCAL_MACHINE, L"Missing", L"Etag"));
    EXPECT_EQ(store_->GetString(HKEY_LOCAL_MACHINE, L"K", L"Other"), L"y");
    EXPECT_TRUE(store_->KeyExists(HKEY_LOCAL_MACHINE, L"K")) << "the key outlives its values";
}

TEST_F(RegistryStoreTest, SettingAValueReplacesItsType)
{
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"K", L"v", L"42"));
    EXPECT_FALSE(store_->GetDword(HKEY_LOCAL_MACHINE, L"K", L"v").has_value()) << "a string is no DWORD";

    ASSERT_TRUE(store_->SetDword(HKEY_LOCAL_MACHINE, L"K", L"V", 0xFFFFFFFFu));
    EXPECT_FALSE(store_->GetString(HKEY_LOCAL_MACHINE, L"K", L"v").has_value());
    EXPECT_EQ(store_->GetDword(HKEY_LOCAL_MACHINE, L"K", L"v"), 0xFFFFFFFFu);

    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"K", L"v", L""));
    EXPECT_EQ(store_->GetString(HKEY_LOCAL_MACHINE, L"K", L"v"), L"") << "an empty string is still a value";
    EXPECT_FALSE(store_->GetDword(HKEY_LOCAL_MACHINE, L"K", L"v").has_value());
    EXPECT_EQ(store_->ValueNames(HKEY_LOCAL_MACHINE, L"K").size(), 1u);
}

TEST_F(RegistryStoreTest, ValuesSurviveANewStoreOnTheSameRoot)
{
    const std::wstring text = L"socket \u00e9\u4e2d\U0001F600";  // must round-trip through UTF-8
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ\\Broker", L"afxunix-usersocket", text));
    ASSERT_TRUE(store_->SetDword(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ", L"extension-support", 1));
    ASSERT_TRUE(store_->SetString(HKEY_CURRENT_USER, L"Software\\Tavrin\\VEQ", L"user", L"mine"));
    store_.reset();

    SqliteRegistryStore reopened(Wide(root_));
    EXPECT_EQ(reopened.GetString(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ\\Broker", L"afxunix-usersocket"), text);
    EXPECT_EQ(reopened.GetDword(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ", L"extension-support"), 1u);
    EXPECT_EQ(reopened.GetString(HKEY_CURRENT_USER, L"Software\\Tavrin\\VEQ", L"user"), L"mine");
    EXPECT_FALSE(reopened.GetString(HKEY_LOCAL_MACHINE, L"Software\\Tavrin\\VEQ", L"user").has_value());
}

TEST_F(RegistryStoreTest, AReadOnlyStoreReadsEverythingAndChangesNothing)
{
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"K", L"s", L"before"));
    ASSERT_TRUE(store_->SetDword(HKEY_LOCAL_MACHINE, L"K", L"d", 5));
    const auto reader = SqliteRegistryStore::OpenReadOnly(Wide(root_));
    ASSERT_EQ(reader->GetString(HKEY_LOCAL_MACHINE, L"k", L"S"), L"before");

    EXPECT_FALSE(reader->CreateKey(HKEY_LOCAL_MACHINE, L"K\\New"));
    EXPECT_FALSE(reader->SetString(HKEY_LOCAL_MACHINE, L"K", L"s", L"after"));
    EXPECT_FALSE(reader->SetDword(HKEY_LOCAL_MACHINE, L"K", L"d", 6));
    EXPECT_FALSE(reader->DeleteValue(HKEY_LOCAL_MACHINE, L"K", L"d"));
    EXPECT_FALSE(reader->DeleteKey(HKEY_LOCAL_MACHINE, L"K"));
    EXPECT_FALSE(reader->SetString(HKEY_CURRENT_USER, L"K", L"s", L"after"));

    EXPECT_EQ(store_->GetString(HKEY_LOCAL_MACHINE, L"K", L"s"), L"before");
    EXPECT_EQ(store_->GetDword(HKEY_LOCAL_MACHINE, L"K", L"d"), 5u);
    EXPECT_FALSE(store_->KeyExists(HKEY_LOCAL_MACHINE, L"K\\New"));
    EXPECT_FALSE(fs::exists(store_->HiveFilePath(HKEY_CURRENT_USER))) << "a reader creates no files";

    // Values written after the reader opened are seen by it.
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"K", L"s", L"later"));
    EXPECT_EQ(reader->GetString(HKEY_LOCAL_MACHINE, L"K", L"s"), L"later");
}

TEST_F(RegistryStoreTest, ReadsCreateNoFilesAndFindNothingOnAnEmptyRoot)
{
    EXPECT_FALSE(store_->KeyExists(HKEY_LOCAL_MACHINE, L"Software"));
    EXPECT_FALSE(store_->GetString(HKEY_LOCAL_MACHINE, L"Software", L"v").has_value());
    EXPECT_FALSE(store_->DeleteKey(HKEY_CURRENT_USER, L"Software"));
    EXPECT_TRUE(store_->SubKeys(HKEY_LOCAL_MACHINE, L"Software").empty());
    EXPECT_FALSE(fs::exists(root_));
}

TEST_F(RegistryStoreTest, FilesGetTheModesReadersNeedWhateverTheUmask)
{
    ScopedUmask strict(077);
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, L"K", L"v", L"x"));
    ASSERT_TRUE(store_->SetString(HKEY_CURRENT_USER, L"K", L"v", L"x"));

    const std::string userFile = root_ + "/users/" + std::to_string(::geteuid()) + ".db";
    EXPECT_EQ(store_->HiveFilePath(HKEY_CURRENT_USER), userFile);
    const std::pair<std::string, mode_t> expected[] = {
        {temp_.BelowUtf8("state"), 0755}, {root_, 0755},         {root_ + "/machine.db", 0644},
        {root_ + "/users", 0755},        {userFile, 0600},
    };
    for (const auto& [path, mode] : expected) {
        EXPECT_EQ(ModeOf(path), mode) << path;
    }
}

TEST_F(RegistryStoreTest, ConcurrentWritersAndReadersOnTwoStoresLoseNothing)
{
    // Two store objects on one root stand for two processes: they share the file, not a mutex.
    SqliteRegistryStore other(Wide(root_));
    IRegistryStore* stores[] = {store_.get(), &other};
    constexpr int kThreads = 8;
    constexpr int kWritesPerThread = 20;
    const std::wstring key = L"Software\\Tavrin\\VEQ\\Load";

    std::latch start(kThreads);
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t]() {
            IRegistryStore& store = *stores[t % 2];
            start.arrive_and_wait();
            for (int i = 0; i < kWritesPerThread; ++i) {
                const std::wstring name = L"t" + std::to_wstring(t) + L"-" + std::to_wstring(i);
                const bool written = (i % 2 == 0) ? store.SetString(HKEY_LOCAL_MACHINE, key, name, name)
                                                  : store.SetDword(HKEY_LOCAL_MACHINE, key, name, static_cast<uint32_t>(t * 1000 + i));
                failures[t] += written ? 0 : 1;
                // Reads of other threads' keys run alongside the writes.
                failures[t] += store.KeyExists(HKEY_LOCAL_MACHINE, key) ? 0 : 1;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(failures[t], 0) << "thread " << t;
    }
    ASSERT_EQ(store_->ValueNames(HKEY_LOCAL_MACHINE, key).size(), static_cast<size_t>(kThreads * kWritesPerThread));
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kWritesPerThread; ++i) {
            const std::wstring name = L"t" + std::to_wstring(t) + L"-" + std::to_wstring(i);
            if (i % 2 == 0) {
                EXPECT_EQ(other.GetString(HKEY_LOCAL_MACHINE, key, name), name) << String::UTF16ToUTF8(name);
            } else {
                EXPECT_EQ(other.GetDword(HKEY_LOCAL_MACHINE, key, name), static_cast<uint32_t>(t * 1000 + i))
                    << String::UTF16ToUTF8(name);
            }
        }
    }
}

TEST_F(RegistryStoreTest, ADamagedHiveFailsQuietlyAndIsLeftForInspection)
{
    fs::create_directories(root_);
    const std::string garbage(4096, 'x');
    std::ofstream(root_ + "/machine.db", std::ios::binary) << garbage;

    EXPECT_FALSE(store_->CreateKey(HKEY_LOCAL_MACHINE, L"K"));
    EXPECT_FALSE(store_->SetString(HKEY_LOCAL_MACHINE, L"K", L"v", L"x"));
    EXPECT_FALSE(store_->SetDword(HKEY_LOCAL_MACHINE, L"K", L"v", 1));
    EXPECT_FALSE(store_->KeyExists(HKEY_LOCAL_MACHINE, L"K"));
    EXPECT_FALSE(store_->GetString(HKEY_LOCAL_MACHINE, L"K", L"v").has_value());
    EXPECT_FALSE(store_->GetDword(HKEY_LOCAL_MACHINE, L"K", L"v").has_value());
    EXPECT_FALSE(store_->DeleteValue(HKEY_LOCAL_MACHINE, L"K", L"v"));
    EXPECT_FALSE(store_->DeleteKey(HKEY_LOCAL_MACHINE, L"K"));
    EXPECT_TRUE(store_->ValueNames(HKEY_LOCAL_MACHINE, L"K").empty());
    EXPECT_FALSE(SqliteRegistryStore::OpenReadOnly(Wide(root_))->GetString(HKEY_LOCAL_MACHINE, L"K", L"v").has_value());

    std::ifstream file(root_ + "/machine.db", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), garbage);

    // The other hive is a file of its own and goes on working.
    EXPECT_TRUE(store_->SetString(HKEY_CURRENT_USER, L"K", L"v", L"x"));
    EXPECT_EQ(store_->GetString(HKEY_CURRENT_USER, L"K", L"v"), L"x");
}

TEST_F(RegistryStoreTest, DeleteUserKeyReachesOnlyTheNamedUsersHive)
{
    const std::wstring key = L"SOFTWARE\\Tavrin\\veq\\Plugins\\MessagingPlugin\\MessageDigestStatus";
    const std::wstring self = std::to_wstring(::geteuid());
    const std::wstring other = std::to_wstring(::geteuid() + 1000);
    ASSERT_TRUE(store_->SetString(HKEY_CURRENT_USER, key, L"LastMessageDigestTimeStamp", L"t"));
    ASSERT_TRUE(store_->SetString(HKEY_LOCAL_MACHINE, key, L"LastMessageDigestTimeStamp", L"t"));
    // The other user's hive starts as a copy of ours, so both hold the key.
    fs::copy_file(store_->HiveFilePath(HKEY_CURRENT_USER), root_ + "/users/" + String::UTF16ToUTF8(other) + ".db");

    // Ids that are no uid must reach no file, not even one their text would name.
    for (const wchar_t* badId : {L"", L"abc", L"../0", L"-1", L"+5", L" 5", L"4294967295", L"99999999999"}) {
        const std::string file = root_ + "/users/" + String::UTF16ToUTF8(badId) + ".db";
        fs::copy_file(store_->HiveFilePath(HKEY_CURRENT_USER), file, fs::copy_options::overwrite_existing);
        EXPECT_FALSE(store_->DeleteUserKey(badId, key)) << "user id '" << String::UTF16ToUTF8(badId) << "'";
    }
    EXPECT_FALSE(store_->DeleteUserKey(std::to_wstring(::geteuid() + 2000), key)) << "a user without a hive";

    EXPECT_TRUE(store_->DeleteUserKey(other, key));
    EXPECT_FALSE(store_->DeleteUserKey(other, key)) << "the other user's key is gone";
    EXPECT_TRUE(store_->KeyExists(HKEY_CURRENT_USER, key)) << "our own hive is untouched";
    EXPECT_TRUE(store_->KeyExists(HKEY_LOCAL_MACHINE, key));

    EXPECT_TRUE(store_->DeleteUserKey(self, key));
    EXPECT_FALSE(store_->KeyExists(HKEY_CURRENT_USER, key));
    EXPECT_TRUE(store_->KeyExists(HKEY_LOCAL_MACHINE, key));
}

}  // namespace
}  // namespace VEQ
