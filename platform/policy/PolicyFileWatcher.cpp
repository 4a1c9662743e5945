#include "platform/policy/PolicyFileWatcher.h"

#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/log/Log.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/policy/PolicyFile.h"
#include "platform/string/String.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kConfigChangeTopic = 4;
constexpr int kConfigChangedState = 15;

// One save is several events (an editor renames the old file away, writes the new one, closes it):
// the file is read once the directory has been quiet this long...
constexpr auto kQuietPeriod = 50ms;
// ...or, for a file that is written without pause, this long after the first event.
constexpr auto kLongestDelay = 500ms;

// What may change the file's content. A file created empty and written later ends in IN_CLOSE_WRITE.
constexpr uint32_t kFileEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;
// The directory itself is gone or elsewhere: the path no longer leads to what is watched.
constexpr uint32_t kWatchEndEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

bool Readable(const pollfd& fd)
{
    return (fd.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

}  // namespace

PolicyFileWatcher::PolicyFileWatcher(ConfigPolicyAgent& agent) : agent_(agent) {}

PolicyFileWatcher::~PolicyFileWatcher()
{
    Stop();
}

bool PolicyFileWatcher::Start(const std::wstring& path)
{
    const wchar_t* function = L"VEQ::PolicyFileWatcher::Start";
    std::lock_guard<std::mutex> lock(lifecycleMutex_);
    if (thread_.joinable()) {
        g_log.e(L"%s: already watching %s", function, path_);
        return false;
    }
    path_ = path;
    const std::string file = String::UTF16ToUTF8(path);
    const auto slash = file.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : (slash == 0 ? "/" : file.substr(0, slash));
    fileName_ = slash == std::string::npos ? file : file.substr(slash + 1);
    if (fileName_.empty() || fileName_ == "." || fileName_ == "..") {
        g_log.e(L"%s: %s names no file", function, path);
        return false;
    }

    inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    stopFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    bool watching = inotifyFd_ >= 0 && stopFd_ >= 0 &&
                    ::inotify_add_watch(inotifyFd_, directory.c_str(), kFileEvents | kWatchEndEvents | IN_ONLYDIR) >= 0;
    if (!watching) {
        g_log.e(L"%s: cannot watch %s: %s; changes to %s will not be seen", function, directory, std::strerror(errno),
                path);
    }

    // Read only now that the watch is in place, so that a change made meanwhile is not missed.
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0 && errno == ENOENT) {
        g_log.i(L"%s: there is no policy file %s; the default policy applies until one is written", function, path);
        if (agent_.ReplacePolicyDocument(ConfigPolicyAgent::DefaultPolicy())) {
            Announce();
        }
    } else {
        Reload();
    }

    if (!watching) {
        CloseDescriptors();
        return false;
    }
    watchEnded_ = false;
    thread_ = std::thread(&PolicyFileWatcher::Run, this);
    g_log.i(L"%s: watching %s", function, path);
    return true;
}

void PolicyFileWatcher::Stop()
{
    std::lock_guard<std::mutex> lock(lifecycleMutex_);
    if (thread_.joinable()) {
        const uint64_t one = 1;
        if (::write(stopFd_, &one, sizeof(one)) != sizeof(one)) {
            // An eventfd write fails only when its counter is full, which means it is signalled already.
            g_log.w(L"%s: signalling the watcher failed: %s", L"VEQ::PolicyFileWatcher::Stop", std::strerror(errno));
        }
        thread_.join();
        g_log.i(L"%s: no longer watching %s", L"VEQ::PolicyFileWatcher::Stop", path_);
    }
    CloseDescriptors();
}

void PolicyFileWatcher::Run()
{
    const wchar_t* function = L"VEQ::PolicyFileWatcher::Run";
    try {
        pollfd fds[2] = {{stopFd_, POLLIN, 0}, {inotifyFd_, POLLIN, 0}};
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
            bool changed = DrainEvents();
            const auto latest = Clock::now() + kLongestDelay;
            while (changed && !watchEnded_) {
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(latest - Clock::now());
                const auto wait = std::min<std::chrono::milliseconds>(kQuietPeriod, left);
                if (wait <= 0ms) {
                    break;
                }
                const int ready = ::poll(fds, 2, static_cast<int>(wait.count()));
                if (ready < 0 && errno == EINTR) {
                    continue;
                }
                if (ready <= 0) {
                    break;  // quiet: the save is complete
                }
                if (Readable(fds[0])) {
                    return;
                }
                if (Readable(fds[1])) {
                    DrainEvents();
                }
            }
            if (watchEnded_) {
                g_log.e(L"%s: the directory of %s is gone; changes will not be seen until veqd restarts", function,
                        path_);
                return;
            }
            if (changed) {
                Reload();
            }
        }
    } catch (const std::exception& exception) {
        g_log.e(L"%s: the policy is no longer watched: %s", function, exception.what());
    } catch (...) {
        g_log.e(L"%s: the policy is no longer watched: unknown exception", function);
    }
}

bool PolicyFileWatcher::DrainEvents()
{
    bool changed = false;
    alignas(inotify_event) char buffer[8192];
    for (;;) {
        const ssize_t got = ::read(inotifyFd_, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return changed;  // EAGAIN: drained
        }
        for (ssize_t offset = 0; offset < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                changed = true;  // events were lost: ours may be among them
            }
            if ((event->mask & kWatchEndEvents) != 0) {
                watchEnded_ = true;
            }
            if ((event->mask & kFileEvents) != 0 && event->len > 0 && fileName_ == event->name) {
                changed = true;
            }
        }
    }
}

void PolicyFileWatcher::Reload()
{
    Json::Value document;
    if (PolicyFile::Read(path_, document)) {
        if (agent_.ReplacePolicyDocument(document)) {
            g_log.i(L"%s: a new policy from %s is in force", L"VEQ::PolicyFileWatcher::Reload", path_);
            Announce();
        } else {
            g_log.d(L"%s: %s holds the policy in force already", L"VEQ::PolicyFileWatcher::Reload", path_);
        }
    }
    ++readCount_;
}

void PolicyFileWatcher::Announce()
{
    VEQNotificationData data(kConfigChangeTopic, kConfigChangedState, L"");
    VEQPublisherSubscriber::GetInstance()->Notify(data, L"policy");
}

void PolicyFileWatcher::CloseDescriptors()
{
    for (int* fd : {&inotifyFd_, &stopFd_}) {
        if (*fd >= 0) {
            ::close(*fd);
            *fd = -1;
        }
    }
}

}  // namespace VEQ
