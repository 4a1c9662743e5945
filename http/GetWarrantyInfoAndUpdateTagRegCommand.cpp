#include "http/GetWarrantyInfoAndUpdateTagRegCommand.h"

#include "broker/ReplyJson.h"
#include "http/WarrantyResponse.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"
#include "platform/util/DateTimeUtility.h"

#include <algorithm>
#include <exception>
#include <map>

namespace VEQ {
namespace {

constexpr const wchar_t* kFunction = L"VEQ::GetWarrantyInfoAndUpdateTagRegCommand::GetResponse";
constexpr int32_t kSecondsPerDay = 86400;

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c); });
    return text;
}

std::string Text(const Json::Value& object, const char* name)
{
    const Json::Value& value = object.isObject() ? object[name] : Json::Value::null;
    return value.isString() || value.isNumeric() || value.isBool() ? value.asString() : std::string();
}

}  // namespace

GetWarrantyInfoAndUpdateTagRegCommand::GetWarrantyInfoAndUpdateTagRegCommand(Log& log)
    : BaseCommandHandler(log), commandNames_{kCommandName}
{
}

std::string GetWarrantyInfoAndUpdateTagRegCommand::Validate(const std::string& payload, WarrantyRequest& request)
{
    Json::Value parsed;
    try {
        if (!ReplyJson::Parse(payload, parsed) || !parsed.isObject()) {
            return "Json Not Valid";
        }
    } catch (const Json::Exception&) {
        return "Json Not Valid";  // nested deeper than the reader takes
    }
    request.id = Text(parsed, "id");
    request.warrantyUrl = Text(parsed, "warrantyUrl");
    request.eServicesApiKey = Text(parsed, "eServicesApiKey");
    request.serialNumber = Text(parsed, "serialNumber");
    const std::pair<const std::string*, const char*> rules[] = {{&request.id, "Empty Id"},
                                                                {&request.warrantyUrl, "Empty Warranty url"},
                                                                {&request.eServicesApiKey, "Empty EServicesApiKey"},
                                                                {&request.serialNumber, "Empty SerialNumber"}};
    for (const auto& [value, failure] : rules) {
        if (value->empty()) {
            return failure;
        }
    }
    return {};
}

BaseCommandHandler::Result GetWarrantyInfoAndUpdateTagRegCommand::GetResponse(const ClientRequest& clientRequest,
                                                                             bool& /*pendingOperation*/)
{
    Result result;
    try {
        const Message& message = clientRequest.getMessage();
        if (message.notification.command != kCommandName) {
            return result;
        }
        result.message.statusCode = 0;
        result.message.guid = message.guid;
        result.message.notification.command = kReplyCommand;
        WarrantyRequest request;
        WarrantyResponse response;
        if (const std::string failure = Validate(message.notification.payload, request); !failure.empty()) {
            response.warrantyCommandResponseCode = WarrantyResponse::kInvalidRequest;
            result.isSuccess = false;
            result.message.notification.payload = WarrantyResponse::Serialize(response);
            result.message.statusText = failure;
            log_->d(L"%s: ProcessMessageData validate parameteres failed with error = %s", kFunction, failure);
            return result;
        }
        const VEQCore::InvokeHttpResponse reply = RequestWarrantyInfo(request);
        response.id = request.id;
        response.httpResponseCode = std::to_string(reply.httpStatus);
        response.httpResponseBody = CoreUtility::ConvertBytesToString(reply.body);
        if (reply.httpStatus == 200) {
            std::string warranty;
            std::string swiftTune;
            std::string guardLatch;
            if (!ParseDaysUntilExpirationDate(response.httpResponseBody, warranty, swiftTune, guardLatch) ||
                warranty.empty()) {
                result.isSuccess = false;
                result.message.statusText = "Expiration Date cannot be parsed from GetWarranty response";
                response.warrantyCommandResponseCode = WarrantyResponse::kNoDate;
                log_->d(L"%s: Encountered Error = %s", kFunction, result.message.statusText);
            } else {
                result.isSuccess = true;
                response.expirationDate = warranty;
                response.swiftTuneExpirationDate = swiftTune;
                response.guardLatchExpirationDate = guardLatch;
                response.warrantyCommandResponseCode = WarrantyResponse::kParsed;
            }
            log_->d(L"%s:updating Tags in registry....", kFunction);
            const bool warrantyTag = UpdateTagInRegistry(warranty, kWarrantyTagName, kDefaultAgeDays);
            const bool swiftTuneTag = UpdateTagInRegistry(swiftTune, kSwiftTuneTagName, kDefaultAgeDays);
            const bool guardLatchTag = UpdateTagInRegistry(guardLatch, kGuardLatchTagName, kDefaultAgeDays);
            log_->d(L"%s:Result of tags updation in registry. warranty tag : %d, swift tune tag : %d, guard latch tag : "
                    L"%d ",
                    kFunction, warrantyTag ? 1 : 0, swiftTuneTag ? 1 : 0, guardLatchTag ? 1 : 0);
        } else {
            result.isSuccess = false;
            result.message.statusText =
                "Http request for warranty information failed HttpResponseCode = " + std::to_string(reply.httpStatus);
            log_->e(L"%s: Http request for warranty information failed HttpResponseCode = %d", kFunction,
                    reply.httpStatus);
        }
        result.message.notification.payload = WarrantyResponse::Serialize(response);
    } catch (const std::exception& error) {
        result.isSuccess = false;
        result.message.statusText = std::string("Exception catched:") + error.what();
        log_->e(L"%s: catch exception:%s", kFunction, error.what());
    }
    return result;
}

