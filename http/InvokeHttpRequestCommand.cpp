#include "http/InvokeHttpRequestCommand.h"

#include "broker/ReplyJson.h"
#include "http/HttpCommandResponse.h"
#include "platform/http/EpUrlProvider.h"
#include "platform/http/HttpClient.h"
#include "platform/service/ServiceStatus.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"

#include <algorithm>
#include <cctype>
#include <exception>

namespace VEQ {
namespace {

constexpr const wchar_t* kFunction = L"VEQ::InvokeHttpRequestCommand::GetResponse";
constexpr int32_t kFailureCode = -1;
constexpr int32_t kStatePreventsCode = 17005;
constexpr int32_t kMutualTls = 1;

constexpr const char* kGeneralError = "General Error";
constexpr const char* kStatePrevents = "VEQ State prevent execution of the command";
constexpr const char* kNotParsed = "RequestMessage couldn't be parsed";
constexpr const char* kEmptyRelativeUrl = "Empty relativeURL";
constexpr const char* kFullUrl =
    "The url provided is a full url, the parameter must be a relative url which will be combined with base url";
constexpr const char* kEmptyMethod = "Empty HTTP Method";
constexpr const char* kLeavesBase =
    "The url provided leaves the base url, the parameter must be a relative url which stays below the base url";
constexpr const char* kBadHeader =
    "The headers provided are not valid, a header name must be a token and no header may hold CR, LF or NUL";

std::string Text(const Json::Value& object, const char* name)
{
    const Json::Value& value = object.isObject() ? object[name] : Json::Value::null;
    return value.isString() ? value.asString() : std::string();
}

// An HTTP field name is a token; names and values never hold what would end the field.
bool IsValidHeader(const std::string& name, const std::string& value)
{
    static const std::string kTokenMarks = "!#$%&'*+-.^_`|~";
    const bool tokenName = !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || kTokenMarks.find(static_cast<char>(c)) != std::string::npos;
    });
    return tokenName && value.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

// A relative URL that could reach past the base once glued to it or once a server decodes it:
// blanks or control bytes, a scheme of its own, or a "." or ".." path segment, also when written
// with %2e or split with a backslash. The allow-list is a prefix test, so such segments would
// also climb out of an allowed prefix.
bool MayLeaveBase(const std::string& relativeUrl)
{
    if (std::any_of(relativeUrl.begin(), relativeUrl.end(),
                    [](unsigned char c) { return c <= 0x20 || c == 0x7f; })) {
        return true;
    }
    const size_t colon = relativeUrl.find(':');
    if (colon != std::string::npos && colon > 0 && std::isalpha(static_cast<unsigned char>(relativeUrl[0])) != 0 &&
        std::all_of(relativeUrl.begin(), relativeUrl.begin() + static_cast<std::ptrdiff_t>(colon), [](unsigned char c) {
            return std::isalnum(c) != 0 || c == '+' || c == '-' || c == '.';
        })) {
        return true;
    }
    const std::string path = relativeUrl.substr(0, relativeUrl.find_first_of("?#"));
    std::string decoded;
    for (size_t i = 0; i < path.size(); ++i) {
        if (path[i] == '%' && i + 2 < path.size() && std::isxdigit(static_cast<unsigned char>(path[i + 1])) != 0 &&
            std::isxdigit(static_cast<unsigned char>(path[i + 2])) != 0) {
            decoded.push_back(static_cast<char>(std::stoi(path.substr(i + 1, 2), nullptr, 16)));
            i += 2;
        } else {
            decoded.push_back(path[i]);
        }
    }
    size_t start = 0;
    while (start <= decoded.size()) {
        const size_t end = std::min(decoded.find_first_of("/\\", start), decoded.size());
        const std::string segment = decoded.substr(start, end - start);
        if (segment == "." || segment == "..") {
            return true;
        }
        start = end + 1;
    }
    return false;
}

}  // namespace

