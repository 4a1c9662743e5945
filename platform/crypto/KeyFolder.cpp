#include "platform/crypto/KeyFolder.h"

#include "platform/Platform.h"
#include "platform/string/String.h"

#include <openssl/crypto.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

std::string Reason(const std::string& what, const std::string& path, int error)
{
    return what + " " + path + ": " + std::strerror(error);
}

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

bool WriteAll(int fd, const std::string& content)
{
    size_t done = 0;
    while (done < content.size()) {
        const ssize_t count = ::write(fd, content.data() + done, content.size() - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        done += static_cast<size_t>(count);
    }
    return ::fsync(fd) == 0;
}

// Reads an open file of at most maxSize bytes.
std::optional<std::string> ReadAll(int fd, size_t maxSize, const std::string& path, std::string& error)
{
    std::string content;
    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            error = Reason("cannot read", path, errno);
            OPENSSL_cleanse(content.data(), content.size());
            return std::nullopt;
        }
        if (count == 0) {
            break;
        }
        content.append(buffer, static_cast<size_t>(count));
        if (content.size() > maxSize) {
            error = "refused " + path + ": larger than a key file can be";
            OPENSSL_cleanse(content.data(), content.size());
            OPENSSL_cleanse(buffer, sizeof buffer);
            return std::nullopt;
        }
    }
    OPENSSL_cleanse(buffer, sizeof buffer);
    return content;
}

void SyncFolder(const std::string& path)
{
    const Fd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() >= 0) {
        ::fsync(folder.get());
    }
}

}  // namespace

KeyFolder::KeyFolder(std::wstring path) : path_(std::move(path)), pathUtf8_(String::UTF16ToUTF8(path_)) {}

std::wstring KeyFolder::DefaultPath()
{
    return Platform::Paths().dataRoot + L"/keys";
}

std::string KeyFolder::FilePath(const std::string& name) const
{
    return pathUtf8_ + "/" + name;
}

bool KeyFolder::Prepare(std::string& error) const
{
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(pathUtf8_).parent_path(), ignored);
    if (::mkdir(pathUtf8_.c_str(), 0700) != 0 && errno != EEXIST) {
        error = Reason("cannot create", pathUtf8_, errno);
        return false;
    }
    struct stat status {};
    if (::lstat(pathUtf8_.c_str(), &status) != 0) {
        error = Reason("cannot examine", pathUtf8_, errno);
        return false;
    }
    if (!S_ISDIR(status.st_mode) || status.st_uid != ::geteuid()) {
        error = "refused " + pathUtf8_ + ": not a folder of the service's user";
        return false;
    }
    if ((status.st_mode & 077) != 0 && ::chmod(pathUtf8_.c_str(), 0700) != 0) {
        error = Reason("cannot make private", pathUtf8_, errno);
        return false;
    }
    return true;
}

std::optional<std::string> KeyFolder::ReadSecret(const std::string& name, size_t maxSize, std::string& error) const
{
    const std::string path = FilePath(name);
    const Fd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0) {
        error = errno == ELOOP ? "refused " + path + ": a symbolic link" : Reason("cannot open", path, errno);
        return std::nullopt;
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        error = Reason("cannot examine", path, errno);
        return std::nullopt;
    }
    // Whatever others could read is no secret any more, and what others own they could have chosen.
    if (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid() || (status.st_mode & 077) != 0) {
        error = "refused " + path + ": a key file must be a regular file of the service's user with mode 0600";
        return std::nullopt;
    }
    return ReadAll(file.get(), maxSize, path, error);
}

bool KeyFolder::CreateOnce(const std::string& name, const std::string& content, std::string& error) const
{
    std::string temporary = FilePath("." + name + ".XXXXXX");
    const Fd file(::mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
    if (file.get() < 0) {
        error = Reason("cannot create a file in", pathUtf8_, errno);
        return false;
    }
    bool created = false;
    if (!WriteAll(file.get(), content)) {
        error = Reason("cannot write", temporary, errno);
    } else if (::link(temporary.c_str(), FilePath(name).c_str()) == 0) {
        created = true;
    } else if (errno != EEXIST) {
        error = Reason("cannot create", FilePath(name), errno);
    }
    ::unlink(temporary.c_str());
    SyncFolder(pathUtf8_);
    return created;
}

std::optional<std::string> KeyFolder::LoadOrCreateSecret(const std::string& name, size_t maxSize,
                                                         const std::function<std::string()>& make,
                                                         std::string& error) const
{
    if (!Prepare(error)) {
        return std::nullopt;
    }
    if (auto content = ReadSecret(name, maxSize, error)) {
        return content;
    }
    if (::access(FilePath(name).c_str(), F_OK) == 0 || errno != ENOENT) {
        return std::nullopt;  // there, but refused: never replaced behind the owner's back
    }
    std::string made = make();
    if (made.empty()) {
        error = "cannot make " + FilePath(name);
        return std::nullopt;
    }
    std::string createError;
    const bool created = CreateOnce(name, made, createError);
    OPENSSL_cleanse(made.data(), made.size());
    if (!created && !createError.empty()) {
        error = createError;
        return std::nullopt;
    }
    // Read back, also when another process won the race: its key is the one.
    return ReadSecret(name, maxSize, error);
}

bool KeyFolder::WritePublic(const std::string& name, const std::string& content, std::string& error) const
{
    std::string temporary = FilePath("." + name + ".XXXXXX");
    const Fd file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (file.get() < 0) {
        error = Reason("cannot create a file in", pathUtf8_, errno);
        return false;
    }
    if (::fchmod(file.get(), 0644) != 0 || !WriteAll(file.get(), content) ||
        ::rename(temporary.c_str(), FilePath(name).c_str()) != 0) {
        error = Reason("cannot write", FilePath(name), errno);
        ::unlink(temporary.c_str());
        return false;
    }
    SyncFolder(pathUtf8_);
    return true;
}

std::optional<std::string> KeyFolder::ReadPublic(const std::string& name, size_t maxSize, std::string& error,
                                                 int* errnoOut) const
{
    const std::string path = FilePath(name);
    const Fd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0) {
        if (errnoOut != nullptr) {
            *errnoOut = errno;
        }
        error = Reason("cannot open", path, errno);
        return std::nullopt;
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        error = "refused " + path + ": not a regular file";
        return std::nullopt;
    }
    return ReadAll(file.get(), maxSize, path, error);
}

}  // namespace VEQ
