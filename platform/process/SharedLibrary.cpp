#include "platform/process/SharedLibrary.h"

#include <dlfcn.h>

namespace VEQ {

bool SharedLibrary::Open(const std::string& path)
{
    dlerror();
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char* reason = dlerror();
        error_ = reason != nullptr ? reason : path + ": cannot be loaded";
        return false;
    }
    return true;
}

void* SharedLibrary::Find(const std::string& symbol)
{
    if (handle_ == nullptr) {
        error_ = "no library is loaded";
        return nullptr;
    }
    dlerror();
    void* address = dlsym(handle_, symbol.c_str());
    if (address == nullptr) {
        const char* reason = dlerror();
        error_ = reason != nullptr ? reason : symbol + " is null";
    }
    return address;
}

}  // namespace VEQ
