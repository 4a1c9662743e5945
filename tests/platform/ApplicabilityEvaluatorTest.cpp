#include "platform/applicability/AppAndTagCollection.h"
#include "platform/applicability/ApplicabilityEvaluator.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/utsname.h>

namespace VEQ {
namespace {

using namespace std::chrono;

std::vector<ApplicabilityFilter> Rules(const std::string& json)
{
    Json::Value array;
    std::istringstream in(json);
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &array, &errors)) << json;
    std::vector<ApplicabilityFilter> rules;
    for (const Json::Value& rule : array) {
        rules.push_back(ApplicabilityFilter::FromJson(rule));
    }
    return rules;
}

MachineFacts FakedMachine()
{
    MachineFacts facts;
    facts.mfr = L"Tavrin";
    facts.family = L"Latitude";
    facts.model = L"ThinkPad X1";
    facts.sku = L"SKU-1";
    facts.enclosure = L"9";
    facts.os = L"debian";
    facts.osVersion = L"12.4";
    facts.osDescription = L"Debian GNU/Linux 12 (bookworm)";
    facts.osBitness = L"64";
    facts.language = L"en";
    facts.country = L"US";
    facts.tags = {VEQTag(L"Zone", L"eu-west"), VEQTag(L"Warranty", L"Active")};
    facts.today = year{2026} / November / 23;
    return facts;
}

// Nothing from DMI, os-release or the locale: a container, say.
MachineFacts BareMachine()
{
    MachineFacts facts;
    facts.osBitness = L"32";
    facts.today = year{2026} / November / 23;
    return facts;
}

struct Row {
    std::string rules;
    std::wstring expectedReason;  // empty: the rules hold
    std::wstring targetVersion = L"";
    std::vector<KeyValuePair> callerTags = {};
    bool bare = false;
};

