#pragma once
// Changes to logind's sessions and seats. Sessions coming and going and a seat switching to
// another session are told by two monitors; one epoll descriptor stands for both, so that a
// waiter polls one descriptor whatever the source.

#include "platform/session/ISessionMonitor.h"

#include <memory>

struct sd_login_monitor;

namespace VEQ {

class LogindSessionMonitor : public ISessionMonitor {
public:
    // Null (and logged) when logind cannot be watched, as where it does not run.
    static std::unique_ptr<LogindSessionMonitor> Open();
    ~LogindSessionMonitor() override;
    LogindSessionMonitor(const LogindSessionMonitor&) = delete;
    LogindSessionMonitor& operator=(const LogindSessionMonitor&) = delete;

    int Fd() const override { return epollFd_; }
    Wake Consume() override;

private:
    LogindSessionMonitor() = default;

    sd_login_monitor* sessions_ = nullptr;
    sd_login_monitor* seats_ = nullptr;
    int epollFd_ = -1;
};

}  // namespace VEQ