VEQCore::InvokeHttpResponse GetWarrantyInfoAndUpdateTagRegCommand::RequestWarrantyInfo(const WarrantyRequest& request)
{
    const std::map<std::string, std::string> headers = {{"content-type", "application/x-www-form-urlencoded"},
                                                        {"clientid", request.eServicesApiKey}};
    return CoreUtility::GetInstance()->SendHttpRequest(request.warrantyUrl, headers, VEQCore::HttpPost,
                                                       "Serial=" + request.serialNumber, 0, true, "");
}

bool GetWarrantyInfoAndUpdateTagRegCommand::ParseDaysUntilExpirationDate(const std::string& body, std::string& warranty,
                                                                         std::string& swiftTune, std::string& guardLatch)
{
    const wchar_t* function = L"VEQ::GetWarrantyInfoAndUpdateTagRegCommand::ParseDaysUntilExpirationDate";
    Json::Value reply;
    bool parsed = false;
    try {
        parsed = !body.empty() && ReplyJson::Parse(body, reply) && reply.isObject();
    } catch (const Json::Exception&) {
        parsed = false;
    }
    if (!parsed) {
        log_->e(L"%s: Cannot parse received warranty response: %s", function, body);
        return false;
    }
    std::vector<std::string> warranties;
    for (const Json::Value& entry : reply["Warranty"].isArray() ? reply["Warranty"] : Json::Value(Json::arrayValue)) {
        warranties.push_back(Text(entry, "End"));
    }
    warranty = Latest(warranties);
    std::vector<std::string> swiftTunes;
    std::vector<std::string> guardLatches;
    const Json::Value& services = reply["OtherServices"];
    for (const Json::Value& service : services.isArray() ? services : Json::Value(Json::arrayValue)) {
        if (!service.isObject() || !service.isMember("Name") || !service.isMember("End")) {
            continue;
        }
        const std::string name = Lower(Text(service, "Name"));
        if (name.find("swift tune") != std::string::npos) {
            swiftTunes.push_back(Text(service, "End"));
        } else if (name.find("guard latch") != std::string::npos) {
            guardLatches.push_back(Text(service, "End"));
        }
    }
    swiftTune = Latest(swiftTunes);
    guardLatch = Latest(guardLatches);
    return true;
}

// Ties keep the earlier text; a text that is no date is never chosen.
std::string GetWarrantyInfoAndUpdateTagRegCommand::Latest(const std::vector<std::string>& dates)
{
    std::string latest;
    int64_t best = 0;
    for (const std::string& date : dates) {
        const int64_t seconds = DateTimeUtility::ConvertStringToTimeTMInGMT(String::UTF8ToUTF16(date));
        if (seconds > best) {
            best = seconds;
            latest = date;
        }
    }
    return latest;
}

bool GetWarrantyInfoAndUpdateTagRegCommand::UpdateTagInRegistry(std::string date, std::wstring tagName,
                                                                 int32_t defaultAgeDays)
{
    try {
        if (date.empty()) {
            const int64_t then =
                DateTimeUtility::GetCurrentGmtDatetime() + static_cast<int64_t>(defaultAgeDays) * kSecondsPerDay;
            date = DateTimeUtility::convertGMTTimeToString(then) + "Z";
            std::replace(date.begin(), date.end(), ' ', 'T');
        }
        return WriteToRegistry(kTagsKey, tagName, date);
    } catch (const std::exception& error) {
        log_->e(L"%s: catch exception:%s", L"VEQ::GetWarrantyInfoAndUpdateTagRegCommand::UpdateTagInRegistry",
                error.what());
        return false;
    }
}

bool GetWarrantyInfoAndUpdateTagRegCommand::WriteToRegistry(const std::wstring& keyPath, const std::wstring& valueName,
                                                            const std::string& value)
{
    if (!CRegUtil::DoesKeyExists(HKEY_LOCAL_MACHINE, keyPath)) {
        CRegUtil::CreateKey(HKEY_LOCAL_MACHINE, keyPath, 1);
    }
    // A byte to a wide character: the dates are ASCII, and nothing else is to be reinterpreted.
    const std::wstring wide(value.begin(), value.end());
    if (CRegUtil::SetKeyValueIn64BitRegView(HKEY_LOCAL_MACHINE, keyPath, valueName, wide)) {
        return true;
    }
    log_->e(L"%s: Cannot Write Registry, Key:%s Value:%s",
            L"VEQ::GetWarrantyInfoAndUpdateTagRegCommand::WriteToRegistry", keyPath, valueName);
    return false;
}

const std::vector<std::string>& GetWarrantyInfoAndUpdateTagRegCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType GetWarrantyInfoAndUpdateTagRegCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType GetWarrantyInfoAndUpdateTagRegCommand::GetSupportedExtensionType()
{
    return ExtensionType::Plugin;
}

}  // namespace VEQ
