#pragma once
// One open log file. Every Log opened on the same path shares the same LogFile, so lines from
// several objects and threads never interleave within a line.

#include <memory>
#include <string>

namespace VEQ {

class LogFile {
public:
    // The LogFile already open on directory/fileName, or a new one. The directory is created
    // with its parents (mode 0755) when missing. Null when the file cannot be opened.
    static std::shared_ptr<LogFile> Open(const std::string& directory, const std::string& fileName);

    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Writes one line, stamped with time, level and thread id, and flushes it. Never throws.
    void Write(int level, const std::string& message) noexcept;
    const std::string& Path() const { return path_; }

private:
    struct Writer;

    LogFile(std::string path, std::unique_ptr<Writer> writer);

    std::string path_;
    std::unique_ptr<Writer> writer_;
};

}  // namespace VEQ