TEST(ApplicabilityEvaluatorTest, ComparesEachFieldWithTheMachineAndNamesTheFirstThatFails)
{
    const std::vector<Row> rows = {
        {R"x([])x", L""},
        {R"x([{"value": "anything"}, {"model": "  "}])x", L""},
        {R"x([{"model": " thinkpad X1 "}])x", L""},
        {R"x([{"model": "XPS 13"}])x", LR"x(rule 1: model "XPS 13" does not match "ThinkPad X1")x"},
        {R"x([{"model": "XPS 13,, ThinkPad x1"}])x", L""},
        {R"x([{"mfr": "TAVRIN", "family": "latitude", "sku": "SKU-2"}])x",
         LR"x(rule 1: sku "SKU-2" does not match "SKU-1")x"},
        {R"x([{"os": "Debian", "os_description": "debian gnu/linux 12 (bookworm)"}])x", L""},
        {R"x([{"os": "ubuntu, fedora"}])x", LR"x(rule 1: os "ubuntu, fedora" does not match "debian")x"},
        {R"x([{"os_bitness": "32"}])x", LR"x(rule 1: os_bitness "32" does not match "64")x"},
        {R"x([{"language": "EN", "country": "de"}])x", LR"x(rule 1: country "de" does not match "US")x"},
        {R"x([{"enclosure": "laptop"}, {"enclosure": "3,9"}])x", L""},
        {R"x([{"enclosure": "Desktop"}])x", LR"x(rule 1: enclosure "Desktop" does not match "9 (Laptop)")x"},
        // Tags: the device's and the caller's, by name and value or by name alone.
        {R"x([{"tag": "zone=EU-WEST"}, {"tag": "warranty"}, {"tag": "Missing, channel = beta"}])x", L"", L"",
         {{L"Channel", L"Beta"}}},
        {R"x([{"tag": "Warranty=Expired"}])x", LR"x(rule 1: tag "Warranty=Expired" does not match "Warranty=Active")x"},
        {R"x([{"tag": "Missing"}])x", LR"x(rule 1: tag "Missing" does not match any tag of this device)x"},
        {R"x([{"tag": "=x"}])x", LR"x(rule 1: tag "=x" is not a tag name)x"},
        // Date ranges include both ends; an empty end is open.
        {R"x([{"date_range": "2026-11-23..2026-11-23"}, {"date_range": "..2026-11-23"}, {"date_range": "2026-01-01.."}])x",
         L""},
        {R"x([{"date_range": "2026-11-24.."}])x", LR"x(rule 1: date_range "2026-11-24.." does not match "2026-11-23")x"},
        {R"x([{"date_range": "..2026-11-22"}])x", LR"x(rule 1: date_range "..2026-11-22" does not match "2026-11-23")x"},
        {R"x([{"date_range": "2026-13-01..2027-01-01"}])x",
         LR"x(rule 1: date_range "2026-13-01..2027-01-01" is not a date range)x"},
        // Versions compare part by part as numbers: 12.4 is older than 12.10.
        {R"x([{"os_version": "12.4.0"}, {"os_version": ">=12.4"}, {"os_version": "<12.10"}, {"version": ">12.3.9"}])x",
         L""},
        {R"x([{"os_version": "<=12.3"}])x", LR"x(rule 1: os_version "<=12.3" does not match "12.4")x"},
        {R"x([{"os_version": "=12, >12.4"}])x", LR"x(rule 1: os_version "=12, >12.4" does not match "12.4")x"},
        {R"x([{"version": ">=twelve"}])x", LR"x(rule 1: version ">=twelve" is not a version comparison)x"},
        {R"x([{"target_version": ">=2.9"}])x", L"", L"2.10.0"},
        {R"x([{"target_version": "<2.9"}])x", LR"x(rule 1: target_version "<2.9" does not match "2.10.0")x", L"2.10.0"},
        {R"x([{"target_version": "1.0"}])x", LR"x(rule 1: target_version "1.0" cannot be answered on this machine)x"},
        {R"x([{"default": "TRUE"}])x", L""},
        {R"x([{"default": "false"}])x", LR"x(rule 1: default "false" does not hold)x"},
        {R"x([{"default": "maybe"}])x", LR"x(rule 1: default "maybe" is not "true" or "false")x"},
        // Every rule and every field must hold; the first that does not is named.
        {R"x([{"os": "debian"}, {"model": "XPS", "sku": "none"}])x", LR"x(rule 2: model "XPS" does not match "ThinkPad X1")x"},
        // What the machine cannot answer never holds.
        {R"x([{"model": "ThinkPad X1"}])x", LR"x(rule 1: model "ThinkPad X1" cannot be answered on this machine)x", L"", {},
         true},
        {R"x([{"enclosure": "9"}])x", LR"x(rule 1: enclosure "9" cannot be answered on this machine)x", L"", {}, true},
        {R"x([{"language": "en"}])x", LR"x(rule 1: language "en" cannot be answered on this machine)x", L"", {}, true},
        {R"x([{"os_version": ">=1"}])x", LR"x(rule 1: os_version ">=1" cannot be answered on this machine)x", L"", {}, true},
        {R"x([{"os_bitness": "32"}])x", L"", L"", {}, true},
        {R"x([{"os": "windows, LINUX"}])x", L"", L"", {}, true},
    };
    ApplicabilityEvaluator faked(FakedMachine());
    ApplicabilityEvaluator bare(BareMachine());
    for (const Row& row : rows) {
        std::wstring reason = L"stale";
        ApplicabilityEvaluator& evaluator = row.bare ? bare : faked;
        const bool holds = evaluator.EvaluateFilters(Rules(row.rules), row.targetVersion, row.callerTags, reason);
        EXPECT_EQ(holds, row.expectedReason.empty()) << row.rules;
        EXPECT_EQ(String::UTF16ToUTF8(reason), String::UTF16ToUTF8(row.expectedReason)) << row.rules;
    }
}

TEST(ApplicabilityEvaluatorTest, FieldsThisMachineCannotAnswerNeverHold)
{
    ApplicabilityEvaluator evaluator(FakedMachine());
    for (const std::string field : {"device_subscription", "sn_hash", "org_hash", "installed_items", "registry",
                                    "hardware_id", "date_function"}) {
        std::wstring reason;
        EXPECT_FALSE(evaluator.EvaluateFilters(Rules(R"x([{")x" + field + R"x(": "x"}])x"), L"", {}, reason)) << field;
        EXPECT_EQ(String::UTF16ToUTF8(reason), "rule 1: " + field + R"x( "x" cannot be answered on this machine)x");
    }
}

class MachineFactsTest : public ::testing::Test {
protected:
    void Write(const std::string& name, const std::string& content)
    {
        std::filesystem::create_directories(std::filesystem::path(root_.BelowUtf8(name)).parent_path());
        std::ofstream(root_.BelowUtf8(name)) << content;
    }
    MachineFacts Read()
    {
        MachineFacts::Sources sources;
        sources.dmiDirectory = root_.BelowUtf8("dmi");
        sources.osReleaseFile = root_.BelowUtf8("os-release");
        sources.defaultLocaleFile = root_.BelowUtf8("locale");
        sources.localeFromEnvironment = false;
        return MachineFacts::Read(sources);
    }

