#pragma once
// The sessions of seat0 as systemd-logind knows them.

#include "platform/session/ISessionSource.h"

namespace VEQ {

class LogindSessionSource : public ISessionSource {
public:
    bool GetActiveSession(ActiveSession& session) override;
    // The sessions of seat0 that are "active" or "online"; one that is "closing" has logged off
    // though its processes linger.
    bool GetSessions(std::vector<ActiveSession>& sessions) override;
    // Null when logind does not run here.
    std::unique_ptr<ISessionMonitor> WatchChanges() override;
};

}  // namespace VEQ
