#include "platform/session/LogindSessionMonitor.h"

#include "platform/log/Log.h"

#include <systemd/sd-login.h>

#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <unistd.h>

namespace VEQ {
namespace {

// Puts a monitor's descriptor into the epoll set. logind's monitors have no timeout of their own
// (sd_login_monitor_get_timeout gives none), so readiness alone tells a change.
int AddToEpoll(int epollFd, sd_login_monitor* monitor)
{
    const int fd = sd_login_monitor_get_fd(monitor);
    if (fd < 0) {
        return fd;
    }
    const int events = sd_login_monitor_get_events(monitor);
    if (events < 0) {
        return events;
    }
    epoll_event event{};
    event.events = static_cast<uint32_t>(events);
    event.data.fd = fd;
    return ::epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) < 0 ? -errno : 0;
}

}  // namespace

std::unique_ptr<LogindSessionMonitor> LogindSessionMonitor::Open()
{
    const wchar_t* function = L"VEQ::LogindSessionMonitor::Open";
    std::unique_ptr<LogindSessionMonitor> monitor(new LogindSessionMonitor());
    int result = sd_login_monitor_new("session", &monitor->sessions_);
    if (result >= 0) {
        result = sd_login_monitor_new("seat", &monitor->seats_);
    }
    if (result >= 0) {
        monitor->epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
        result = monitor->epollFd_ < 0 ? -errno : 0;
    }
    if (result >= 0) {
        result = AddToEpoll(monitor->epollFd_, monitor->sessions_);
    }
    if (result >= 0) {
        result = AddToEpoll(monitor->epollFd_, monitor->seats_);
    }
    if (result < 0) {
        g_log.e(L"%s: cannot watch logind's sessions: %s", function, std::strerror(-result));
        return nullptr;
    }
    return monitor;
}

LogindSessionMonitor::~LogindSessionMonitor()
{
    if (epollFd_ >= 0) {
        ::close(epollFd_);
    }
    sd_login_monitor_unref(sessions_);
    sd_login_monitor_unref(seats_);
}

ISessionMonitor::Wake LogindSessionMonitor::Consume()
{
    // Flushing both is cheap and leaves neither ready; which of them woke does not matter. One
    // that cannot be flushed would stay ready and wake its waiter for ever: the watch ends there.
    const int sessions = sd_login_monitor_flush(sessions_);
    const int seats = sd_login_monitor_flush(seats_);
    if (sessions < 0 || seats < 0) {
        g_log.e(L"%s: logind's sessions can no longer be watched: %s", L"VEQ::LogindSessionMonitor::Consume",
                std::strerror(-(sessions < 0 ? sessions : seats)));
        return Wake::Ended;
    }
    return Wake::Changed;
}

}  // namespace VEQ
