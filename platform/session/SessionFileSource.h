#pragma once
// The active session as a file says it, for machines without logind (containers, CI):
//     {"sessionId": 3, "uid": 1000}
// No file, an empty object or a malformed file: nobody is logged in. Read afresh on every ask.

#include "platform/session/ISessionSource.h"

#include <string>

namespace VEQ {

class SessionFileSource : public ISessionSource {
public:
    explicit SessionFileSource(std::string path) : path_(std::move(path)) {}
    bool GetActiveSession(ActiveSession& session) override;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

}  // namespace VEQ
