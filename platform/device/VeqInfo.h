#pragma once
// What the service tells about itself.

#include <string>

namespace VEQ {

class VeqInfo {
public:
    static VeqInfo* GetInstance();

    VeqInfo(const VeqInfo&) = delete;
    VeqInfo& operator=(const VeqInfo&) = delete;

    // The version of this build, "major.minor.patch". The module ships inside the service, so
    // the two versions are one.
    std::wstring GetVersion() const;
    std::wstring GetVeqServiceVersion() const;

private:
    VeqInfo() = default;
    ~VeqInfo() = default;
};

}  // namespace VEQ
