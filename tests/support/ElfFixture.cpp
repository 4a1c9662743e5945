#include "tests/support/ElfFixture.h"

#include "tests/support/ChildProcess.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace VEQ::Test {

void MakeElfWithSections(const std::string& path, const ElfSections& sections)
{
    fs::create_directories(fs::path(path).parent_path());
    fs::copy_file("/bin/true", path, fs::copy_options::overwrite_existing);
    AddElfSections(path, sections);
}

void AddElfSections(const std::string& path, const ElfSections& sections)
{
    std::vector<std::string> command{"/usr/bin/objcopy"};
    std::vector<std::string> contentFiles;
    for (size_t n = 0; n < sections.size(); ++n) {
        const std::string contentFile = path + ".section" + std::to_string(n);
        std::ofstream(contentFile, std::ios::binary) << sections[n].second;
        contentFiles.push_back(contentFile);
        command.push_back("--add-section");
        command.push_back(sections[n].first + "=" + contentFile);
        command.push_back("--set-section-flags");
        command.push_back(sections[n].first + "=noload,readonly");
    }
    command.push_back(path);
    const ChildOutcome outcome = ChildProcess::Run(command);
    for (const std::string& contentFile : contentFiles) {
        fs::remove(contentFile);
    }
    if (outcome.exitCode != 0) {
        throw std::runtime_error("objcopy failed: " + outcome.output);
    }
}

}  // namespace VEQ::Test
