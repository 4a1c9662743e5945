#include "platform/applicability/MachineFacts.h"

#include "platform/applicability/AppAndTagCollection.h"
#include "platform/string/String.h"

#include <array>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <sys/utsname.h>

namespace VEQ {
namespace {

std::string Trim(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// A DMI attribute; absent when the file is missing, unreadable or blank.
std::optional<std::wstring> ReadDmi(const std::string& directory, const char* name)
{
    std::ifstream file(directory + "/" + name);
    if (!file) {
        return std::nullopt;
    }
    std::stringstream content;
    content << file.rdbuf();
    const std::string value = Trim(content.str());
    if (value.empty()) {
        return std::nullopt;
    }
    return String::UTF8ToUTF16(value);
}

// KEY=value lines as os-release and /etc/default/locale write them; quotes around the value go.
std::optional<std::string> ReadAssignment(const std::string& path, const std::string& key)
{
    std::ifstream file(path);
    std::string line;
    std::optional<std::string> found;
    while (std::getline(file, line)) {
        line = Trim(line);
        if (line.rfind(key + "=", 0) != 0) {
            continue;
        }
        std::string value = Trim(line.substr(key.size() + 1));
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
            value = value.substr(1, value.size() - 2);
        }
        found = value;  // the last assignment wins, as when the file is sourced
    }
    return found;
}

std::optional<std::wstring> Widened(const std::optional<std::string>& text)
{
    if (!text || Trim(*text).empty()) {
        return std::nullopt;
    }
    return String::UTF8ToUTF16(Trim(*text));
}

std::string LocaleName(const MachineFacts::Sources& sources)
{
    if (sources.localeFromEnvironment) {
        for (const char* variable : {"LC_ALL", "LANG"}) {
            const char* value = std::getenv(variable);
            if (value && *value) {
                return value;
            }
        }
    }
    for (const char* variable : {"LC_ALL", "LANG"}) {
        if (auto value = ReadAssignment(sources.defaultLocaleFile, variable); value && !value->empty()) {
            return *value;
        }
    }
    return {};
}

// "en_US.UTF-8@euro" gives "en" and "US"; "C" and "POSIX" name no language.
void SplitLocale(const std::string& name, MachineFacts& facts)
{
    const std::string base = name.substr(0, name.find_first_of(".@"));
    if (base.empty() || base == "C" || base == "POSIX") {
        return;
    }
    const auto underscore = base.find('_');
    facts.language = Widened(base.substr(0, underscore));
    if (underscore != std::string::npos) {
        facts.country = Widened(base.substr(underscore + 1));
    }
}

}  // namespace

MachineFacts MachineFacts::Read()
{
    return Read(Sources{});
}

MachineFacts MachineFacts::Read(const Sources& sources)
{
    MachineFacts facts;
    facts.mfr = ReadDmi(sources.dmiDirectory, "sys_vendor");
    facts.family = ReadDmi(sources.dmiDirectory, "product_family");
    facts.model = ReadDmi(sources.dmiDirectory, "product_name");
    facts.sku = ReadDmi(sources.dmiDirectory, "product_sku");
    facts.enclosure = ReadDmi(sources.dmiDirectory, "chassis_type");

    facts.os = Widened(ReadAssignment(sources.osReleaseFile, "ID"));
    facts.osVersion = Widened(ReadAssignment(sources.osReleaseFile, "VERSION_ID"));
    facts.osDescription = Widened(ReadAssignment(sources.osReleaseFile, "PRETTY_NAME"));

    struct utsname names {};
    const std::string machine = uname(&names) == 0 ? names.machine : "";
    facts.osBitness = (machine == "x86_64" || machine == "aarch64") ? L"64" : L"32";

    SplitLocale(LocaleName(sources), facts);

    facts.tags = AppAndTagCollection::GetInstance()->getTagsFromRegistryAndMemory();

    const std::time_t now = std::time(nullptr);
    std::tm local {};
    localtime_r(&now, &local);
    facts.today = std::chrono::year_month_day{std::chrono::year{local.tm_year + 1900},
                                              std::chrono::month{static_cast<unsigned>(local.tm_mon + 1)},
                                              std::chrono::day{static_cast<unsigned>(local.tm_mday)}};
    return facts;
}

std::wstring MachineFacts::EnclosureName(const std::wstring& number)
{
    // SMBIOS chassis types 1 to 36, in order.
    static const std::array<const wchar_t*, 36> kNames = {
        L"Other", L"Unknown", L"Desktop", L"Low Profile Desktop", L"Pizza Box", L"Mini Tower", L"Tower",
        L"Portable", L"Laptop", L"Notebook", L"Hand Held", L"Docking Station", L"All in One", L"Sub Notebook",
        L"Space-saving", L"Lunch Box", L"Main Server Chassis", L"Expansion Chassis", L"SubChassis",
        L"Bus Expansion Chassis", L"Peripheral Chassis", L"RAID Chassis", L"Rack Mount Chassis",
        L"Sealed-case PC", L"Multi-system chassis", L"Compact PCI", L"Advanced TCA", L"Blade",
        L"Blade Enclosure", L"Tablet", L"Convertible", L"Detachable", L"IoT Gateway", L"Embedded PC",
        L"Mini PC", L"Stick PC"};
    if (number.empty() || number.size() > 3 || number.find_first_not_of(L"0123456789") != std::wstring::npos) {
        return {};
    }
    const unsigned long value = std::stoul(number);
    if (value < 1 || value > kNames.size()) {
        return {};
    }
    return kNames[value - 1];
}

}  // namespace VEQ
