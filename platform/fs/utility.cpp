#include "platform/fs/utility.h"

#include "platform/Platform.h"
#include "platform/log/Log.h"
#include "platform/string/String.h"

#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace VEQ {
namespace {

constexpr mode_t kSharedDirectoryMode = 0755;
constexpr mode_t kSharedFileMode = 0666;
constexpr mode_t kPrivateDirectoryMode = 0700;
constexpr mode_t kPrivateFileMode = 0600;

// A grant is "<trustee>:<rights>" after "/grant" or "/grant:r"; the trustee is "*<SID>" or a name.
bool GrantsLocalUsers(const std::wstring& permissionArgs)
{
    std::wistringstream tokens(permissionArgs);
    std::wstring token;
    bool inGrant = false;
    while (tokens >> token) {
        if (token.starts_with(L"/")) {
            inGrant = String::CaseInsensitiveStartsWith(token, L"/grant");
            continue;
        }
        if (!inGrant) {
            continue;
        }
        std::wstring trustee = token.substr(0, token.find(L':'));
        if (trustee.starts_with(L"*")) {
            trustee.erase(0, 1);
        }
        for (const wchar_t* everyone : {L"S-1-5-32-545", L"S-1-1-0", L"Users", L"BUILTIN\\Users", L"Everyone"}) {
            if (String::CaseInsesitiveEqual(trustee, everyone)) {
                return true;
            }
        }
    }
    return false;
}

mode_t ModeFor(const struct stat& status, bool shared)
{
    if (S_ISDIR(status.st_mode)) {
        return shared ? kSharedDirectoryMode : kPrivateDirectoryMode;
    }
    return shared ? kSharedFileMode : kPrivateFileMode;
}

// chmod follows links, and a link below a shared folder could point anywhere; links are skipped.
bool ChangeModeBelow(const fs::path& path, bool shared)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return false;
    }
    return S_ISLNK(status.st_mode) || chmod(path.c_str(), ModeFor(status, shared)) == 0;
}

}  // namespace

bool utility::GetVeqAppDataRootPath(std::wstring& path)
{
    path = Platform::Paths().dataRoot;
    return !path.empty();
}

bool utility::InitLog(Log& log, const std::wstring& fileName, int level)
{
    return log.Init(fileName, level);
}

uint32_t utility::CheckDotNetFrameworkVersion()
{
    return Platform::Settings().hostRuntimeRelease;
}

bool utility::ApplyFilePermissions(const std::wstring& path, const std::wstring& permissionArgs, bool recursive)
{
    const bool shared = GrantsLocalUsers(permissionArgs);
    const fs::path root(String::UTF16ToUTF8(path));
    struct stat status {};
    if (stat(root.c_str(), &status) != 0 || chmod(root.c_str(), ModeFor(status, shared)) != 0) {
        return false;
    }
    if (!recursive || !S_ISDIR(status.st_mode)) {
        return true;
    }
    bool allApplied = true;
    std::error_code error;
    fs::recursive_directory_iterator it(root, error);
    if (error) {
        return false;
    }
    for (const fs::recursive_directory_iterator end; it != end; it.increment(error)) {
        if (error) {
            return false;
        }
        allApplied = ChangeModeBelow(it->path(), shared) && allApplied;
    }
    return allApplied && !error;
}

bool utility::createFileWithAcl(const std::wstring& path, bool userSide)
{
    const mode_t mode = userSide ? kSharedFileMode : kPrivateFileMode;
    const std::string target = String::UTF16ToUTF8(path);
    // O_NONBLOCK keeps a FIFO planted at path from blocking the open; it is refused below.
    const int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode);
    if (fd < 0) {
        return false;
    }
    struct stat status {};
    bool done = fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && ftruncate(fd, 0) == 0;
    if (done && status.st_uid != geteuid()) {
        done = fchown(fd, geteuid(), static_cast<gid_t>(-1)) == 0;
    }
    done = done && fchmod(fd, mode) == 0;  // the umask cut the mode given to open
    close(fd);
    return done;
}

}  // namespace VEQ
