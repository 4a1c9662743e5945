#pragma once
// Reads named sections of an ELF file with libelf, without loading or running the file. This is
// how resources and versions travel in our executables and libraries (docs/plugins.md):
// ".veq.version" holds "a.b.c.d", ".veq.res.<type>.<id>" holds a resource's bytes.

#include <cstddef>
#include <string>

namespace VEQ {

class ElfSectionReader {
public:
    // The bytes of the first section named name. False, with error saying why, when the file
    // cannot be opened, is no well-formed ELF file, has no such section, or the section is larger
    // than maxBytes or reaches past the end of the file.
    static bool ReadSection(const std::string& path, const std::string& name, size_t maxBytes,
                            std::string& content, std::string& error);
};

}  // namespace VEQ