const std::vector<std::wstring> InvokeHttpRequestCommand::kAllowedRelativeUrls = {
    L"/zouds/device/tray/service/device-tray-service/v1/edm/policy",
    L"/zouds/encryption/service/encryption-service/apis/v1/psw/generate-password",
    L"/zouds/peripheral-preset/v1/device/",
    L"/device-profile-service/zcp/apis/v1/devices/activation/activation-code",
};

InvokeHttpRequestCommand::InvokeHttpRequestCommand(Log& log, ElevationType elevationType,
                                                   ExtensionType extensionType)
    : BaseCommandHandler(log), commandNames_{kCommandName}, elevationType(elevationType), extensionType(extensionType)
{
}

bool InvokeHttpRequestCommand::IsGated() const
{
    return extensionType == ExtensionType::App && elevationType == ElevationType::Elevated;
}

BaseCommandHandler::Result InvokeHttpRequestCommand::GetResponse(const ClientRequest& clientRequest,
                                                                 bool& /*pendingOperation*/)
{
    Result result;
    const Message& message = clientRequest.getMessage();
    try {
        // The gate comes first: while the companion service is down an elevated app learns
        // nothing, not even which commands exist.
        if (IsGated() && !IsServiceRunning(kGatedService)) {
            result.isSuccess = false;
            result.message.statusCode = kFailureCode;
            result.message.statusText = kGeneralError;
            result.message.guid = message.guid;
            return result;
        }
        const std::string& command = message.notification.command;
        if (std::find(commandNames_.begin(), commandNames_.end(), command) == commandNames_.end()) {
            result.isSuccess = false;
            result.message.statusText = kNotSupportedText;
            log_->d(L"%s: ProcessMessageData error command is not supported", kFunction);
        } else if (command == kCommandName) {
            result.message.statusCode = 0;
            result.message.guid = message.guid;
            result.message.notification.command = kReplyCommand;

            HttpCommandRequest request;
            if (validateParameters(request, message.notification.payload)) {
                Forward(request, result);
            } else {
                result.isSuccess = false;
                result.message.statusText = request.error;
                log_->d(L"%s: ProcessMessageData validate parameteres failed with error = %s", kFunction,
                        request.error);
            }
        }
    } catch (const std::exception& error) {
        result.isSuccess = false;
        result.message.statusText = std::string("Exception catched:") + error.what();
        log_->e(L"%s: catch exception:%s", kFunction, error.what());
    }
    // Whatever the reason, a client sees one failure code; the reason is in the text.
    if (!result.isSuccess) {
        result.message.statusCode = kFailureCode;
        result.message.guid = message.guid;
    }
    return result;
}

void InvokeHttpRequestCommand::Forward(const HttpCommandRequest& request, Result& result)
{
    std::wstring base;
    EpUrlProvider::GetInstance()->GetApiMtlsBaseUri(base);
    const std::string baseUrl = String::UTF16ToUTF8(base);
    const std::string url = baseUrl + request.relativeUrl;
    if (MayLeaveBase(request.relativeUrl) || !HttpClient::IsWithinBase(url, baseUrl)) {
        // The device's certificate goes only to the base it was issued for.
        result.isSuccess = false;
        result.message.statusText = kLeavesBase;
        log_->d(L"%s: ProcessMessageData validate parameteres failed with error = %s", kFunction,
                result.message.statusText);
        return;
    }
    const VEQCore::InvokeHttpResponse reply = CoreUtility::GetInstance()->SendHttpRequest(
        url, request.headers, request.methodCode, request.payload, kMutualTls, false, "");
    log_->d(L"%s: ProcessMessageData status code = %d", kFunction, reply.httpStatus);

    HttpCommandResponse response;
    response.fullUrl = url;
    response.httpMethod = request.httpMethod;
    response.httpResponseCode = std::to_string(reply.httpStatus);
    response.responseBody = CoreUtility::ConvertBytesToString(reply.body);
    result.message.notification.payload = HttpCommandResponse::Serialize(response);
    result.isSuccess = true;
    // Any status from the server is the client's to judge; 0 means none came.
    if (reply.httpStatus == 0) {
        result.isSuccess = false;
        result.message.statusText = kStatePrevents;
        result.message.statusCode = kStatePreventsCode;
        log_->d(L"%s: ProcessMessageData VEQ State prevent execution of the command", kFunction);
        if (!reply.errorMessage.empty()) {
            result.message.statusText = reply.errorMessage;
        }
        if (reply.errorCode != 0) {
            result.message.statusCode = reply.errorCode;
        }
    }
}

