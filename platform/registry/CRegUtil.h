#pragma once
// The registry as the module calls it, over Platform::Registry(). Linux has one registry
// view, so the 64-bit-view variants and the view argument of CreateKey change nothing.

#include "platform/registry/Hive.h"

#include <cstdint>
#include <string>

namespace VEQ {

class CRegUtil {
public:
    // Non-zero when the key exists afterwards; missing parents are created.
    static int CreateKey(Hive hive, const std::wstring& keyPath, int view = 0);
    static bool DoesKeyExists(Hive hive, const std::wstring& keyPath);

    static bool SetKeyValue(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                            const std::wstring& value);
    static bool SetKeyValue(Hive hive, const std::wstring& keyPath, const std::wstring& valueName, uint32_t value);
    static bool SetKeyValueIn64BitRegView(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                                          const std::wstring& value);
    static bool SetKeyValueIn64BitRegView(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                                          uint32_t value);

    // False, and value untouched, when the value is absent or of the other type.
    static bool GetRegValueOfStringType(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                                        std::wstring& value);
    static bool GetRegValueOfDwordType(Hive hive, const std::wstring& keyPath, const std::wstring& valueName,
                                       uint32_t& value);

    static bool DeleteRegValue(Hive hive, const std::wstring& keyPath, const std::wstring& valueName);
    // The key, its values and all its subkeys.
    static bool DeleteKey(Hive hive, const std::wstring& keyPath);
    // A system process deleting in CurrentUser means the signed-in user's hive, named by
    // userSid (a decimal uid); anything else deletes in this process's own hives.
    static bool DeleteUsersRegKey(Hive hive, const std::wstring& keyPath, bool isSystemProcess,
                                  const std::wstring& userSid);
};

}  // namespace VEQ
