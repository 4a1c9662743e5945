#include "platform/session/SessionFileMonitor.h"

#include "platform/log/Log.h"

#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

namespace VEQ {
namespace {

// What may change what the file says. A file created empty and written later ends in IN_CLOSE_WRITE.
constexpr uint32_t kFileEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_CREATE;
// The folder itself is gone or elsewhere: the path no longer leads to what is watched.
constexpr uint32_t kWatchEndEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

}  // namespace

std::unique_ptr<SessionFileMonitor> SessionFileMonitor::Open(const std::string& path)
{
    const wchar_t* function = L"VEQ::SessionFileMonitor::Open";
    const auto slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    std::string fileName = slash == std::string::npos ? path : path.substr(slash + 1);
    if (fileName.empty() || fileName == "." || fileName == "..") {
        g_log.e(L"%s: %s names no file", function, path);
        return nullptr;
    }
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0 || ::inotify_add_watch(fd, folder.c_str(), kFileEvents | kWatchEndEvents | IN_ONLYDIR) < 0) {
        g_log.e(L"%s: cannot watch %s: %s", function, folder, std::strerror(errno));
        if (fd >= 0) {
            ::close(fd);
        }
        return nullptr;
    }
    return std::unique_ptr<SessionFileMonitor>(new SessionFileMonitor(fd, std::move(fileName)));
}

SessionFileMonitor::~SessionFileMonitor()
{
    ::close(inotifyFd_);
}

ISessionMonitor::Wake SessionFileMonitor::Consume()
{
    bool changed = false;
    bool ended = false;
    alignas(inotify_event) char buffer[8192];
    for (;;) {
        const ssize_t got = ::read(inotifyFd_, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;  // EAGAIN: drained
        }
        for (ssize_t offset = 0; offset < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                changed = true;  // events were lost: ours may be among them
            }
            if ((event->mask & kWatchEndEvents) != 0) {
                ended = true;
            }
            if ((event->mask & kFileEvents) != 0 && event->len > 0 && fileName_ == event->name) {
                changed = true;
            }
        }
    }
    if (ended) {
        return Wake::Ended;
    }
    return changed ? Wake::Changed : Wake::Nothing;
}

}  // namespace VEQ
