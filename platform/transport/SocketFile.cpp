#include "platform/transport/SocketFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Tavrin::Veq::ClientBroker {
namespace {

std::string FolderOf(const std::string& path)
{
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

// Where sockets are bound and placeholders kept before they take their names: a private folder
// beside the one that holds the path, so that the folders clients list hold only endpoints' files.
// The folder the path is in serves when that one cannot be had (a parent others may write to, a
// folder not ours, another file system).
std::string StagingFolderFor(const std::string& path)
{
    const std::string folder = FolderOf(path);
    if (folder == "/" || folder == ".") {
        return folder;
    }
    // Only below a parent that nobody else may write to: in /tmp, a name could be taken first.
    const std::string parent = FolderOf(folder);
    struct stat above {};
    if (::lstat(parent.c_str(), &above) != 0 || above.st_uid != ::geteuid() || (above.st_mode & 022) != 0) {
        return folder;
    }
    const std::string staging = parent + "/.staging";
    struct stat status {};
    struct stat home {};
    if (::mkdir(staging.c_str(), 0700) != 0 && errno != EEXIST) {
        return folder;
    }
    if (::lstat(staging.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != ::geteuid() ||
        (status.st_mode & 077) != 0 || ::stat(folder.c_str(), &home) != 0 || home.st_dev != status.st_dev) {
        return folder;
    }
    return staging;
}

std::string TemporaryNameFor(const std::string& path)
{
    thread_local std::mt19937_64 random{std::random_device{}()};
    char name[32];
    std::snprintf(name, sizeof(name), "/.b%012llx", static_cast<unsigned long long>(random() & 0xFFFFFFFFFFFFULL));
    return StagingFolderFor(path) + name;
}

}  // namespace

int SocketFile::Bind(zmq::socket_t& socket, const std::string& path, mode_t mode, Identity* bound)
{
    if (path.empty()) {
        return EINVAL;
    }
    const std::string temporary = TemporaryNameFor(path);
    if (temporary.size() >= sizeof(sockaddr_un::sun_path) || path.size() >= sizeof(sockaddr_un::sun_path)) {
        return ENAMETOOLONG;
    }
    try {
        socket.bind("ipc://" + temporary);
    } catch (const zmq::error_t& error) {
        return error.num() != 0 ? error.num() : EIO;
    }
    struct stat status {};
    if (::chmod(temporary.c_str(), mode) != 0 || ::stat(temporary.c_str(), &status) != 0 ||
        ::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        return error;
    }
    if (bound != nullptr) {
        *bound = Identity{status.st_dev, status.st_ino};
    }
    return 0;
}

std::string SocketFile::KeepPlaceholder(const std::string& path)
{
    struct stat status {};
    if (path.empty() || ::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return {};
    }
    const std::string kept = TemporaryNameFor(path);
    return ::link(path.c_str(), kept.c_str()) == 0 ? kept : std::string();
}

void SocketFile::DropPlaceholder(const std::string& kept)
{
    if (!kept.empty()) {
        ::unlink(kept.c_str());
    }
}

void SocketFile::Retire(const std::string& path, const Identity& bound, const std::string& kept)
{
    struct stat status {};
    if (path.empty() || ::lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode) ||
        status.st_dev != bound.device || status.st_ino != bound.inode) {
        return;
    }
    const std::string temporary = TemporaryNameFor(path);
    bool replaced = false;
    if (!kept.empty() && ::link(kept.c_str(), temporary.c_str()) == 0) {
        // Another name for the kept placeholder: no new file, which a busy file system makes dear.
        replaced = ::rename(temporary.c_str(), path.c_str()) == 0;
    } else {
        const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        replaced = fd >= 0 && ::fchmod(fd, status.st_mode & 0777) == 0 &&
                   ::rename(temporary.c_str(), path.c_str()) == 0;
        if (fd >= 0) {
            ::close(fd);
        }
    }
    if (!replaced) {
        ::unlink(temporary.c_str());
        ::unlink(path.c_str());  // refused all the same, only without the mode kept
    }
}

mode_t SocketFile::ModeFor(const std::string& path)
{
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        return status.st_mode & 0777;
    }
    return 0600;
}

int SocketFile::Probe(const std::string& path)
{
    sockaddr_un address{};
    if (path.size() >= sizeof(address.sun_path)) {
        return ENAMETOOLONG;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return errno;
    }
    const int rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    const int error = rc == 0 ? 0 : errno;
    ::close(fd);
    return error;
}

}  // namespace Tavrin::Veq::ClientBroker
