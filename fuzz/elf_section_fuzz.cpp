// Feeds bytes to the ELF section reader as a file on disk, the way a hostile add-on's
// resourceloader.dll or a plugin library would reach it. Nothing may crash, hang or read outside
// the file.

#include "platform/elf/ElfSectionReader.h"

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string path = [] {
        std::string pattern = "/tmp/veq-elf-fuzz-XXXXXX";
        const int fd = mkstemp(pattern.data());
        if (fd < 0) {
            std::abort();
        }
        close(fd);
        return pattern;
    }();
    const int fd = open(path.c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0) {
        return 0;
    }
    (void)!write(fd, data, size);
    close(fd);
    std::string content;
    std::string error;
    VEQ::ElfSectionReader::ReadSection(path, ".veq.version", 64, content, error);
    VEQ::ElfSectionReader::ReadSection(path, ".veq.res.JSON.1001", 1 << 20, content, error);
    return 0;
}
