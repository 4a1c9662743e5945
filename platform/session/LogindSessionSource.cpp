#include "platform/session/LogindSessionSource.h"

#include <systemd/sd-login.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace VEQ {

bool LogindSessionSource::GetActiveSession(ActiveSession& session)
{
    char* name = nullptr;
    uid_t uid = 0;
    if (sd_seat_get_active("seat0", &name, &uid) < 0 || name == nullptr) {
        return false;
    }
    // logind's session ids are decimal numbers for login sessions; anything else is no user's desk.
    const std::string id(name);
    std::free(name);
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(id.c_str(), &end, 10);
    if (id.empty() || *end != '\0' || errno != 0 || number >= kNoSession) {
        return false;
    }
    session.sessionId = static_cast<uint32_t>(number);
    session.uid = static_cast<uint32_t>(uid);
    return true;
}

}  // namespace VEQ
