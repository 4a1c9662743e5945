#include "platform/session/LogindSessionSource.h"

#include "platform/session/LogindSessionMonitor.h"

#include <systemd/sd-login.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace VEQ {
namespace {

constexpr const char* kSeat = "seat0";

// logind's session ids are decimal numbers for login sessions; anything else is no user's desk.
bool ParseSessionId(const char* id, uint32_t& number)
{
    if (id == nullptr || std::isdigit(static_cast<unsigned char>(id[0])) == 0) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long parsed = std::strtoul(id, &end, 10);
    if (*end != '\0' || errno != 0 || parsed >= ISessionSource::kNoSession) {
        return false;
    }
    number = static_cast<uint32_t>(parsed);
    return true;
}

// A user is at the session: in front of the seat ("active") or logged in beside it ("online").
bool LoggedIn(const char* id)
{
    char* state = nullptr;
    if (sd_session_get_state(id, &state) < 0 || state == nullptr) {
        return false;
    }
    const bool loggedIn = std::strcmp(state, "active") == 0 || std::strcmp(state, "online") == 0;
    std::free(state);
    return loggedIn;
}

}  // namespace

bool LogindSessionSource::GetActiveSession(ActiveSession& session)
{
    char* name = nullptr;
    uid_t uid = 0;
    if (sd_seat_get_active(kSeat, &name, &uid) < 0 || name == nullptr) {
        return false;
    }
    uint32_t id = 0;
    const bool parsed = ParseSessionId(name, id);
    std::free(name);
    if (!parsed) {
        return false;
    }
    session.sessionId = id;
    session.uid = static_cast<uint32_t>(uid);
    return true;
}

bool LogindSessionSource::GetSessions(std::vector<ActiveSession>& sessions)
{
    sessions.clear();
    char** ids = nullptr;
    const int count = sd_seat_get_sessions(kSeat, &ids, nullptr, nullptr);
    if (count < 0 || ids == nullptr) {
        return false;
    }
    for (char** id = ids; *id != nullptr; ++id) {
        ActiveSession session;
        uid_t uid = 0;
        if (ParseSessionId(*id, session.sessionId) && sd_session_get_uid(*id, &uid) >= 0 && LoggedIn(*id)) {
            session.uid = static_cast<uint32_t>(uid);
            sessions.push_back(session);
        }
        std::free(*id);
    }
    std::free(ids);
    return !sessions.empty();
}

std::unique_ptr<ISessionMonitor> LogindSessionSource::WatchChanges()
{
    return LogindSessionMonitor::Open();
}

}  // namespace VEQ
