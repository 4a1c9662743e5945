#pragma once
// A log file of the service, written with printf-style formats (see LogFormatter for what the
// conversions accept). Logging never throws: a Log that is not open drops its lines.
//
//     log.d(L"%s: Init, m_ExtensionId = %s", L"VEQ::BaseClientBroker::BaseClientBroker", extensionId);
//
// Files live under the platform's log root, one per file name; Log objects opened on the same
// name share the file. Lines filtered out by the level are not formatted at all.

#include "platform/log/LogArgument.h"

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

namespace VEQ {

class LogFile;

class Log {
public:
    // A line is written when its level is not above the level the log was opened with.
    static constexpr int kOff = 0;
    static constexpr int kError = 1;
    static constexpr int kWarning = 2;
    static constexpr int kInfo = 3;
    static constexpr int kDebug = 4;

    constexpr Log() noexcept = default;
    // A log that opens fileName with level on its first line, unless Init ran before.
    constexpr Log(const wchar_t* lazyFileName, int lazyLevel) noexcept
        : lazyFileName_(lazyFileName), lazyLevel_(lazyLevel), level_(lazyLevel), lazyPending_(true)
    {
    }
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    // Opens (or reopens) fileName under the log root. fileName must be a plain name: no '/', not
    // "." or "..". False when it is not, or the file cannot be opened; the log then drops lines.
    bool Init(const std::wstring& fileName, int level);
    bool IsEnabled(int level) const noexcept;
    // Full path of the open file in UTF-8, empty when not open.
    std::string FilePath() const;

    template <typename... Args>
    void d(const wchar_t* format, const Args&... args) { Write(kDebug, View(format), args...); }
    template <typename... Args>
    void d(const std::wstring& format, const Args&... args) { Write(kDebug, format, args...); }
    template <typename... Args>
    void i(const wchar_t* format, const Args&... args) { Write(kInfo, View(format), args...); }
    template <typename... Args>
    void i(const std::wstring& format, const Args&... args) { Write(kInfo, format, args...); }
    template <typename... Args>
    void w(const wchar_t* format, const Args&... args) { Write(kWarning, View(format), args...); }
    template <typename... Args>
    void w(const std::wstring& format, const Args&... args) { Write(kWarning, format, args...); }
    template <typename... Args>
    void e(const wchar_t* format, const Args&... args) { Write(kError, View(format), args...); }
    template <typename... Args>
    void e(const std::wstring& format, const Args&... args) { Write(kError, format, args...); }

private:
    static std::wstring_view View(const wchar_t* format) { return format != nullptr ? format : L""; }

    template <typename... Args>
    void Write(int level, std::wstring_view format, const Args&... args)
    {
        if (!IsEnabled(level)) {
            return;
        }
        const std::array<LogArgument, sizeof...(Args)> arguments{LogArgument(args)...};
        Emit(level, format, arguments);
    }

    void Emit(int level, std::wstring_view format, std::span<const LogArgument> arguments) noexcept;
    std::shared_ptr<LogFile> OpenFile();

    mutable std::mutex mutex_;         // guards file_
    std::shared_ptr<LogFile> file_;
    std::mutex lazyOpenMutex_;         // makes the first lines of a lazy log wait for its file
    const wchar_t* lazyFileName_ = nullptr;
    int lazyLevel_ = kOff;
    std::atomic<int> level_{kOff};
    std::atomic<bool> lazyPending_{false};
};

// The service-wide log, "VEQService.log" at debug level, opened on its first line unless
// utility::InitLog opens it before.
extern Log g_log;

}  // namespace VEQ
