#include "platform/session/SessionWatcher.h"

#include "platform/log/Log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace VEQ {
namespace {

bool Readable(const pollfd& fd)
{
    return (fd.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

bool Contains(const std::vector<ActiveSession>& sessions, const ActiveSession& session)
{
    return std::find(sessions.begin(), sessions.end(), session) != sessions.end();
}

}  // namespace

SessionWatcher::SessionWatcher(std::shared_ptr<ISessionSource> source, Callback callback)
    : source_(std::move(source)), callback_(std::move(callback))
{
}

SessionWatcher::~SessionWatcher()
{
    Stop();
}

bool SessionWatcher::Start()
{
    const wchar_t* function = L"VEQ::SessionWatcher::Start";
    std::lock_guard<std::mutex> lock(lifecycleMutex_);
    if (thread_.joinable()) {
        g_log.e(L"%s: already watching the sessions", function);
        return false;
    }
    if (!source_) {
        g_log.e(L"%s: there is no source of sessions to watch", function);
        return false;
    }
    // Watch first and read then, so that a change made in between is not missed.
    monitor_ = source_->WatchChanges();
    stopFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (stopFd_ < 0) {
        g_log.e(L"%s: %s", function, std::strerror(errno));
    }
    last_ = Take();
    ++readCount_;
    if (!monitor_ || stopFd_ < 0) {
        g_log.e(L"%s: changes to the sessions will not be seen", function);
        CloseDescriptors();
        return false;
    }
    thread_ = std::thread(&SessionWatcher::Run, this);
    g_log.i(L"%s: watching the sessions, %d logged in", function, static_cast<int>(last_.sessions.size()));
    return true;
}

void SessionWatcher::Stop()
{
    std::lock_guard<std::mutex> lock(lifecycleMutex_);
    if (thread_.joinable()) {
        const uint64_t one = 1;
        if (::write(stopFd_, &one, sizeof(one)) != sizeof(one)) {
            // An eventfd write fails only when its counter is full, which means it is signalled already.
            g_log.w(L"%s: signalling the watcher failed: %s", L"VEQ::SessionWatcher::Stop", std::strerror(errno));
        }
        thread_.join();
        g_log.i(L"%s: no longer watching the sessions", L"VEQ::SessionWatcher::Stop");
    }
    CloseDescriptors();
}

SessionWatcher::Snapshot SessionWatcher::Take() const
{
    Snapshot snapshot;
    ActiveSession active;
    if (source_->GetActiveSession(active)) {
        snapshot.active = active;
    }
    source_->GetSessions(snapshot.sessions);
    // The two asks are apart in time; the active session is logged in, whatever the list said a
    // moment before, and must be among them for its log-off to be seen.
    if (snapshot.active && !Contains(snapshot.sessions, *snapshot.active)) {
        snapshot.sessions.push_back(*snapshot.active);
    }
    std::sort(snapshot.sessions.begin(), snapshot.sessions.end(),
              [](const ActiveSession& a, const ActiveSession& b) { return a.sessionId < b.sessionId; });
    return snapshot;
}

void SessionWatcher::Run()
{
    const wchar_t* function = L"VEQ::SessionWatcher::Run";
    try {
        pollfd fds[2] = {{stopFd_, POLLIN, 0}, {monitor_->Fd(), POLLIN, 0}};
        for (;;) {
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR) {
                    continue;
                }
                g_log.e(L"%s: waiting for changes failed: %s", function, std::strerror(errno));
                return;
            }
            if (Readable(fds[0])) {
                return;
            }
            if (!Readable(fds[1])) {
                continue;
            }
            const ISessionMonitor::Wake wake = monitor_->Consume();
            if (wake == ISessionMonitor::Wake::Nothing) {
                continue;
            }
            Update();
            if (wake == ISessionMonitor::Wake::Ended) {
                g_log.e(L"%s: the sessions can no longer be watched; changes will not be seen until veqd restarts",
                        function);
                return;
            }
        }
    } catch (const std::exception& exception) {
        g_log.e(L"%s: the sessions are no longer watched: %s", function, exception.what());
    } catch (...) {
        g_log.e(L"%s: the sessions are no longer watched: unknown exception", function);
    }
}

void SessionWatcher::Update()
{
    Snapshot next = Take();
    if (next != last_) {
        // A session is its id and its user: an id that now names another user's session is a log-off.
        for (const ActiveSession& session : last_.sessions) {
            if (!Contains(next.sessions, session)) {
                Report(SessionChange::Kind::LoggedOff, session.sessionId);
            }
        }
        if (next.active && next.active != last_.active) {
            Report(SessionChange::Kind::Activated, next.active->sessionId);
        }
        last_ = std::move(next);
    }
    ++readCount_;
}

void SessionWatcher::Report(SessionChange::Kind kind, uint32_t sessionId)
{
    const wchar_t* function = L"VEQ::SessionWatcher::Report";
    const bool loggedOff = kind == SessionChange::Kind::LoggedOff;
    g_log.i(loggedOff ? L"%s: session %u logged off" : L"%s: session %u is now active", function, sessionId);
    // One subscriber's failure costs it this report, not the watch.
    try {
        callback_(SessionChange{kind, sessionId});
    } catch (const std::exception& exception) {
        g_log.e(L"%s: reporting session %u failed: %s", function, sessionId, exception.what());
    } catch (...) {
        g_log.e(L"%s: reporting session %u failed: unknown exception", function, sessionId);
    }
}

void SessionWatcher::CloseDescriptors()
{
    monitor_.reset();
    if (stopFd_ >= 0) {
        ::close(stopFd_);
        stopFd_ = -1;
    }
}

}  // namespace VEQ
