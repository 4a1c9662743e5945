#include "platform/elf/ElfSectionReader.h"

namespace VEQ {

bool ElfSectionReader::ReadSection(const std::string& /*path*/, const std::string& /*name*/, size_t /*maxBytes*/,
                                   std::string& /*content*/, std::string& error)
{
    error = "not implemented yet";
    return false;
}

}  // namespace VEQ
