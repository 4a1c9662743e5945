#include "apps/Handshake.h"

#include <json/json.h>

#include <memory>

namespace VEQ {

std::optional<Handshake> Handshake::Read(const std::string& data)
{
    Json::Value root;
    // Handshakes are read by one worker per side; each thread builds its reader once.
    thread_local const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    std::string errors;
    bool parsed = false;
    try {
        parsed = reader->parse(data.data(), data.data() + data.size(), &root, &errors);
    } catch (const Json::Exception&) {
        parsed = false;  // nested past the reader's limit
    }
    if (!parsed) {
        return std::nullopt;
    }
    Handshake handshake;
    handshake.clientContext.extensionId = root["extensionId"].asString();
    handshake.clientContext.extensionVersion = root["extensionVersion"].asString();
    handshake.clientContext.extensionName = root["extensionName"].asString();
    handshake.clientContext.sdkVersion = root["sdkVersion"].asString();
    handshake.clientContext.sdkLanguage = root["sdkLanguage"].asString();
    handshake.processId = static_cast<uint32_t>(root["clientProcessId"].asInt());
    return handshake;
}

}  // namespace VEQ
