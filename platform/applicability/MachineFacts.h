#pragma once
// What this machine says about itself, for the rule engine. A fact the machine cannot give is
// absent, so that a rule on it can be refused instead of compared with a guess.

#include "platform/applicability/VEQTag.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace VEQ {

struct MachineFacts {
    // Where Read looks; tests point these at files of their own.
    struct Sources {
        std::string dmiDirectory = "/sys/class/dmi/id";
        std::string osReleaseFile = "/etc/os-release";
        std::string defaultLocaleFile = "/etc/default/locale";
        // LC_ALL, then LANG of this process come before defaultLocaleFile.
        bool localeFromEnvironment = true;
    };

    std::optional<std::wstring> mfr;        // DMI sys_vendor
    std::optional<std::wstring> family;     // DMI product_family
    std::optional<std::wstring> model;      // DMI product_name
    std::optional<std::wstring> sku;        // DMI product_sku
    std::optional<std::wstring> enclosure;  // DMI chassis_type, the SMBIOS number ("9")
    std::optional<std::wstring> os;         // os-release ID
    std::optional<std::wstring> osVersion;  // os-release VERSION_ID
    std::optional<std::wstring> osDescription;  // os-release PRETTY_NAME
    std::wstring osBitness;                 // "64" or "32"
    std::optional<std::wstring> language;   // "en" of en_US.UTF-8
    std::optional<std::wstring> country;    // "US" of en_US.UTF-8
    std::vector<VEQTag> tags;               // AppAndTagCollection's
    std::chrono::year_month_day today;      // local date

    // From this machine, with Sources' defaults.
    static MachineFacts Read();
    static MachineFacts Read(const Sources& sources);

    // The SMBIOS name of a chassis type number ("9" -> "Laptop"); empty when there is none.
    static std::wstring EnclosureName(const std::wstring& number);
};

}  // namespace VEQ
