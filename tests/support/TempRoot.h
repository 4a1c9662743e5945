#pragma once
// A private data root for one test: a fresh directory under /tmp installed as the platform's
// data root (logs and registry below it; the system root is <root>/system, the common data root
// <root>/common), with the given doubles and settings installed. When the object goes,
// the directory is removed with everything in it and the doubles are replaced by the Linux services.

#include "platform/Platform.h"

#include <string>

namespace VEQ::Test {

class TempRoot {
public:
    explicit TempRoot(PlatformServices services = {}, PlatformSettings settings = {});
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::wstring& Path() const { return path_; }
    const std::string& PathUtf8() const { return pathUtf8_; }
    // path joined below the root: Below(L"log") is <root>/log.
    std::wstring Below(const std::wstring& path) const { return path_ + L"/" + path; }
    std::string BelowUtf8(const std::string& path) const { return pathUtf8_ + "/" + path; }
    std::wstring SystemRoot() const { return Below(L"system"); }
    std::wstring CommonDataRoot() const { return Below(L"common"); }
    // Installs these settings (and the services given at construction are replaced by defaults
    // unless given again).
    void Reinstall(PlatformServices services, PlatformSettings settings);

private:
    std::string pathUtf8_;
    std::wstring path_;
};

}  // namespace VEQ::Test
