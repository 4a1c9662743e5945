#include "platform/http/HttpClient.h"

#include "platform/http/ResponseFile.h"
#include "platform/log/Log.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <strings.h>

namespace VEQ {
namespace {

using VEQCore::HttpMethodCode;
using VEQCore::InvokeHttpResponse;

constexpr const wchar_t* kSend = L"VEQ::HttpClient::SendHttpRequest";
// More header bytes than any back end sends; a server that keeps sending them is not one.
constexpr size_t kMaxHeaderBytes = 256 * 1024;

struct EasyFree {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct ListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct UrlFree {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using Easy = std::unique_ptr<CURL, EasyFree>;
using HeaderList = std::unique_ptr<curl_slist, ListFree>;
using Url = std::unique_ptr<CURLU, UrlFree>;

void GlobalInit()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

const char* MethodName(HttpMethodCode method)
{
    switch (method) {
    case VEQCore::HttpGet:
        return "GET";
    case VEQCore::HttpHead:
        return "HEAD";
    case VEQCore::HttpPost:
        return "POST";
    case VEQCore::HttpPut:
        return "PUT";
    case VEQCore::HttpDelete:
        return "DELETE";
    }
    return nullptr;
}

bool IsTokenCharacter(unsigned char c)
{
    return std::isalnum(c) != 0 || std::strchr("!#$%&'*+-.^_`|~", c) != nullptr;
}

// A name or value that could end the field early would let a caller write fields, or a whole
// request, of its own.
bool ValidField(const std::string& name, const std::string& value, std::string& error)
{
    if (name.empty() || !std::all_of(name.begin(), name.end(), [](char c) { return IsTokenCharacter(c); })) {
        error = "header name \"" + name + "\" is not a valid field name";
        return false;
    }
    if (value.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
        error = "header " + name + " holds a line break or NUL";
        return false;
    }
    return true;
}

bool Has(const std::map<std::string, std::string>& headers, const char* name)
{
    return std::any_of(headers.begin(), headers.end(),
                       [&](const auto& field) { return ::strcasecmp(field.first.c_str(), name) == 0; });
}

// The URL without its query and fragment, for the log: a query may carry what is nobody's business.
std::string ForLog(const std::string& url)
{
    return url.substr(0, url.find_first_of("?#"));
}

std::string Trim(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// What the callbacks of one exchange share.
struct Exchange {
    CURL* easy = nullptr;
    InvokeHttpResponse* response = nullptr;
    ResponseFile* file = nullptr;
    int64_t maxBodyBytes = 0;
    int64_t maxFileBytes = 0;
    std::optional<bool> toFile;  // decided at the first byte of the body
    int64_t received = 0;
    size_t headerBytes = 0;
    CURLcode failure = CURLE_OK;
    std::string failureText;

    size_t Fail(CURLcode code, std::string text)
    {
        failure = code;
        failureText = std::move(text);
        return 0;
    }
};

size_t OnHeader(char* data, size_t size, size_t count, void* user)
{
    auto& exchange = *static_cast<Exchange*>(user);
    const size_t length = size * count;
    exchange.headerBytes += length;
    if (exchange.headerBytes > kMaxHeaderBytes) {
        return exchange.Fail(CURLE_FILESIZE_EXCEEDED,
                             "reply header larger than " + std::to_string(kMaxHeaderBytes) + " bytes");
    }
    std::string line(data, length);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    VEQCore::HttpHeaders& headers = exchange.response->headers;
    if (line.rfind("HTTP/", 0) == 0) {
        // A new status line: the fields before it belonged to an interim reply (100 Continue).
        headers.Clear();
        return length;
    }
    if (line.empty()) {
        return length;
    }
    if (line.front() == ' ' || line.front() == '\t') {
        headers.AppendToLast(Trim(line));
        return length;
    }
    const size_t colon = line.find(':');
    if (colon == std::string::npos) {
        return length;
    }
    headers.Add(line.substr(0, colon), Trim(line.substr(colon + 1)));
    return length;
}

size_t OnBody(char* data, size_t size, size_t count, void* user)
{
    auto& exchange = *static_cast<Exchange*>(user);
    const size_t length = size * count;
    if (!exchange.toFile.has_value()) {
        long status = 0;
        curl_easy_getinfo(exchange.easy, CURLINFO_RESPONSE_CODE, &status);
        exchange.toFile = exchange.file != nullptr && status >= 200 && status <= 299;
    }
    const int64_t limit = *exchange.toFile ? exchange.maxFileBytes : exchange.maxBodyBytes;
    exchange.received += static_cast<int64_t>(length);
    if (exchange.received > limit) {
        return exchange.Fail(CURLE_FILESIZE_EXCEEDED, "reply body larger than " + std::to_string(limit) + " bytes");
    }
    if (*exchange.toFile) {
        std::string error;
        if (!exchange.file->Write(data, length, error)) {
            return exchange.Fail(CURLE_WRITE_ERROR, error);
        }
        return length;
    }
    auto& body = exchange.response->body;
    body.insert(body.end(), reinterpret_cast<const uint8_t*>(data), reinterpret_cast<const uint8_t*>(data) + length);
    return length;
}

// No complete exchange: status 0, and nothing of a reply that may have begun.
InvokeHttpResponse Refused(CURLcode code, const std::string& text)
{
    InvokeHttpResponse response;
    response.errorCode = static_cast<int32_t>(code);
    response.errorMessage = text;
    return response;
}

}  // namespace

HttpClient::HttpClient(HttpClientSettings settings) : settings_(std::move(settings))
{
    using std::chrono::milliseconds;
    settings_.totalTimeout = std::clamp(settings_.totalTimeout, milliseconds(1), HttpClientSettings::kMaxTotalTimeout);
    settings_.connectTimeout = std::clamp(settings_.connectTimeout, milliseconds(1), settings_.totalTimeout);
    settings_.lowSpeedTime = std::max(settings_.lowSpeedTime, std::chrono::seconds(1));
    settings_.lowSpeedBytesPerSecond = std::max<int64_t>(settings_.lowSpeedBytesPerSecond, 0);
    settings_.maxBodyBytes = std::max<int64_t>(settings_.maxBodyBytes, 0);
    settings_.maxFileBytes = std::max<int64_t>(settings_.maxFileBytes, 0);
}

VEQCore::InvokeHttpResponse HttpClient::SendHttpRequest(const std::string& url,
                                                        const std::map<std::string, std::string>& headers,
                                                        VEQCore::HttpMethodCode method, const std::string& payload,
                                                        int32_t authType, bool /*flag*/,
                                                        const std::string& responseFile) const
{
    const char* methodName = MethodName(method);
    if (methodName == nullptr) {
        g_log.e(L"%s: method code %d is not supported", kSend, static_cast<int32_t>(method));
        return Refused(CURLE_BAD_FUNCTION_ARGUMENT, "method code " + std::to_string(method) + " is not supported");
    }
    if (authType != kAuthServerOnly && authType != kAuthMutualTls) {
        g_log.e(L"%s: authType %d is not supported", kSend, authType);
        return Refused(CURLE_BAD_FUNCTION_ARGUMENT, "authType " + std::to_string(authType) + " is not supported");
    }
    if (authType == kAuthMutualTls && (settings_.clientCert.empty() || settings_.clientKey.empty())) {
        g_log.e(L"%s: no client certificate configured for %s", kSend, ForLog(url));
        return Refused(CURLE_SSL_CERTPROBLEM, "no client certificate configured (http.clientCert, http.clientKey)");
    }

    GlobalInit();
    HeaderList list;
    const auto append = [&list](const std::string& line) {
        curl_slist* grown = curl_slist_append(list.get(), line.c_str());
        if (grown != nullptr) {
            list.release();
            list.reset(grown);
        }
        return grown != nullptr;
    };
    for (const auto& [name, value] : headers) {
        std::string error;
        if (!ValidField(name, value, error)) {
            g_log.e(L"%s: %s refused: %s", kSend, ForLog(url), error);
            return Refused(CURLE_BAD_FUNCTION_ARGUMENT, error);
        }
        // "Name;" is libcurl's way of sending a field with an empty value.
        if (!append(value.empty() ? name + ";" : name + ": " + value)) {
            return Refused(CURLE_OUT_OF_MEMORY, "out of memory");
        }
    }
    // A body goes without libcurl's invented form type, and without a wait for "100 Continue".
    if ((!Has(headers, "Content-Type") && !append("Content-Type:")) || (!Has(headers, "Expect") && !append("Expect:"))) {
        return Refused(CURLE_OUT_OF_MEMORY, "out of memory");
    }

    Easy easy(curl_easy_init());
    if (easy == nullptr) {
        return Refused(CURLE_FAILED_INIT, "cannot create a libcurl handle");
    }
    std::unique_ptr<ResponseFile> file;
    // A HEAD has no body to store: the file stays as it was.
    if (!responseFile.empty() && method != VEQCore::HttpHead) {
        file = std::make_unique<ResponseFile>(responseFile);
        std::string error;
        if (!file->Open(error)) {
            g_log.e(L"%s: %s", kSend, error);
            return Refused(CURLE_WRITE_ERROR, error);
        }
    }

    InvokeHttpResponse response;
    Exchange exchange;
    exchange.easy = easy.get();
    exchange.response = &response;
    exchange.file = file.get();
    exchange.maxBodyBytes = settings_.maxBodyBytes;
    exchange.maxFileBytes = settings_.maxFileBytes;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    CURL* handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "veq/" VEQ_VERSION);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, list.get());
    curl_easy_setopt(handle, CURLOPT_PROXY, settings_.proxy.c_str());
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings_.connectTimeout.count()));
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(settings_.totalTimeout.count()));
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(settings_.lowSpeedBytesPerSecond));
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, static_cast<long>(settings_.lowSpeedTime.count()));
    // A declared length over the limit is refused before any byte of the body; the callback
    // counts the bytes of a reply that declares none.
    const int64_t declaredLimit =
        file != nullptr ? std::max(settings_.maxBodyBytes, settings_.maxFileBytes) : settings_.maxBodyBytes;
    curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(declaredLimit));
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &OnHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &OnBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &exchange);

    curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    const std::string& caFile = authType == kAuthMutualTls ? settings_.caFile : settings_.publicCaFile;
    if (!caFile.empty()) {
        curl_easy_setopt(handle, CURLOPT_CAINFO, caFile.c_str());
        curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
    }
    if (authType == kAuthMutualTls) {
        curl_easy_setopt(handle, CURLOPT_SSLCERT, settings_.clientCert.c_str());
        curl_easy_setopt(handle, CURLOPT_SSLCERTTYPE, "PEM");
        curl_easy_setopt(handle, CURLOPT_SSLKEY, settings_.clientKey.c_str());
        curl_easy_setopt(handle, CURLOPT_SSLKEYTYPE, "PEM");
    }

    // GET and HEAD carry no body: it has no meaning there, and some front ends refuse a GET that
    // has one.
    switch (method) {
    case VEQCore::HttpGet:
        curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
        break;
    case VEQCore::HttpHead:
        curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
        break;
    case VEQCore::HttpPost:
    case VEQCore::HttpPut:
    case VEQCore::HttpDelete:
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(payload.size()));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, payload.data());
        if (method != VEQCore::HttpPost) {
            curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, methodName);
        }
        break;
    }

    CURLcode code = curl_easy_perform(handle);
    std::string failureText;
    if (code != CURLE_OK) {
        if (exchange.failure != CURLE_OK) {
            code = exchange.failure;
            failureText = exchange.failureText;
        } else if (code == CURLE_FILESIZE_EXCEEDED) {
            failureText = "reply body larger than " + std::to_string(declaredLimit) + " bytes";
        } else {
            failureText = errorBuffer[0] != '\0' ? errorBuffer : curl_easy_strerror(code);
        }
    }
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    if (code == CURLE_OK && exchange.toFile.value_or(file != nullptr && status >= 200 && status <= 299)) {
        std::string error;
        if (!file->Commit(error)) {
            code = CURLE_WRITE_ERROR;
            failureText = error;
        }
    }
    if (code != CURLE_OK) {
        g_log.e(L"%s: %s %s failed: %d %s", kSend, methodName, ForLog(url), static_cast<int32_t>(code), failureText);
        return Refused(code, failureText);
    }
    response.httpStatus = static_cast<int32_t>(status);
    g_log.d(L"%s: %s %s answered %d", kSend, methodName, ForLog(url), response.httpStatus);
    return response;
}

