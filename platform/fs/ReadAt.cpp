#include "platform/fs/ReadAt.h"

#include <cerrno>
#include <unistd.h>

namespace VEQ {

bool ReadAt::Exactly(int fd, uint64_t offset, uint64_t size, std::string& content)
{
    content.resize(size);
    uint64_t done = 0;
    while (done < size) {
        const ssize_t got = pread(fd, content.data() + done, size - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        done += static_cast<uint64_t>(got);
    }
    return true;
}

}  // namespace VEQ
