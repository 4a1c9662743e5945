#include "commands/TestApplicabilityCommand.h"

#include "broker/ReplyJson.h"
#include "commands/TestApplicabilityResponse.h"
#include "platform/applicability/ApplicabilityEvaluator.h"
#include "platform/string/String.h"

#include <exception>

namespace VEQ {
namespace {

constexpr const wchar_t* kFunction = L"VEQ::TestApplicabilityCommand::GetResponse";

// The reason goes out a byte per character, as clients of this command have always read it.
std::string Narrow(const std::wstring& text)
{
    std::string narrow;
    narrow.reserve(text.size());
    for (const wchar_t c : text) {
        narrow.push_back(static_cast<char>(static_cast<unsigned char>(c)));
    }
    return narrow;
}

bool Parse(const std::string& text, Json::Value& value)
{
    try {
        return ReplyJson::Parse(text, value);
    } catch (const Json::Exception&) {
        return false;  // nested deeper than the reader takes
    }
}

}  // namespace

TestApplicabilityCommand::TestApplicabilityCommand(Log& log) : BaseCommandHandler(log), commandNames_{kCommandName} {}

std::vector<ApplicabilityFilter> TestApplicabilityCommand::ReadFilters(const Json::Value& request)
{
    std::vector<ApplicabilityFilter> filters;
    const Json::Value& list = request.isObject() ? request["filter"] : Json::Value::null;
    if (list.isArray()) {
        for (const Json::Value& element : list) {
            filters.push_back(ApplicabilityFilter::FromJson(element));
        }
    }
    return filters;
}

std::vector<KeyValuePair> TestApplicabilityCommand::ReadAdditionalTags(const Json::Value& request)
{
    std::vector<KeyValuePair> tags;
    const Json::Value& object = request.isObject() ? request["additionalTags"] : Json::Value::null;
    if (!object.isObject()) {
        return tags;
    }
    for (const std::string& name : object.getMemberNames()) {
        const Json::Value& value = object[name];
        std::string text;
        if (value.isBool()) {
            text = value.asBool() ? "true" : "false";
        } else if (value.isString()) {
            text = value.asString();
        } else if (value.isArray()) {
            text = value.toStyledString();
        }
        tags.push_back({String::UTF8ToUTF16(name), String::UTF8ToUTF16(text)});
    }
    return tags;
}

BaseCommandHandler::Result TestApplicabilityCommand::GetResponse(const ClientRequest& request, bool& /*pendingOperation*/)
{
    Result result;
    try {
        const Message& message = request.getMessage();
        if (!Supports(message.notification.command)) {
            log_->d(L"%s:Exit", kFunction);
            return result;
        }
        if (!String::CaseInsesitiveEqual(String::UTF8ToUTF16(message.notification.command),
                                         String::UTF8ToUTF16(kCommandName))) {
            NotSupported(result, message, kFunction);
            log_->d(L"%s:Exit", kFunction);
            return result;
        }
        // A payload that is no JSON is no error: the engine is asked about no rules at all.
        Json::Value parsed;
        std::vector<ApplicabilityFilter> filters;
        std::vector<KeyValuePair> tags;
        std::wstring targetVersion;
        if (Parse(message.notification.payload, parsed) && parsed.isObject()) {
            filters = ReadFilters(parsed);
            const Json::Value& version = parsed["targetVersion"];
            const bool scalar = version.isString() || version.isNumeric() || version.isBool();
            targetVersion = scalar ? String::UTF8ToUTF16(version.asString()) : L"";
            tags = ReadAdditionalTags(parsed);
        }
        result = Succeeded(message, kReplyCommand, "");
        const auto evaluator = ApplicabilityEvaluator::GetInstance();
        std::wstring reason;
        const bool applicable = evaluator && evaluator->EvaluateFilters(filters, targetVersion, tags, reason);
        TestApplicabilityResponse response;
        response.isApplicable = applicable ? "true" : "false";
        const Json::Value& id = parsed.isObject() ? parsed["id"] : Json::Value::null;
        response.id = id.isString() || id.isNumeric() || id.isBool() ? id.asString() : "";
        response.reason = Narrow(reason);
        result.message.notification.payload = TestApplicabilityResponse::Serialize(response);
    } catch (const std::exception& error) {
        result.isSuccess = false;
        result.message.statusText = std::string("Exception catched:") + error.what();
        log_->e(L"%s: catch exception:%s", kFunction, error.what());
    }
    log_->d(L"%s:Exit", kFunction);
    return result;
}

const std::vector<std::string>& TestApplicabilityCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType TestApplicabilityCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType TestApplicabilityCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
