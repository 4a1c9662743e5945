#pragma once

#include "broker/BaseCommandHandler.h"
#include "digest/DigestFetchResponse.h"
#include "digest/DigestRequest.h"
#include "platform/http/HttpHeaders.h"
#include "platform/http/InvokeHttpResponse.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace VEQ {

// "CheckEtagNGetDigestNSaveIfValid": the messaging plugin keeps a local copy of the back end's
// signed message digest. One request asks whether the digest changed (its ETag, by a HEAD),
// downloads it into the one temporary file, checks its signature and only then copies it into the
// plugin's data folder. A 404 drops the cached copy and its bookkeeping (docs/digest.md).
class CheckEtagNGetDigestNSaveIfValidCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "CheckEtagNGetDigestNSaveIfValid";
    static constexpr const char* kReplyCommand = "Receive-CheckEtagNGetDigestNSaveIfValid";
    static constexpr const wchar_t* kMessagingPluginKey = L"SOFTWARE\\Tavrin\\VEQ\\Plugins\\MessagingPlugin";
    // The download lands in the service's private temporary folder below the data root: mode 0700
    // and the service's own, so that no other local user can read it, or put other content in its
    // place, between the check of its signature and its copy.
    static constexpr const wchar_t* kDigestTempFolder = L"/tmp";
    static constexpr const wchar_t* kDigestTempFileName = L"digestv2.json.signed";
    static constexpr const char* kStatePreventsText = "VEQ State prevent execution of the command";
    static constexpr int32_t kStatePreventsCode = 17005;

    explicit CheckEtagNGetDigestNSaveIfValidCommand(Log& log);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

    // Reads the request into digestRequest and builds the digest's URL; false, with the reason in
    // digestRequest.error, when there is nothing to fetch.
    bool validateParameters(DigestRequest& digestRequest, const std::string& payload, bool& isEtagNeeded);
    // True when the reply's ETag differs from the stored one (letter case and quotes aside); the new
    // one is then stored, before the digest it belongs to has been checked.
    bool checkAndUpdateEtag(const VEQCore::HttpHeaders& headers);
    bool loadMessageDigestFromTempFile(const std::wstring& path, std::wstring& content);

    // <data root>/tmp/digestv2.json.signed.
    static std::wstring DigestTempPath();

private:
    // The HEAD; true when the digest is to be downloaded.
    bool RequestEtag(const DigestRequest& request, DigestFetchResponse& response, Result& result);
    void DownloadDigest(DigestRequest& request, DigestFetchResponse& response, Result& result);
    // Only a digest whose signature holds goes to the plugin's data folder.
    void SaveIfSigned(const DigestRequest& request, DigestFetchResponse& response);
    // The download with the temporary file as its response file, once the folder is the service's
    // own; otherwise nothing is sent, and the reply says why as a failed exchange would.
    VEQCore::InvokeHttpResponse Download(const DigestRequest& request);
    void Prevented(Result& result, const VEQCore::InvokeHttpResponse& reply);
    static void DeleteEtagAndDigest();

    std::vector<std::string> commandNames_;
    std::mutex tempFileMutex_;  // only while the temporary file is read
};

}  // namespace VEQ
