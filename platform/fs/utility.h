#pragma once
// Service-wide helpers the module calls by name: where the data lives, opening logs, and who may
// reach a file.

#include <cstdint>
#include <string>

namespace VEQ {

class Log;

class utility {
public:
    // The service's data directory (Platform's data root). False when none is configured.
    static bool GetVeqAppDataRootPath(std::wstring& path);

    static bool InitLog(Log& log, const std::wstring& fileName, int level);

    // The release number of the runtime plugin hosts need (host setting plugins.hostRuntimeRelease):
    // the hosts refuse to start below 528040, and ARM64 plugins need 533320.
    static uint32_t CheckDotNetFrameworkVersion();

    // Access rules given as the Windows icacls-style arguments the callers carry, e.g.
    // "/inheritance:r /q /c /t /grant *S-1-5-32-545:(OI)(CI)F *S-1-5-32-544:(OI)(CI)F *S-1-5-18:(OI)(CI)F".
    // Linux has one owner and no ACLs, so they come down to two modes: when the local Users group
    // (S-1-5-32-545, or Everyone, S-1-1-0) is granted anything, every local user may reach the path
    // (directories 0755, files 0666); otherwise only the service's own user may (0700, 0600).
    // recursive applies the same to everything below; symbolic links are left alone.
    static bool ApplyFilePermissions(const std::wstring& path, const std::wstring& permissionArgs, bool recursive);

    // Creates path, or empties it, as a regular file owned by the service's user: mode 0666 for the
    // user side (a logged-in user's client must reach it), 0600 otherwise. A symbolic link or other
    // non-regular file at path is refused.
    static bool createFileWithAcl(const std::wstring& path, bool userSide);
};

}  // namespace VEQ
