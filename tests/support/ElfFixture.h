#pragma once
// ELF files made at test time: a copy of a small system program with sections added by objcopy,
// as the plugin build adds versions and resources.

#include <string>
#include <utility>
#include <vector>

namespace VEQ::Test {

using ElfSections = std::vector<std::pair<std::string, std::string>>;  // name, bytes

// Writes an ELF file at path (parents made) that holds each of sections. Throws on failure.
void MakeElfWithSections(const std::string& path, const ElfSections& sections);
// Adds sections to the ELF file at path. Throws on failure.
void AddElfSections(const std::string& path, const ElfSections& sections);

}  // namespace VEQ::Test
