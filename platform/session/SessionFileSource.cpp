#include "platform/session/SessionFileSource.h"

#include "platform/session/SessionFileMonitor.h"

#include <json/json.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>

namespace VEQ {
namespace {

constexpr std::streamsize kMaxFileBytes = 64 * 1024;

// What the file says; both empty when it says nothing sound.
struct FileSessions {
    std::optional<ActiveSession> active;
    std::vector<ActiveSession> sessions;
};

bool ReadNumber(const Json::Value& object, const char* name, uint32_t below, uint32_t& out)
{
    const Json::Value& value = object[name];
    // 3.0 is as integral as 3, but no writer of ids means it: a real number is no id.
    const bool integer = value.type() == Json::intValue || value.type() == Json::uintValue;
    if (!integer || !value.isUInt() || value.asUInt() >= below) {
        return false;
    }
    out = value.asUInt();
    return true;
}

bool ReadSession(const Json::Value& object, ActiveSession& session)
{
    // uid 0xFFFFFFFF is (uid_t)-1, which set*id calls take as "leave unchanged".
    return object.isObject() && ReadNumber(object, "sessionId", ISessionSource::kNoSession, session.sessionId) &&
           ReadNumber(object, "uid", std::numeric_limits<uint32_t>::max(), session.uid);
}

std::optional<Json::Value> ReadDocument(const std::string& path)
{
    std::ifstream file(path);
    if (!file) {
        return std::nullopt;
    }
    std::string text(static_cast<size_t>(kMaxFileBytes) + 1, '\0');
    file.read(text.data(), kMaxFileBytes + 1);
    const std::streamsize got = file.gcount();
    if (got > kMaxFileBytes) {
        return std::nullopt;
    }
    text.resize(static_cast<size_t>(got));
    Json::Value root;
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, nullptr) || !root.isObject()) {
            return std::nullopt;
        }
    } catch (const Json::Exception&) {
        return std::nullopt;
    }
    return root;
}

FileSessions Read(const std::string& path)
{
    const std::optional<Json::Value> root = ReadDocument(path);
    if (!root) {
        return {};
    }
    FileSessions read;
    ActiveSession active;
    if (ReadSession(*root, active)) {
        read.active = active;
    }
    if (!root->isMember("sessions")) {
        if (read.active) {
            read.sessions.push_back(*read.active);
        }
        return read;
    }

    // With a list, a top-level pair that is there but unreadable is a broken file, not "nobody active".
    if (!read.active && (root->isMember("sessionId") || root->isMember("uid"))) {
        return {};
    }
    const Json::Value& list = (*root)["sessions"];
    if (!list.isArray()) {
        return {};
    }
    for (const Json::Value& entry : list) {
        ActiveSession session;
        if (!ReadSession(entry, session)) {
            return {};
        }
        const bool known = std::any_of(read.sessions.begin(), read.sessions.end(),
                                        [&](const ActiveSession& s) { return s.sessionId == session.sessionId; });
        if (known) {
            return {};
        }
        read.sessions.push_back(session);
    }
    if (read.active && std::find(read.sessions.begin(), read.sessions.end(), *read.active) == read.sessions.end()) {
        return {};
    }
    return read;
}

}  // namespace

bool SessionFileSource::GetActiveSession(ActiveSession& session)
{
    const FileSessions read = Read(path_);
    if (!read.active) {
        return false;
    }
    session = *read.active;
    return true;
}

bool SessionFileSource::GetSessions(std::vector<ActiveSession>& sessions)
{
    sessions = Read(path_).sessions;
    return !sessions.empty();
}

std::unique_ptr<ISessionMonitor> SessionFileSource::WatchChanges()
{
    return SessionFileMonitor::Open(path_);
}

}  // namespace VEQ
