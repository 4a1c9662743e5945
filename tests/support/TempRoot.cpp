#include "tests/support/TempRoot.h"

#include "platform/string/String.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>

namespace VEQ::Test {

TempRoot::TempRoot(PlatformServices services, PlatformSettings settings)
{
    std::string pattern = "/tmp/veq-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error(std::string("mkdtemp failed: ") + std::strerror(errno));
    }
    chmod(pattern.c_str(), 0755);  // other users' test processes reach shared folders below it
    pathUtf8_ = pattern;
    path_ = String::UTF8ToUTF16(pathUtf8_);
    Reinstall(std::move(services), std::move(settings));
}

void TempRoot::Reinstall(PlatformServices services, PlatformSettings settings)
{
    PlatformPaths paths;
    paths.dataRoot = path_;
    paths.systemRoot = SystemRoot();
    Platform::Install(paths, std::move(services), std::move(settings));
}

TempRoot::~TempRoot()
{
    // Doubles installed for the test go with it; the paths stay until the next root is installed.
    PlatformPaths paths;
    paths.dataRoot = path_;
    Platform::Install(paths);
    std::error_code error;
    std::filesystem::remove_all(pathUtf8_, error);
}

}  // namespace VEQ::Test
