#include "platform/http/ResponseFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

std::string Reason(const std::string& what, const std::string& path)
{
    return what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

ResponseFile::ResponseFile(std::string path) : path_(std::move(path)) {}

ResponseFile::~ResponseFile()
{
    Discard();
}

bool ResponseFile::Open(std::string& error)
{
    Discard();
    const size_t slash = path_.rfind('/');
    const std::string directory = slash == std::string::npos ? std::string(".") : path_.substr(0, slash);
    const std::string name = slash == std::string::npos ? path_ : path_.substr(slash + 1);
    if (name.empty()) {
        error = "response file " + path_ + " names no file";
        return false;
    }
    std::string temporary = directory + "/." + name + ".XXXXXX";
    // mkostemp creates with O_EXCL and mode 0600.
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        error = Reason("cannot create a file beside", path_);
        return false;
    }
    fd_ = fd;
    temporary_ = std::move(temporary);
    return true;
}

bool ResponseFile::Write(const char* data, size_t size, std::string& error)
{
    while (size > 0) {
        const ssize_t written = ::write(fd_, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = Reason("cannot write", temporary_);
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

bool ResponseFile::Commit(std::string& error)
{
    if (fd_ < 0) {
        error = "response file " + path_ + " is not open";
        return false;
    }
    const int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) {
        error = Reason("cannot write", temporary_);
        Discard();
        return false;
    }
    if (::rename(temporary_.c_str(), path_.c_str()) != 0) {
        error = Reason("cannot replace", path_);
        Discard();
        return false;
    }
    temporary_.clear();
    return true;
}

void ResponseFile::Discard()
{
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    if (!temporary_.empty()) {
        ::unlink(temporary_.c_str());
        temporary_.clear();
    }
}

}  // namespace VEQ
