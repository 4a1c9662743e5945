#include "platform/session/SessionFileSource.h"

#include <json/json.h>

#include <fstream>
#include <limits>
#include <memory>
#include <sstream>

namespace VEQ {
namespace {

constexpr std::streamsize kMaxFileBytes = 64 * 1024;

bool ReadNumber(const Json::Value& object, const char* name, uint32_t below, uint32_t& out)
{
    const Json::Value& value = object[name];
    if (!value.isUInt() || value.asUInt() >= below) {
        return false;
    }
    out = value.asUInt();
    return true;
}

}  // namespace

bool SessionFileSource::GetActiveSession(ActiveSession& session)
{
    std::ifstream file(path_);
    if (!file) {
        return false;
    }
    std::string text(static_cast<size_t>(kMaxFileBytes) + 1, '\0');
    file.read(text.data(), kMaxFileBytes + 1);
    const std::streamsize got = file.gcount();
    if (got > kMaxFileBytes) {
        return false;
    }
    text.resize(static_cast<size_t>(got));
    Json::Value root;
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, nullptr) || !root.isObject()) {
            return false;
        }
    } catch (const Json::Exception&) {
        return false;
    }
    ActiveSession read;
    // uid 0xFFFFFFFF is (uid_t)-1, which set*id calls take as "leave unchanged".
    if (!ReadNumber(root, "sessionId", kNoSession, read.sessionId) ||
        !ReadNumber(root, "uid", std::numeric_limits<uint32_t>::max(), read.uid)) {
        return false;
    }
    session = read;
    return true;
}

}  // namespace VEQ
