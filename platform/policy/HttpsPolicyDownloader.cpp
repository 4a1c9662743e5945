#include "platform/policy/HttpsPolicyDownloader.h"

#include "platform/Platform.h"
#include "platform/crypto/OpenSslObjects.h"
#include "platform/http/HttpClient.h"
#include "platform/util/CoreUtility.h"

#include <cstdio>

namespace VEQ {

PolicyDownloadRefreshSource::Download HttpsPolicyDownloader::Download(const std::string& url)
{
    PolicyDownloadRefreshSource::Download download;
    // An expired device certificate is told as such, not as a failed fetch: the device must renew it.
    if (CertificateExpired(Platform::Settings().http.clientCert)) {
        download.certificateExpired = true;
        return download;
    }
    const VEQCore::InvokeHttpResponse reply = CoreUtility::GetInstance()->SendHttpRequest(
        url, {{"Accept", "application/json"}}, VEQCore::HttpGet, "", HttpClient::kAuthMutualTls, false, "");
    download.httpStatus = reply.httpStatus;
    download.errorCode = reply.errorCode;
    download.errorMessage = reply.errorMessage;
    download.body = CoreUtility::ConvertBytesToString(reply.body);
    return download;
}

bool HttpsPolicyDownloader::CertificateExpired(const std::string& path)
{
    if (path.empty()) {
        return false;
    }
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        return false;
    }
    OpenSsl::Certificate certificate(PEM_read_X509(file, nullptr, nullptr, nullptr));
    std::fclose(file);
    ERR_clear_error();
    return certificate && X509_cmp_current_time(X509_get0_notAfter(certificate.get())) < 0;
}

}  // namespace VEQ
