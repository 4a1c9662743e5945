#pragma once

#include <chrono>
#include <string>

namespace Tavrin::Veq::ClientBroker {

// Wakes a waiter when a file is renamed into the folder of a path: the service binds each socket
// under a hidden name and renames it into place, so a socket replacing its placeholder is noticed
// at once instead of at the next look. Nothing else in the folder wakes the waiter, which would
// take the CPU from the very thread that is binding. Inactive (every wait returns false at once)
// where the folder cannot be watched; callers then fall back to sleeping.
class FolderWatch {
public:
    explicit FolderWatch(const std::string& pathInFolder);
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    bool Active() const { return fd_ >= 0; }
    // Waits up to timeout for a change; true when one came. Pending changes are consumed.
    bool WaitForChange(std::chrono::microseconds timeout);

private:
    int fd_ = -1;
};

}  // namespace Tavrin::Veq::ClientBroker
