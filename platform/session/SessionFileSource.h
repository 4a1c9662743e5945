#pragma once
// The sessions as a file says them, for machines without logind (containers, CI):
//     {"sessionId": 3, "uid": 1000, "sessions": [{"sessionId": 3, "uid": 1000}, {"sessionId": 4, "uid": 1001}]}
// The top-level pair is the active session; "sessions" lists every logged-in session and, when
// given, must hold the active one. Without "sessions" the active session is the only one; with
// it, the top-level pair may be left out when no session is active.
// No file, an empty object or a malformed file: nobody is logged in. Read afresh on every ask.
// Writers replace the file by rename: a file written in place may be read half-written, which
// reads as nobody until it is complete.

#include "platform/session/ISessionSource.h"

#include <string>

namespace VEQ {

class SessionFileSource : public ISessionSource {
public:
    explicit SessionFileSource(std::string path) : path_(std::move(path)) {}
    bool GetActiveSession(ActiveSession& session) override;
    bool GetSessions(std::vector<ActiveSession>& sessions) override;
    // Watches the file's folder (not the file, which a rename replaces); null when the folder
    // cannot be watched.
    std::unique_ptr<ISessionMonitor> WatchChanges() override;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

}  // namespace VEQ