    VEQ::Test::TempRoot root_;
};

TEST_F(MachineFactsTest, ReadsDmiOsReleaseAndLocaleFilesAndLeavesOutWhatIsMissing)
{
    Write("dmi/sys_vendor", "Tavrin Inc.\n");
    Write("dmi/product_name", "Model 7\n");
    Write("dmi/product_family", "\n");
    Write("dmi/chassis_type", "10\n");
    Write("os-release", "NAME=\"Debian GNU/Linux\"\nID=debian\nVERSION_ID=\"12\"\nPRETTY_NAME='Debian 12'\n");
    Write("locale", "#  File generated by update-locale\nLANG=\"de_AT.UTF-8@euro\"\n");

    const MachineFacts facts = Read();
    EXPECT_EQ(facts.mfr, L"Tavrin Inc.");
    EXPECT_EQ(facts.model, L"Model 7");
    EXPECT_EQ(facts.family, std::nullopt) << "a blank file answers nothing";
    EXPECT_EQ(facts.sku, std::nullopt) << "a missing file answers nothing";
    EXPECT_EQ(facts.enclosure, L"10");
    EXPECT_EQ(MachineFacts::EnclosureName(*facts.enclosure), L"Notebook");
    EXPECT_EQ(facts.os, L"debian");
    EXPECT_EQ(facts.osVersion, L"12");
    EXPECT_EQ(facts.osDescription, L"Debian 12");
    EXPECT_EQ(facts.language, L"de");
    EXPECT_EQ(facts.country, L"AT");

    Write("locale", "LANG=C.UTF-8\n");
    EXPECT_EQ(Read().language, std::nullopt) << "the C locale names no language";
}

// What docs/applicability.md promises on whatever machine runs the tests.
TEST(ApplicabilityEvaluatorRealMachineTest, AnswersFromThisMachinesOwnFiles)
{
    VEQ::Test::TempRoot root;
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, AppAndTagCollection::kTagsKey, L"Ring",
                                      std::wstring(L"pilot")));
    ApplicabilityEvaluator evaluator;
    std::wstring reason;

    EXPECT_TRUE(evaluator.EvaluateFilters(Rules(R"x([{"tag": "ring=pilot"}])x"), L"", {}, reason)) << reason;

    struct utsname names {};
    ASSERT_EQ(uname(&names), 0);
    const std::string machine = names.machine;
    const std::string bitness = (machine == "x86_64" || machine == "aarch64") ? "64" : "32";
    EXPECT_TRUE(evaluator.EvaluateFilters(Rules(R"x([{"os_bitness": ")x" + bitness + R"x("}])x"), L"", {}, reason));

    std::ifstream osRelease("/etc/os-release");
    std::string line, id;
    while (std::getline(osRelease, line)) {
        if (line.rfind("ID=", 0) == 0) {
            id = line.substr(3);
            id.erase(std::remove(id.begin(), id.end(), '"'), id.end());
        }
    }
    if (!id.empty()) {
        EXPECT_TRUE(evaluator.EvaluateFilters(Rules(R"x([{"os": ")x" + id + R"x("}])x"), L"", {}, reason)) << reason;
        EXPECT_FALSE(evaluator.EvaluateFilters(Rules(R"x([{"os": "not-)x" + id + R"x("}])x"), L"", {}, reason));
        EXPECT_EQ(String::UTF16ToUTF8(reason), "rule 1: os \"not-" + id + "\" does not match \"" + id + "\"");
    }

    // Without DMI (containers, some ARM boards) a model rule is refused, never guessed.
    std::ifstream productName("/sys/class/dmi/id/product_name");
    std::string model;
    std::getline(productName, model);
    const bool holds = evaluator.EvaluateFilters(Rules(R"x([{"model": ")x" + (model.empty() ? "X" : model) + R"x("}])x"),
                                                 L"", {}, reason);
    EXPECT_EQ(holds, !model.empty()) << String::UTF16ToUTF8(reason);
    if (model.empty()) {
        EXPECT_EQ(String::UTF16ToUTF8(reason), R"x(rule 1: model "X" cannot be answered on this machine)x");
    }
}

}  // namespace
}  // namespace VEQ
