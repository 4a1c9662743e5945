#include "platform/transport/FolderWatch.h"

#include <cerrno>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace Tavrin::Veq::ClientBroker {

FolderWatch::FolderWatch(const std::string& pathInFolder)
{
    const auto slash = pathInFolder.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : pathInFolder.substr(0, slash);
    fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ >= 0 && ::inotify_add_watch(fd_, folder.c_str(), IN_MOVED_TO | IN_DELETE_SELF) < 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

FolderWatch::~FolderWatch()
{
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

bool FolderWatch::WaitForChange(std::chrono::microseconds timeout)
{
    if (fd_ < 0) {
        return false;
    }
    pollfd item{fd_, POLLIN, 0};
    // poll counts in milliseconds; a shorter wait still ends with the change itself.
    const int ms = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(timeout).count());
    int ready = 0;
    do {
        ready = ::poll(&item, 1, ms);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        return false;
    }
    alignas(inotify_event) char events[4096];
    while (::read(fd_, events, sizeof(events)) > 0) {
    }
    return true;
}

}  // namespace Tavrin::Veq::ClientBroker
