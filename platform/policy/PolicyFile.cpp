#include "platform/policy/PolicyFile.h"

#include "platform/log/Log.h"
#include "platform/string/String.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

constexpr const wchar_t* kRead = L"VEQ::PolicyFile::Read";

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor()
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

}  // namespace

bool PolicyFile::Read(const std::wstring& path, Json::Value& document)
{
    const std::string file = String::UTF16ToUTF8(path);
    // Non-blocking, so that a FIFO put in the file's place cannot hang the reader.
    FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (fd.get() < 0) {
        const int error = errno;
        if (error == ENOENT) {
            g_log.w(L"%s: %s does not exist; the policy in force stays", kRead, path);
        } else {
            g_log.e(L"%s: cannot open %s: %s; the policy in force stays", kRead, path, std::strerror(error));
        }
        return false;
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        g_log.e(L"%s: %s is not a regular file; the policy in force stays", kRead, path);
        return false;
    }
    // The policy decides what runs with the service's rights: a file that anyone may change is no policy.
    if ((status.st_mode & S_IWOTH) != 0) {
        g_log.e(L"%s: %s is writable by every user; ignored, the policy in force stays", kRead, path);
        return false;
    }
    if (static_cast<std::size_t>(status.st_size) > kMaxSize) {
        g_log.e(L"%s: %s is larger than %zu bytes; ignored, the policy in force stays", kRead, path, kMaxSize);
        return false;
    }

    std::string text;
    char buffer[16384];
    for (;;) {
        const ssize_t got = ::read(fd.get(), buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            g_log.e(L"%s: cannot read %s: %s; the policy in force stays", kRead, path, std::strerror(errno));
            return false;
        }
        if (got == 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(got));
        if (text.size() > kMaxSize) {  // grew while being read
            g_log.e(L"%s: %s is larger than %zu bytes; ignored, the policy in force stays", kRead, path, kMaxSize);
            return false;
        }
    }

    Json::Value parsed;
    std::string error;
    if (!Parse(text, parsed, error)) {
        g_log.e(L"%s: %s is not valid JSON, the policy in force stays: %s", kRead, path, error);
        return false;
    }
    if (!parsed.isObject()) {
        g_log.e(L"%s: %s does not hold a JSON object; the policy in force stays", kRead, path);
        return false;
    }
    document = std::move(parsed);
    return true;
}

bool PolicyFile::Parse(const std::string& text, Json::Value& document, std::string& error)
{
    static constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    std::string_view body(text);
    if (body.starts_with(kByteOrderMark)) {
        body.remove_prefix(kByteOrderMark.size());
    }
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder.settings_["strictRoot"] = false;  // a scalar is a valid document, just not a policy
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(body.data(), body.data() + body.size(), &document, &error);
}

}  // namespace VEQ
