#pragma once
// The registry: a tree of keys per hive, each key holding named string and DWORD values.
// Key paths use backslashes (forward slashes are accepted too); letter case is ignored
// in paths and value names for ASCII letters, and the spelling first written is kept.
// No operation throws; failures come back as false, nullopt or an empty list.

#include "platform/registry/Hive.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VEQ {

class IRegistryStore {
public:
    virtual ~IRegistryStore() = default;

    // Creates the key and any missing parents. True when the key exists afterwards.
    virtual bool CreateKey(Hive hive, const std::wstring& keyPath) = 0;
    virtual bool KeyExists(Hive hive, const std::wstring& keyPath) = 0;

    // Both create the key when missing, and replace an existing value of either type.
    virtual bool SetString(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                           const std::wstring& value) = 0;
    virtual bool SetDword(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                          uint32_t value) = 0;

    // nullopt when the key or value is absent or holds the other type.
    virtual std::optional<std::wstring> GetString(Hive hive, const std::wstring& keyPath,
                                                  const std::wstring& valueName) = 0;
    virtual std::optional<uint32_t> GetDword(Hive hive, const std::wstring& keyPath,
                                             const std::wstring& valueName) = 0;

    // False when there was nothing to delete.
    virtual bool DeleteValue(Hive hive, const std::wstring& keyPath, const std::wstring& valueName) = 0;
    // Deletes the key with its values and all its subkeys.
    virtual bool DeleteKey(Hive hive, const std::wstring& keyPath) = 0;
    // Deletes the key in the CurrentUser hive of another user; userId is a decimal uid.
    virtual bool DeleteUserKey(const std::wstring& userId, const std::wstring& keyPath) = 0;

    // For diagnostics and tests: names as first written, sorted without regard to case.
    virtual std::vector<std::wstring> ValueNames(Hive hive, const std::wstring& keyPath) = 0;
    virtual std::vector<std::wstring> SubKeys(Hive hive, const std::wstring& keyPath) = 0;
};

}  // namespace VEQ
