#pragma once
// A shared library loaded into this process (the plugin host loads its plugin so).

#include <string>

namespace VEQ {

class SharedLibrary {
public:
    SharedLibrary() = default;
    // The library stays loaded: a plugin's threads may outlive its stop, and unloading code that
    // still runs would crash the host at its very end.
    ~SharedLibrary() = default;
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;

    // Loads path with every symbol bound now. False with Error() saying why.
    bool Open(const std::string& path);
    // The address of an exported symbol; null with Error() set when there is none.
    void* Find(const std::string& symbol);
    const std::string& Error() const { return error_; }

private:
    void* handle_ = nullptr;
    std::string error_;
};

}  // namespace VEQ
