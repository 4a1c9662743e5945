#include "platform/fs/ProcessDataRoot.h"

#include "platform/Platform.h"
#include "platform/string/String.h"

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

bool CanWriteBelow(const std::string& root)
{
    std::error_code error;
    std::filesystem::create_directories(root + "/log", error);
    return !error && access((root + "/log").c_str(), W_OK) == 0;
}

// A folder of our own in a place everyone can write: made with mode 0700, and refused when
// someone else made it first or put a link there.
bool PrivateFolder(const std::string& path)
{
    mkdir(path.c_str(), 0700);
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & 077) == 0;
}

}  // namespace

void ProcessDataRoot::ExportForChildren(const std::string& dataRoot)
{
    setenv(kVariable, dataRoot.c_str(), 1);
}

std::wstring ProcessDataRoot::ForThisProcess()
{
    if (const char* exported = std::getenv(kVariable); exported != nullptr && *exported == '/' &&
                                                       CanWriteBelow(exported)) {
        return String::UTF8ToUTF16(exported);
    }
    const std::string own = String::UTF16ToUTF8(Platform::DefaultDataRoot());
    if (CanWriteBelow(own)) {
        return String::UTF8ToUTF16(own);
    }
    const std::string fallback = "/tmp/veq-" + std::to_string(geteuid());
    if (PrivateFolder(fallback) && CanWriteBelow(fallback)) {
        return String::UTF8ToUTF16(fallback);
    }
    return L"";
}

}  // namespace VEQ
