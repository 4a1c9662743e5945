#pragma once

#include <string>
#include <sys/stat.h>

namespace VEQ::Test {

// Whether anything is at path, a dangling link or a socket included.
inline bool Exists(const std::string& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

// The permission bits of what is at path (0 when nothing is), and whether it is a socket.
inline mode_t ModeOf(const std::string& path, bool& isSocket)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        isSocket = false;
        return 0;
    }
    isSocket = S_ISSOCK(status.st_mode);
    return status.st_mode & 0777;
}

}  // namespace VEQ::Test
