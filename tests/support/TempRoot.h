#pragma once
// A private data root for one test: a fresh directory under /tmp installed as the platform's
// data root (logs and registry below it), with the given doubles installed. When the object goes,
// the directory is removed with everything in it and the doubles are replaced by the Linux services.

#include "platform/Platform.h"

#include <string>

namespace VEQ::Test {

class TempRoot {
public:
    explicit TempRoot(PlatformServices services = {});
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::wstring& Path() const { return path_; }
    const std::string& PathUtf8() const { return pathUtf8_; }
    // path joined below the root: Below(L"log") is <root>/log.
    std::wstring Below(const std::wstring& path) const { return path_ + L"/" + path; }
    std::string BelowUtf8(const std::string& path) const { return pathUtf8_ + "/" + path; }

private:
    std::string pathUtf8_;
    std::wstring path_;
};

}  // namespace VEQ::Test
