// Reads one string value from the registry the way an unprivileged app does, and prints it.
//   veq_registry_reader <root> <HKLM|HKCU> <key path> <value name>
//       exit 0 and the value on stdout; 2 when there is no such value; 1 on error
//   veq_registry_reader --write <root> <HKLM|HKCU> <key path> <value name> <data>
//       tries to write through an ordinary store; exit 0 when written, 1 when refused
#include "platform/registry/SqliteRegistryStore.h"
#include "platform/string/String.h"

#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool ParseHive(const std::string& text, VEQ::Hive& hive)
{
    if (text == "HKLM") {
        hive = VEQ::HKEY_LOCAL_MACHINE;
        return true;
    }
    if (text == "HKCU") {
        hive = VEQ::HKEY_CURRENT_USER;
        return true;
    }
    return false;
}

int Usage()
{
    std::fprintf(stderr, "usage: veq_registry_reader [--write] <root> <HKLM|HKCU> <key path> <value name> [data]\n");
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    using VEQ::String;
    const bool write = argc > 1 && std::string(argv[1]) == "--write";
    const int first = write ? 2 : 1;
    VEQ::Hive hive{};
    if (argc != first + (write ? 5 : 4) || !ParseHive(argv[first + 1], hive)) {
        return Usage();
    }
    const std::wstring root = String::UTF8ToUTF16(argv[first]);
    const std::wstring key = String::UTF8ToUTF16(argv[first + 2]);
    const std::wstring name = String::UTF8ToUTF16(argv[first + 3]);

    if (write) {
        VEQ::SqliteRegistryStore store(root);
        return store.SetString(hive, key, name, String::UTF8ToUTF16(argv[first + 4])) ? 0 : 1;
    }

    const auto store = VEQ::SqliteRegistryStore::OpenReadOnly(root);
    // A hive that exists but can't be read is an error, not an absent value.
    const std::string file = store->HiveFilePath(hive);
    struct stat status {};
    if (::stat(file.c_str(), &status) == 0 && ::access(file.c_str(), R_OK) != 0) {
        std::fprintf(stderr, "veq_registry_reader: cannot read %s\n", file.c_str());
        return 1;
    }
    const auto value = store->GetString(hive, key, name);
    if (!value) {
        return 2;
    }
    std::printf("%s\n", String::UTF16ToUTF8(*value).c_str());
    return 0;
}
