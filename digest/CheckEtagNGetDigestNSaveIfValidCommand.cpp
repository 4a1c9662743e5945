#include "digest/CheckEtagNGetDigestNSaveIfValidCommand.h"

#include "broker/ReplyJson.h"
#include "digest/SmartMessageV2Utility.h"
#include "platform/crypto/JwsVerifier.h"
#include "platform/crypto/KeyFolder.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/utility.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"

#include <algorithm>
#include <exception>

namespace VEQ {
namespace {

using SmartMessageV2::SmartMessageV2Utility;

constexpr const wchar_t* kFunction = L"VEQ::CheckEtagNGetDigestNSaveIfValidCommand::GetResponse";
// What the HTTP layer answers for a response file it cannot write (docs/http.md).
constexpr int32_t kResponseFileNotWritten = 23;
constexpr int32_t kFailedCode = -1;

bool IsSuccessStatus(int32_t status)
{
    return status >= 200 && status <= 299;
}

std::string Text(const Json::Value& request, const char* name)
{
    const Json::Value& value = request[name];
    return value.isString() || value.isNumeric() || value.isBool() ? value.asString() : std::string();
}

}  // namespace

CheckEtagNGetDigestNSaveIfValidCommand::CheckEtagNGetDigestNSaveIfValidCommand(Log& log)
    : BaseCommandHandler(log), commandNames_{kCommandName}
{
}

std::wstring CheckEtagNGetDigestNSaveIfValidCommand::DigestTempPath()
{
    std::wstring root;
    utility::GetVeqAppDataRootPath(root);
    return root + kDigestTempFolder + L"/" + kDigestTempFileName;
}

bool CheckEtagNGetDigestNSaveIfValidCommand::validateParameters(DigestRequest& digestRequest,
                                                                const std::string& payload, bool& isEtagNeeded)
{
    Json::Value request;
    bool parsed = false;
    try {
        parsed = ReplyJson::Parse(payload, request) && request.isObject();
    } catch (const Json::Exception&) {
        parsed = false;  // nested deeper than the reader takes
    }
    if (!parsed) {
        digestRequest.error = "RequestMessage couldn't be parsed";
        return false;
    }
    digestRequest.fullUrl = Text(request, "fullUrl");
    if (digestRequest.fullUrl.empty()) {
        digestRequest.error = "Empty fullURL";
        return false;
    }
    digestRequest.lang = Text(request, "lang");
    if (digestRequest.lang.empty()) {
        digestRequest.error = "Empty language default will be used";
        digestRequest.lang = "en";
    }
    digestRequest.fullUrl += "?lang=" + digestRequest.lang;
    digestRequest.region = Text(request, "geo");
    if (digestRequest.region.empty()) {
        digestRequest.error = "Empty region default will be used";
        digestRequest.region = "us";
    }
    digestRequest.fullUrl += "&geo=" + digestRequest.region;
    digestRequest.format = Text(request, "format");
    if (digestRequest.format.empty()) {
        digestRequest.error = "Empty format default will be used";
        digestRequest.format = "jwt";
    }
    digestRequest.fullUrl += "&format=" + digestRequest.format;
    const Json::Value& etagNeeded = request["isEtagNeeded"];
    isEtagNeeded = (etagNeeded.isBool() || etagNeeded.isNumeric()) && etagNeeded.asBool();
    const Json::Value& keys = request["contentPublicKeys"];
    if (keys.isArray()) {
        for (const Json::Value& key : keys) {
            digestRequest.contentPublicKeys.push_back(String::UTF8ToUTF16(key.asString()));
        }
    }
    digestRequest.fullUrl += "&getall=true";
    digestRequest.httpMethod = VEQCore::HttpHead;
    digestRequest.headers = {{"Content-Type", "application/json"}};
    const Json::Value& body = request["payload"];
    digestRequest.payload = body.isString() ? body.asString() : ReplyJson::Write(body);
    return true;
}

BaseCommandHandler::Result CheckEtagNGetDigestNSaveIfValidCommand::GetResponse(const ClientRequest& clientRequest,
                                                                              bool& /*pendingOperation*/)
{
    Result result;
    const Message& message = clientRequest.getMessage();
    try {
        const auto found = std::find(commandNames_.begin(), commandNames_.end(), message.notification.command);
        if (found == commandNames_.end()) {
            result.isSuccess = false;
            result.message.statusText = kNotSupportedText;
            log_->d(L"%s: ProcessMessageData error command is not supported", kFunction);
        } else if (*found == kCommandName) {
            result.message.statusCode = 0;
            result.message.guid = message.guid;
            result.message.notification.command = kReplyCommand;
            DigestRequest request;
            DigestFetchResponse response;
            bool isEtagNeeded = false;
            if (!validateParameters(request, message.notification.payload, isEtagNeeded)) {
                result.isSuccess = false;
                result.message.statusText = request.error;
                log_->d(L"%s: ProcessMessageData validate parameteres failed with error = %s", kFunction,
                        request.error);
            } else if (!isEtagNeeded || RequestEtag(request, response, result)) {
                DownloadDigest(request, response, result);
            }
        }
    } catch (const std::exception& error) {
        result.isSuccess = false;
        result.message.statusText = std::string("Exception catched:") + error.what();
        log_->e(L"%s: catch exception:%s", kFunction, error.what());
    }
    // Whatever a failure set as its code, the client gets -1 and the text.
    if (!result.isSuccess) {
        result.message.statusCode = kFailedCode;
        result.message.guid = message.guid;
    }
    return result;
}

bool CheckEtagNGetDigestNSaveIfValidCommand::RequestEtag(const DigestRequest& request, DigestFetchResponse& response,
                                                         Result& result)
{
    const VEQCore::InvokeHttpResponse reply = CoreUtility::GetInstance()->SendHttpRequest(
        request.fullUrl, request.headers, VEQCore::HttpHead, request.payload, 0, true, "");
    log_->d(L"%s: httpEtagResponse status code = %d", kFunction, reply.httpStatus);
    response.httpEtagResponseCode = std::to_string(reply.httpStatus);
    response.etagResponseBody = CoreUtility::ConvertBytesToString(reply.body);
    // Stays the reply when nothing is downloaded: "etagChanged" is false in it.
    result.message.notification.payload = DigestFetchResponse::Serialize(response);
    bool download = false;
    if (IsSuccessStatus(reply.httpStatus)) {
        response.etagChanged = checkAndUpdateEtag(reply.headers);
        download = response.etagChanged;
    } else if (reply.httpStatus == 404) {
        log_->d(L"%s Deleting etag and digest because of 404", kFunction);
        DeleteEtagAndDigest();
    }
    if (reply.httpStatus == 0) {
        Prevented(result, reply);
    }
    return download;
}

void CheckEtagNGetDigestNSaveIfValidCommand::DownloadDigest(DigestRequest& request, DigestFetchResponse& response,
                                                            Result& result)
{
    request.httpMethod = VEQCore::HttpGet;
    const VEQCore::InvokeHttpResponse reply = Download(request);
    log_->d(L"%s: httpMessageDigestResponse status code = %d", kFunction, reply.httpStatus);
    response.httpResponseCode = std::to_string(reply.httpStatus);
    response.responseBody = CoreUtility::ConvertBytesToString(reply.body);
    if (IsSuccessStatus(reply.httpStatus)) {
        SaveIfSigned(request, response);
    }
    result.message.notification.payload = DigestFetchResponse::Serialize(response);
    result.isSuccess = true;
    if (reply.httpStatus == 404) {
        log_->d(L"%s Deleting etag and digest because of 404", kFunction);
        DeleteEtagAndDigest();
    }
    if (reply.httpStatus == 0 || reply.httpStatus == 403 || reply.httpStatus == 404) {
        Prevented(result, reply);
    }
}

VEQCore::InvokeHttpResponse CheckEtagNGetDigestNSaveIfValidCommand::Download(const DigestRequest& request)
{
    std::wstring root;
    std::string error = "no data root for the temporary download";
    // The key folder's rules: made 0700 when missing, tightened when loose, refused when it is a
    // link or another user's, since then someone else could read or swap the download.
    if (!utility::GetVeqAppDataRootPath(root) || !KeyFolder(root + kDigestTempFolder).Prepare(error)) {
        log_->e(L"%s: %s", L"VEQ::CheckEtagNGetDigestNSaveIfValidCommand::Download", error);
        VEQCore::InvokeHttpResponse refused;
        refused.errorCode = kResponseFileNotWritten;
        refused.errorMessage = error;
        return refused;
    }
    return CoreUtility::GetInstance()->SendHttpRequest(request.fullUrl, request.headers, request.httpMethod,
                                                       request.payload, 0, true, String::UTF16ToUTF8(DigestTempPath()));
}

void CheckEtagNGetDigestNSaveIfValidCommand::SaveIfSigned(const DigestRequest& request, DigestFetchResponse& response)
{
    const std::wstring tempPath = DigestTempPath();
    const bool enforce = !DeveloperSettings::GetInstance()->IsSkipSignedContentCheck();
    std::wstring content;
    const bool loaded = loadMessageDigestFromTempFile(tempPath, content);
    log_->d(L"%s messageDigestContent from file:%s finished with result: %d", kFunction, tempPath, loaded ? 1 : 0);
    const std::vector<std::wstring> keys = request.contentPublicKeys;
    const SignatureCheckResult check =
        CoreUtility::GetInstance()->VerifyContentWithKeys(String::UTF16ToUTF8(content), keys, enforce);
    response.isMessageDigestSigned = check.isValid;
    if (!check.isValid) {
        log_->d(L"%s MessageDigest temp file is not signed %s", kFunction, tempPath);
        return;
    }
    if (!FileSystem::fileExists(tempPath)) {
        log_->d(L"%s MessageDigest temp file does not exist %s", kFunction, tempPath);
        return;
    }
    try {
        std::wstring target;
        utility::GetVeqAppDataRootPath(target);
        target += SmartMessageV2Utility::kDigestDataDirectory;
        FileSystem::createDirectory(target, true);
        target += L"//";
        target += SmartMessageV2Utility::kDigestFileName;
        const bool copied = FileSystem::copyFile(tempPath, target);
        log_->d(L"%s copyFile messageDigest file path:%s finished with result: %d", kFunction, target, copied ? 1 : 0);
    } catch (const std::exception& error) {
        log_->d(L"%s MessageDigest moving from temp folder finished with error %s", kFunction, error.what());
    }
}

void CheckEtagNGetDigestNSaveIfValidCommand::Prevented(Result& result, const VEQCore::InvokeHttpResponse& reply)
{
    result.isSuccess = false;
    result.message.statusText = kStatePreventsText;
    result.message.statusCode = kStatePreventsCode;
    log_->d(L"%s: ProcessMessageData VEQ State prevent execution of the command", kFunction);
    if (!reply.errorMessage.empty()) {
        result.message.statusText = reply.errorMessage;
    }
    if (reply.errorCode != 0) {
        result.message.statusCode = reply.errorCode;
    }
}

void CheckEtagNGetDigestNSaveIfValidCommand::DeleteEtagAndDigest()
{
    SmartMessageV2Utility::DeleteEtag();
    SmartMessageV2Utility::DeleteCachedMessageDigest();
    SmartMessageV2Utility::DeletePreviousDownloadDigestTimestamp();
}

bool CheckEtagNGetDigestNSaveIfValidCommand::checkAndUpdateEtag(const VEQCore::HttpHeaders& headers)
{
    const wchar_t* function = L"VEQ::CheckEtagNGetDigestNSaveIfValidCommand::checkAndUpdateEtag";
    const std::string name = String::UTF16ToUTF8(SmartMessageV2Utility::kEtagValueName);
    std::string value = headers.GetValueAt(headers.FindKey(0, name.c_str(), name.size()));
    std::erase(value, '"');
    const std::wstring etag = String::UTF8ToUTF16(value);
    std::wstring stored;
    if (CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, kMessagingPluginKey,
                                          SmartMessageV2Utility::kEtagValueName, stored) &&
        String::CaseInsesitiveEqual(stored, etag)) {
        return false;
    }
    if (CRegUtil::CreateKey(HKEY_LOCAL_MACHINE, kMessagingPluginKey, 1) != 0) {
        if (CRegUtil::SetKeyValueIn64BitRegView(HKEY_LOCAL_MACHINE, kMessagingPluginKey,
                                                SmartMessageV2Utility::kEtagValueName, etag)) {
            log_->e(L"%s Added key to registry %s %s", function, std::wstring(kMessagingPluginKey), etag);
        } else {
            log_->e(L"%s Unable to add %s in registry", function, std::wstring(SmartMessageV2Utility::kEtagValueName));
        }
    }
    // Also after a failed write: the digest is fetched, and the next request asks again.
    return true;
}

bool CheckEtagNGetDigestNSaveIfValidCommand::loadMessageDigestFromTempFile(const std::wstring& path,
                                                                           std::wstring& content)
{
    std::lock_guard<std::mutex> lock(tempFileMutex_);
    try {
        // A digest is a few kilobytes; the signature check refuses more than this anyway.
        return FileSystem::readAllText(path, content, JwsVerifier::kMaxTextSize);
    } catch (const std::exception& error) {
        log_->e(L"%s Unable to load message digest file:%s, following exception occured :: %ls",
                L"VEQ::CheckEtagNGetDigestNSaveIfValidCommand::loadMessageDigestFromTempFile", path,
                String::UTF8ToUTF16(error.what()));
        return false;
    }
}

const std::vector<std::string>& CheckEtagNGetDigestNSaveIfValidCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType CheckEtagNGetDigestNSaveIfValidCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType CheckEtagNGetDigestNSaveIfValidCommand::GetSupportedExtensionType()
{
    return ExtensionType::Plugin;
}

}  // namespace VEQ
