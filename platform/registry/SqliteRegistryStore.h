#pragma once
// The registry on SQLite: one database file per hive below a root directory.
//   <root>/machine.db      LocalMachine; dir 0755, file 0644, so any local user can read
//                          the socket ids the service publishes there
//   <root>/users/<uid>.db  CurrentUser of that uid; file 0600, owned by the user
// Readers in other processes open the files with OpenReadOnly and need no write access.
// Thread-safe: each hive has one connection, used under its own mutex.

#include "platform/registry/IRegistryStore.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace VEQ {

class SqliteRegistryStore final : public IRegistryStore {
public:
    // Creates the root, its parents and the hive files on the first write, not before.
    explicit SqliteRegistryStore(std::wstring rootDir);
    // For unprivileged readers: opens existing files read-only and refuses every write.
    static std::unique_ptr<SqliteRegistryStore> OpenReadOnly(std::wstring rootDir);
    ~SqliteRegistryStore() override;

    SqliteRegistryStore(const SqliteRegistryStore&) = delete;
    SqliteRegistryStore& operator=(const SqliteRegistryStore&) = delete;

    bool CreateKey(Hive hive, const std::wstring& keyPath) override;
    bool KeyExists(Hive hive, const std::wstring& keyPath) override;
    bool SetString(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                   const std::wstring& value) override;
    bool SetDword(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                  uint32_t value) override;
    std::optional<std::wstring> GetString(Hive hive, const std::wstring& keyPath,
                                          const std::wstring& valueName) override;
    std::optional<uint32_t> GetDword(Hive hive, const std::wstring& keyPath,
                                     const std::wstring& valueName) override;
    bool DeleteValue(Hive hive, const std::wstring& keyPath, const std::wstring& valueName) override;
    bool DeleteKey(Hive hive, const std::wstring& keyPath) override;
    bool DeleteUserKey(const std::wstring& userId, const std::wstring& keyPath) override;
    std::vector<std::wstring> ValueNames(Hive hive, const std::wstring& keyPath) override;
    std::vector<std::wstring> SubKeys(Hive hive, const std::wstring& keyPath) override;

    // The file that holds a hive of this process's user; for tools and tests.
    std::string HiveFilePath(Hive hive);

private:
    class HiveFile;  // one database file and its connection


    SqliteRegistryStore(std::wstring rootDir, bool readOnly);

    HiveFile& FileOf(Hive hive);
    HiveFile& UserFile(unsigned uid);

    const std::string root_;
    const bool readOnly_;
    std::unique_ptr<HiveFile> machine_;
    std::mutex usersMutex_;
    std::map<unsigned, std::unique_ptr<HiveFile>> users_;
};

}  // namespace VEQ
