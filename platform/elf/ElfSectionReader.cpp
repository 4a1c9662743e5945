#include "platform/elf/ElfSectionReader.h"

#include "platform/fs/ReadAt.h"

#include <gelf.h>
#include <libelf.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

class OpenFile {
public:
    explicit OpenFile(const std::string& path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~OpenFile()
    {
        if (elf_ != nullptr) {
            elf_end(elf_);
        }
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    int fd() const { return fd_; }
    Elf*& elf() { return elf_; }

private:
    int fd_;
    Elf* elf_ = nullptr;
};

bool Fail(std::string& error, std::string text)
{
    error = std::move(text);
    return false;
}


}  // namespace

bool ElfSectionReader::ReadSection(const std::string& path, const std::string& name, size_t maxBytes,
                                   std::string& content, std::string& error)
{
    if (elf_version(EV_CURRENT) == EV_NONE) {
        return Fail(error, "libelf is unusable");
    }
    OpenFile file(path);
    struct stat status {};
    if (file.fd() < 0 || fstat(file.fd(), &status) != 0) {
        return Fail(error, path + ": " + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return Fail(error, path + " is not a regular file");
    }
    const uint64_t fileSize = static_cast<uint64_t>(status.st_size);
    // ELF_C_READ_MMAP is avoided: a file cut short while mapped would end the service with SIGBUS.
    file.elf() = elf_begin(file.fd(), ELF_C_READ, nullptr);
    if (file.elf() == nullptr || elf_kind(file.elf()) != ELF_K_ELF) {
        return Fail(error, path + " is not an ELF file");
    }
    size_t namesIndex = 0;
    if (elf_getshdrstrndx(file.elf(), &namesIndex) != 0) {
        return Fail(error, path + ": unreadable section table: " + elf_errmsg(-1));
    }
    for (Elf_Scn* section = elf_nextscn(file.elf(), nullptr); section != nullptr;
         section = elf_nextscn(file.elf(), section)) {
        GElf_Shdr header;
        if (gelf_getshdr(section, &header) == nullptr) {
            return Fail(error, path + ": unreadable section header: " + elf_errmsg(-1));
        }
        const char* sectionName = elf_strptr(file.elf(), namesIndex, header.sh_name);
        if (sectionName == nullptr || name != sectionName) {
            continue;
        }
        if (header.sh_type == SHT_NOBITS) {
            return Fail(error, path + ": section " + name + " holds no bytes");
        }
        if (header.sh_size > maxBytes) {
            return Fail(error, path + ": section " + name + " is larger than " + std::to_string(maxBytes) + " bytes");
        }
        if (header.sh_offset > fileSize || header.sh_size > fileSize - header.sh_offset) {
            return Fail(error, path + ": section " + name + " reaches past the end of the file");
        }
        // Read here, not through libelf, so that a section table that lies cannot make it read
        // or map beyond the file.
        if (!ReadAt::Exactly(file.fd(), header.sh_offset, header.sh_size, content)) {
            return Fail(error, path + ": the file changed while it was read");
        }
        return true;
    }
    return Fail(error, path + " has no section " + name);
}

}  // namespace VEQ
