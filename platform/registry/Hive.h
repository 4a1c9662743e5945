#pragma once
// The two registry hives the module uses. The HKEY_ names let module code read as it
// was written against the Windows registry: CRegUtil::CreateKey(HKEY_LOCAL_MACHINE, ...).

namespace VEQ {

enum class Hive {
    LocalMachine,  // one per machine, readable by every local user
    CurrentUser,   // one per user id, private to that user
};

inline constexpr Hive HKEY_LOCAL_MACHINE = Hive::LocalMachine;
inline constexpr Hive HKEY_CURRENT_USER = Hive::CurrentUser;

}  // namespace VEQ
