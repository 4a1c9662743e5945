#include "platform/util/System.h"

#include "platform/Platform.h"
#include "platform/session/ISessionSource.h"

#include <ctime>

namespace VEQ {

std::wstring System::GetLoggedInUserSID()
{
    ActiveSession session;
    const auto sessions = Platform::Sessions();
    if (!sessions || !sessions->GetActiveSession(session)) {
        return L"";
    }
    return std::to_wstring(session.uid);
}

std::wstring System::GetTime()
{
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return std::wstring(text, text + length);
}

}  // namespace VEQ