std::string HttpClient::ConvertBytesToString(const std::vector<uint8_t>& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

bool HttpClient::IsWithinBase(const std::string& url, const std::string& base)
{
    struct Parts {
        std::string scheme, host, port, path;
        bool credentials = false;
    };
    const auto parse = [](const std::string& text) -> std::optional<Parts> {
        Url handle(curl_url());
        if (handle == nullptr || curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
            return std::nullopt;
        }
        Parts parts;
        const auto get = [&](CURLUPart part, std::string& into, unsigned flags) {
            char* value = nullptr;
            const CURLUcode code = curl_url_get(handle.get(), part, &value, flags);
            if (code == CURLUE_OK && value != nullptr) {
                into = value;
            }
            curl_free(value);
            return code == CURLUE_OK;
        };
        std::string user;
        std::string password;
        parts.credentials = get(CURLUPART_USER, user, 0) || get(CURLUPART_PASSWORD, password, 0);
        if (!get(CURLUPART_SCHEME, parts.scheme, 0) || !get(CURLUPART_HOST, parts.host, 0) ||
            !get(CURLUPART_PORT, parts.port, CURLU_DEFAULT_PORT) || !get(CURLUPART_PATH, parts.path, 0)) {
            return std::nullopt;
        }
        return parts;
    };
    const std::optional<Parts> inside = parse(url);
    const std::optional<Parts> root = parse(base);
    if (!inside || !root || inside->credentials || ::strcasecmp(inside->scheme.c_str(), "https") != 0 ||
        ::strcasecmp(inside->scheme.c_str(), root->scheme.c_str()) != 0 ||
        ::strcasecmp(inside->host.c_str(), root->host.c_str()) != 0 || inside->port != root->port) {
        return false;
    }
    std::string prefix = root->path;
    if (prefix.empty() || prefix.back() != '/') {
        if (inside->path == prefix) {
            return true;
        }
        prefix += '/';
    }
    return inside->path.rfind(prefix, 0) == 0;
}

}  // namespace VEQ
