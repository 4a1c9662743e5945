#include "platform/log/LogFile.h"

#include "platform/log/Log.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <sys/stat.h>

namespace VEQ {

// The logger is ours alone and never registered with spdlog, so spdlog's registry, which is a
// static torn down at exit, is never on the path of a late log call.
struct LogFile::Writer {
    std::shared_ptr<spdlog::logger> logger;
};

namespace {

// Lines that nobody reads until after a crash are worth a flush each: the service logs little,
// and a buffered line lost with the process is the one that mattered.
constexpr const char* kLinePattern = "[%Y-%m-%d %H:%M:%S.%e] [%l] [%t] %v";

struct OpenFiles {
    std::mutex mutex;
    std::map<std::string, std::weak_ptr<LogFile>> byPath;
};

OpenFiles& Files()
{
    static OpenFiles* files = new OpenFiles();  // outlives every static that may log at exit
    return *files;
}

bool CreateDirectories(const std::string& directory)
{
    for (size_t slash = directory.find('/', 1); ; slash = directory.find('/', slash + 1)) {
        const std::string partial = directory.substr(0, slash);
        if (!partial.empty() && mkdir(partial.c_str(), 0755) == 0) {
            chmod(partial.c_str(), 0755);  // mkdir's mode is cut by the umask
        } else if (!partial.empty() && errno != EEXIST) {
            return false;
        }
        if (slash == std::string::npos) {
            break;
        }
    }
    struct stat status {};
    return stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

spdlog::level::level_enum ToSpdlog(int level)
{
    switch (level) {
    case Log::kError:
        return spdlog::level::err;
    case Log::kWarning:
        return spdlog::level::warn;
    case Log::kInfo:
        return spdlog::level::info;
    default:
        return spdlog::level::debug;
    }
}

}  // namespace

LogFile::LogFile(std::string path, std::unique_ptr<Writer> writer) : path_(std::move(path)), writer_(std::move(writer))
{
}

LogFile::~LogFile() = default;

std::shared_ptr<LogFile> LogFile::Open(const std::string& directory, const std::string& fileName)
{
    const std::string path = directory + "/" + fileName;
    OpenFiles& files = Files();
    std::lock_guard<std::mutex> lock(files.mutex);
    if (auto open = files.byPath[path].lock()) {
        return open;
    }
    std::erase_if(files.byPath, [](const auto& entry) { return entry.second.expired(); });
    try {
        if (!CreateDirectories(directory)) {
            return nullptr;
        }
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, false);
        auto writer = std::make_unique<Writer>();
        writer->logger = std::make_shared<spdlog::logger>(fileName, std::move(sink));
        writer->logger->set_pattern(kLinePattern);
        writer->logger->set_level(spdlog::level::trace);
        writer->logger->flush_on(spdlog::level::trace);
        std::shared_ptr<LogFile> file(new LogFile(path, std::move(writer)));
        files.byPath[path] = file;
        return file;
    } catch (const std::exception&) {
        files.byPath.erase(path);
        return nullptr;
    }
}

void LogFile::Write(int level, const std::string& message) noexcept
{
    try {
        writer_->logger->log(ToSpdlog(level), spdlog::string_view_t(message));
    } catch (...) {
        // A full disk must not take down the caller; the line is lost.
    }
}

}  // namespace VEQ
