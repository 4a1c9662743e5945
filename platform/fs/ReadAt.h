#pragma once
// Reading part of a file whose size others may change while it is read.

#include <cstdint>
#include <string>

namespace VEQ {

class ReadAt {
public:
    // Exactly size bytes from offset into content; false when the file ended first or a read failed.
    static bool Exactly(int fd, uint64_t offset, uint64_t size, std::string& content);
};

}  // namespace VEQ
