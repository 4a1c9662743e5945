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

std::string TemporaryNameBeside(const std::string& path)
{
    thread_local std::mt19937_64 random{std::random_device{}()};
    const auto slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? std::string(".") : path.substr(0, slash);
    char name[32];
    std::snprintf(name, sizeof(name), "/.b%012llx", static_cast<unsigned long long>(random() & 0xFFFFFFFFFFFFULL));
    return folder + name;
}

}  // namespace

int SocketFile::Bind(zmq::socket_t& socket, const std::string& path, mode_t mode, Identity* bound)
{
    if (path.empty()) {
        return EINVAL;
    }
    const std::string temporary = TemporaryNameBeside(path);
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
    const std::string kept = TemporaryNameBeside(path);
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
    const std::string temporary = TemporaryNameBeside(path);
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
