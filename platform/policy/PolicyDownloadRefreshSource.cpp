#include "platform/policy/PolicyDownloadRefreshSource.h"

#include "platform/log/Log.h"
#include "platform/policy/PolicyFile.h"
#include "platform/policy/PolicyRefreshStatus.h"
#include "platform/string/String.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace VEQ {
namespace {

constexpr const wchar_t* kRefresh = L"VEQ::PolicyDownloadRefreshSource::Refresh";
constexpr const wchar_t* kWrite = L"VEQ::PolicyDownloadRefreshSource::WriteAtomically";

bool WriteAll(int fd, const std::string& text)
{
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t got = ::write(fd, text.data() + written, text.size() - written);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        written += static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

PolicyDownloadRefreshSource::PolicyDownloadRefreshSource(ConfigPolicyAgent& agent, std::wstring path, std::string url,
                                                         Downloader download)
    : file_(agent, std::move(path)), url_(std::move(url)), download_(std::move(download))
{
}

int32_t PolicyDownloadRefreshSource::Refresh()
{
    if (url_.empty() || !download_) {
        g_log.e(L"%s: no policy URL to refresh from", kRefresh);
        return PolicyRefreshStatus::kFetchFailed;
    }
    Download answer;
    try {
        answer = download_(url_);
    } catch (const std::exception& error) {
        g_log.e(L"%s: downloading %s failed: %s", kRefresh, url_, error.what());
        return PolicyRefreshStatus::kFetchFailed;
    }
    if (answer.certificateExpired) {
        g_log.e(L"%s: the device certificate has expired; %s not asked", kRefresh, url_);
        return PolicyRefreshStatus::kCertificateExpired;
    }
    if (answer.httpStatus == 0) {
        g_log.e(L"%s: no answer from %s: %d %s", kRefresh, url_, answer.errorCode, answer.errorMessage);
        return PolicyRefreshStatus::kFetchFailed;
    }
    if (answer.httpStatus == 401 || answer.httpStatus == 403) {
        g_log.e(L"%s: %s refused the device (HTTP %d)", kRefresh, url_, answer.httpStatus);
        return PolicyRefreshStatus::kUnregistered;
    }
    if (answer.httpStatus == 429) {
        g_log.w(L"%s: %s asks to be asked later (HTTP 429)", kRefresh, url_);
        return PolicyRefreshStatus::kTooSoon;
    }
    if (answer.httpStatus != 200) {
        g_log.e(L"%s: %s answered HTTP %d", kRefresh, url_, answer.httpStatus);
        return PolicyRefreshStatus::kFetchFailed;
    }
    Json::Value document;
    std::string error;
    if (answer.body.size() > PolicyFile::kMaxSize || !PolicyFile::Parse(answer.body, document, error) ||
        !document.isObject()) {
        g_log.e(L"%s: %s sent no policy (%zu bytes) %s; the policy in force stays", kRefresh, url_,
                answer.body.size(), error);
        return PolicyRefreshStatus::kFetchFailed;
    }
    if (!WriteAtomically(answer.body)) {
        return PolicyRefreshStatus::kFetchFailed;
    }
    return file_.Refresh();
}

bool PolicyDownloadRefreshSource::WriteAtomically(const std::string& body)
{
    const std::string path = String::UTF16ToUTF8(file_.Path());
    std::string pattern = path + ".download-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) {
        g_log.e(L"%s: cannot create a file next to %s: %s", kWrite, path, std::strerror(errno));
        return false;
    }
    const std::string temporary(name.data());
    bool ok = ::fchmod(fd, 0644) == 0 && WriteAll(fd, body) && ::fsync(fd) == 0;
    const int error = errno;
    ok = ::close(fd) == 0 && ok;
    if (ok && ::rename(temporary.c_str(), path.c_str()) == 0) {
        return true;
    }
    g_log.e(L"%s: cannot write %s: %s; the policy file stays", kWrite, path, std::strerror(ok ? errno : error));
    ::unlink(temporary.c_str());
    return false;
}

}  // namespace VEQ
