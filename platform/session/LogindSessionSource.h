#pragma once
// The active session of seat0 as systemd-logind knows it.

#include "platform/session/ISessionSource.h"

namespace VEQ {

class LogindSessionSource : public ISessionSource {
public:
    bool GetActiveSession(ActiveSession& session) override;
};

}  // namespace VEQ
