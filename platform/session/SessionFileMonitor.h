#pragma once
// Changes to a session file, seen through inotify on its folder: a writer may create the file,
// replace it by rename, write it in place, move it away or delete it, and the folder's watch sees
// all of these where a watch on the file would be lost with the file it replaced.

#include "platform/session/ISessionMonitor.h"

#include <memory>
#include <string>

namespace VEQ {

class SessionFileMonitor : public ISessionMonitor {
public:
    // Null (and logged) when the file's folder cannot be watched.
    static std::unique_ptr<SessionFileMonitor> Open(const std::string& path);
    ~SessionFileMonitor() override;
    SessionFileMonitor(const SessionFileMonitor&) = delete;
    SessionFileMonitor& operator=(const SessionFileMonitor&) = delete;

    int Fd() const override { return inotifyFd_; }
    Wake Consume() override;

private:
    SessionFileMonitor(int inotifyFd, std::string fileName) : inotifyFd_(inotifyFd), fileName_(std::move(fileName)) {}

    int inotifyFd_;
    std::string fileName_;  // the file's name in its folder
};

}  // namespace VEQ
