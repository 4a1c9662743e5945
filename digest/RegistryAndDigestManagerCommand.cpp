#include "digest/RegistryAndDigestManagerCommand.h"

#include "broker/ReplyJson.h"
#include "digest/RegistryAndDigestResponse.h"
#include "digest/SmartMessageV2Utility.h"
#include "platform/util/CoreUtility.h"

#include <exception>

using VEQ::SmartMessageV2::SmartMessageV2Utility;

namespace {

constexpr const wchar_t* kFunction = L"RegistryAndDigestManagerCommand::GetResponse";

std::string DigestUrl(const std::string& payload)
{
    Json::Value request;
    try {
        if (!VEQ::ReplyJson::Parse(payload, request) || !request.isObject() || !request["digestUrl"].isString()) {
            return {};
        }
    } catch (const Json::Exception&) {
        return {};  // nested deeper than the reader takes
    }
    return request["digestUrl"].asString();
}

}  // namespace

RegistryAndDigestManagerCommand::RegistryAndDigestManagerCommand(VEQ::Log& log)
    : BaseCommandHandler(log), commandNames_{kCommandName}
{
}

bool RegistryAndDigestManagerCommand::DeleteAll()
{
    const bool digest = SmartMessageV2Utility::DeleteCachedMessageDigest();
    const bool etag = SmartMessageV2Utility::DeleteEtag();
    const bool timestamp = SmartMessageV2Utility::DeletePreviousDownloadDigestTimestamp();
    return digest && etag && timestamp;
}

VEQ::BaseCommandHandler::Result RegistryAndDigestManagerCommand::GetResponse(const VEQ::ClientRequest& request,
                                                                            bool& /*pendingOperation*/)
{
    Result result;
    try {
        const Message& message = request.getMessage();
        const std::string url = DigestUrl(message.notification.payload);
        VEQ::RegistryAndDigestResponse response;
        if (url.empty()) {
            response.cachedDigestAndRegDeleted = DeleteAll();
            log_->d(L"%s: Deleted cached digest and registry key.", kFunction);
        } else {
            const std::string hash = VEQ::CoreUtility::GetInstance()->ComputeUrlHash(url);
            if (hash.empty()) {
                log_->e(L"%s: Failed to compute hash for digest URL.", kFunction);
            }
            std::string previous;
            if (!SmartMessageV2Utility::ReadPreviousHash(previous)) {
                SmartMessageV2Utility::UpdateHashInRegistry(hash);
                response.hashUpdated = true;
                log_->d(L"%s: No hash present already, writing hash to registry", kFunction);
            } else if (previous == hash) {
                log_->d(L"%s: Hash unchanged or not present, updated registry.", kFunction);
            } else {
                response.cachedDigestAndRegDeleted = DeleteAll();
                SmartMessageV2Utility::UpdateHashInRegistry(hash);
                response.hashUpdated = true;
                log_->d(L"%s: Hash changed, deleted cached digest and registry entry.", kFunction);
            }
        }
        result.isSuccess = true;
        result.message.statusCode = 0;
        result.message.guid = message.guid;
        result.message.notification.command = kReplyCommand;
        result.message.notification.payload = VEQ::RegistryAndDigestResponse::Serialize(response);
    } catch (const std::exception& error) {
        result.isSuccess = false;
        result.message.statusText = std::string("Exception caught:") + error.what();
        log_->e(L"%s: catch exception:%s", kFunction, error.what());
    }
    return result;
}

const std::vector<std::string>& RegistryAndDigestManagerCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

VEQ::ElevationType RegistryAndDigestManagerCommand::GetSupportedContext()
{
    return VEQ::ElevationType::Both;
}

VEQ::BaseCommandHandler::ExtensionType RegistryAndDigestManagerCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}
