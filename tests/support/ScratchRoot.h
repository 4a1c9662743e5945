#pragma once
// A fresh directory below $TMPDIR (or /tmp) for a program run beside the tests, such as a bench's
// service root; removed with everything in it when the object goes, however the run ends.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace VEQ::Test {

class ScratchRoot {
public:
    // prefix names the directory: <TMPDIR>/<prefix>-XXXXXX. Throws when it cannot be made.
    explicit ScratchRoot(const std::string& prefix)
    {
        const char* tmp = std::getenv("TMPDIR");
        path_ = std::string(tmp != nullptr && *tmp == '/' ? tmp : "/tmp") + "/" + prefix + "-XXXXXX";
        if (::mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
        }
    }
    ~ScratchRoot()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

}  // namespace VEQ::Test
