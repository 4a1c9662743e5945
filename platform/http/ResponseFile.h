#pragma once

#include <cstddef>
#include <string>

namespace VEQ {

// A reply body on its way to the caller's file. The body goes to a temporary file beside the
// target (mode 0600, created exclusively, so no link is followed), which replaces the target
// only at Commit; a failed or abandoned exchange leaves the target as it was and removes its
// temporary file. A target that is a symbolic link is replaced, not written through.
class ResponseFile {
public:
    explicit ResponseFile(std::string path);
    ~ResponseFile();
    ResponseFile(const ResponseFile&) = delete;
    ResponseFile& operator=(const ResponseFile&) = delete;

    bool Open(std::string& error);
    bool Write(const char* data, size_t size, std::string& error);
    bool Commit(std::string& error);
    void Discard();

private:
    std::string path_;
    std::string temporary_;
    int fd_ = -1;
};

}  // namespace VEQ