bool InvokeHttpRequestCommand::validateParameters(HttpCommandRequest& request, const std::string& payload)
{
    Json::Value parsed;
    bool readable = false;
    try {
        readable = ReplyJson::Parse(payload, parsed);
    } catch (const Json::Exception&) {
        readable = false;  // nested deeper than the reader takes
    }
    if (!readable) {
        request.error = kNotParsed;
        return false;
    }
    request.relativeUrl = Text(parsed, "relativeUrl");
    if (request.relativeUrl.empty()) {
        request.error = kEmptyRelativeUrl;
        return false;
    }
    if (request.relativeUrl.rfind("http", 0) == 0) {
        request.error = kFullUrl;
        return false;
    }
    request.httpMethod = Text(parsed, "httpMethod");
    if (request.httpMethod.empty()) {
        request.error = kEmptyMethod;
        return false;
    }
    // Anything the back end's API does not use goes as a POST.
    request.methodCode = VEQCore::HttpPost;
    if (String::CaseInsesitiveEqual(request.httpMethod, std::string("get"))) {
        request.methodCode = VEQCore::HttpGet;
    } else if (String::CaseInsesitiveEqual(request.httpMethod, std::string("put"))) {
        request.methodCode = VEQCore::HttpPut;
    }
    if (m_restrictToAllowList) {
        const std::wstring relativeUrl = String::UTF8ToUTF16(request.relativeUrl);
        const bool allowed = std::any_of(kAllowedRelativeUrls.begin(), kAllowedRelativeUrls.end(),
                                         [&](const std::wstring& prefix) {
                                             return String::CaseInsensitiveStartsWith(relativeUrl, prefix);
                                         });
        if (!allowed) {
            request.error = kGeneralError;
            return false;
        }
    }
    request.responseType = Text(parsed, "responseType");

    request.headers = {{"Content-Type", "application/json"}};
    const Json::Value& headers = parsed.isObject() ? parsed["headers"] : Json::Value::null;
    if (headers.isObject()) {
        for (const std::string& name : headers.getMemberNames()) {
            if (!headers[name].isString()) {
                continue;
            }
            const std::string value = headers[name].asString();
            // Refused here, not merely by the client, so that the reason reaches the caller.
            if (!IsValidHeader(name, value)) {
                request.error = kBadHeader;
                return false;
            }
            request.headers[name] = value;
        }
    }

    const Json::Value& body = parsed.isObject() ? parsed["payload"] : Json::Value::null;
    if (body.isString()) {
        request.payload = body.asString();
    } else {
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        request.payload = Json::writeString(writer, body);
    }
    return true;
}

bool InvokeHttpRequestCommand::IsServiceRunning(const std::wstring& serviceName)
{
    try {
        std::string state;
        const bool running = ServiceStatus::GetInstance()->IsServiceRunning(serviceName, &state);
        if (!state.empty()) {
            log_->d(L"%s:Checking service state for: %s state:%d", L"VEQ::InvokeHttpRequestCommand::IsServiceRunning",
                    serviceName, running ? 1 : 0);
        }
        return running;
    } catch (const std::exception& error) {
        log_->e(L"%s Exception occured while getting if service is running. %s",
                L"VEQ::InvokeHttpRequestCommand::IsServiceRunning", error.what());
        return false;
    }
}

const std::vector<std::string>& InvokeHttpRequestCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType InvokeHttpRequestCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType InvokeHttpRequestCommand::GetSupportedExtensionType()
{
    if (IsGated()) {
        m_restrictToAllowList = true;
        return ExtensionType::Both;
    }
    return ExtensionType::Plugin;
}

}  // namespace VEQ
