#include "platform/log/Log.h"

#include "platform/Platform.h"
#include "platform/log/LogFile.h"
#include "platform/log/LogFormatter.h"
#include "platform/string/String.h"

#include <algorithm>

namespace VEQ {

// Constant-initialised, so it can be used from any static constructor in any order.
constinit Log g_log{L"VEQService.log", Log::kDebug};

Log::~Log()
{
    // Late calls from threads still running at exit find no file and drop their line; the file
    // itself lives on as long as a call in progress holds it.
    std::lock_guard<std::mutex> lock(mutex_);
    level_ = kOff;
    lazyPending_ = false;
    file_.reset();
}

bool Log::Init(const std::wstring& fileName, int level)
{
    lazyPending_ = false;
    std::shared_ptr<LogFile> file;
    const bool plainName = !fileName.empty() && fileName != L"." && fileName != L".." &&
                           fileName.find_first_of(std::wstring(L"/\0", 2)) == std::wstring::npos;
    if (plainName) {
        try {
            file = LogFile::Open(String::UTF16ToUTF8(Platform::Paths().logRoot), String::UTF16ToUTF8(fileName));
        } catch (const std::exception&) {
            file.reset();
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    file_ = file;
    level_ = file ? std::clamp(level, kOff, kDebug) : kOff;
    return file != nullptr;
}

bool Log::IsEnabled(int level) const noexcept
{
    return level > kOff && level <= level_.load(std::memory_order_relaxed);
}

std::string Log::FilePath() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return file_ ? file_->Path() : std::string();
}

std::shared_ptr<LogFile> Log::OpenFile()
{
    if (lazyPending_) {
        // Only the first caller opens; the others wait here for its file instead of losing lines.
        // A line logged while opening (by the same thread) finds lazyPending_ cleared and is dropped.
        std::lock_guard<std::mutex> opening(lazyOpenMutex_);
        if (lazyPending_) {
            Init(lazyFileName_, lazyLevel_);
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    return file_;
}

void Log::Emit(int level, std::wstring_view format, std::span<const LogArgument> arguments) noexcept
{
    try {
        if (std::shared_ptr<LogFile> file = OpenFile()) {
            file->Write(level, LogFormatter::Format(format, arguments));
        }
    } catch (...) {
        // Out of memory while formatting: losing one line is the right trade.
    }
}

}  // namespace VEQ
