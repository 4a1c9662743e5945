#include "platform/applicability/ApplicabilityEvaluator.h"

#include "platform/Platform.h"
#include "platform/string/String.h"

#include <algorithm>
#include <cstdint>
#include <cwchar>
#include <optional>

namespace VEQ {
namespace {

// What a field that does not hold says after `rule N: `; nothing when it holds.
using Failure = std::optional<std::wstring>;

std::wstring Trim(const std::wstring& text)
{
    const auto first = text.find_first_not_of(L" \t\r\n");
    if (first == std::wstring::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(L" \t\r\n") - first + 1);
}

std::wstring Quoted(const std::wstring& text)
{
    return L"\"" + text + L"\"";
}

// The alternatives of a field, trimmed; blank ones are dropped, so a blank field has none.
std::vector<std::wstring> Alternatives(const std::wstring& value)
{
    std::vector<std::wstring> alternatives;
    size_t start = 0;
    while (start <= value.size()) {
        const auto comma = std::min(value.find(L',', start), value.size());
        if (std::wstring alternative = Trim(value.substr(start, comma - start)); !alternative.empty()) {
            alternatives.push_back(std::move(alternative));
        }
        start = comma + 1;
    }
    return alternatives;
}

bool SameText(const std::wstring& left, const std::wstring& right)
{
    return String::CaseInsesitiveEqual(Trim(left), Trim(right));
}

std::wstring Unanswered(const wchar_t* field, const std::wstring& wanted)
{
    return std::wstring(field) + L" " + Quoted(wanted) + L" cannot be answered on this machine";
}

std::wstring Mismatch(const wchar_t* field, const std::wstring& wanted, const std::wstring& actual)
{
    return std::wstring(field) + L" " + Quoted(wanted) + L" does not match " + Quoted(actual);
}

std::wstring Malformed(const wchar_t* field, const std::wstring& alternative, const wchar_t* what)
{
    return std::wstring(field) + L" " + Quoted(alternative) + L" is not " + what;
}

Failure MatchText(const wchar_t* field, const std::wstring& wanted, const std::optional<std::wstring>& actual)
{
    if (!actual) {
        return Unanswered(field, wanted);
    }
    for (const std::wstring& alternative : Alternatives(wanted)) {
        if (SameText(alternative, *actual)) {
            return std::nullopt;
        }
    }
    return Mismatch(field, wanted, *actual);
}

// "linux" names every distribution, and holds even where os-release is missing.
Failure MatchOs(const std::wstring& wanted, const std::optional<std::wstring>& id)
{
    for (const std::wstring& alternative : Alternatives(wanted)) {
        if (SameText(alternative, L"linux")) {
            return std::nullopt;
        }
    }
    return MatchText(L"os", wanted, id);
}

// The chassis matches by its SMBIOS number or by that number's name.
Failure MatchEnclosure(const std::wstring& wanted, const std::optional<std::wstring>& number)
{
    if (!number) {
        return Unanswered(L"enclosure", wanted);
    }
    const std::wstring name = MachineFacts::EnclosureName(*number);
    for (const std::wstring& alternative : Alternatives(wanted)) {
        if (SameText(alternative, *number) || (!name.empty() && SameText(alternative, name))) {
            return std::nullopt;
        }
    }
    return Mismatch(L"enclosure", wanted, name.empty() ? *number : *number + L" (" + name + L")");
}

// "true" holds, "false" does not; the rule stands for a constant answer.
Failure MatchDefault(const std::wstring& wanted)
{
    std::optional<std::wstring> malformed;
    for (const std::wstring& alternative : Alternatives(wanted)) {
        if (SameText(alternative, L"true")) {
            return std::nullopt;
        }
        if (!SameText(alternative, L"false") && !malformed) {
            malformed = alternative;
        }
    }
    if (malformed) {
        return Malformed(L"default", *malformed, L"\"true\" or \"false\"");
    }
    return std::wstring(L"default ") + Quoted(wanted) + L" does not hold";
}

// "name=value" wants a tag of that name and value; "name" alone wants the tag to exist.
Failure MatchTag(const std::wstring& wanted, const std::vector<VEQTag>& deviceTags,
                 const std::vector<KeyValuePair>& callerTags)
{
    std::vector<KeyValuePair> all;
    for (const VEQTag& tag : deviceTags) {
        all.push_back({tag.getKey(), tag.getValue()});
    }
    all.insert(all.end(), callerTags.begin(), callerTags.end());

    std::wstring present;  // the tags of the names asked for, for the reason
    std::optional<std::wstring> malformed;
    for (const std::wstring& alternative : Alternatives(wanted)) {
        const auto equals = alternative.find(L'=');
        const std::wstring name = Trim(alternative.substr(0, equals));
        if (name.empty()) {
            malformed = malformed.value_or(alternative);
            continue;
        }
        for (const KeyValuePair& tag : all) {
            if (!SameText(tag.key, name)) {
                continue;
            }
            if (equals == std::wstring::npos || SameText(tag.value, alternative.substr(equals + 1))) {
                return std::nullopt;
            }
            const std::wstring shown = Trim(tag.key) + L"=" + Trim(tag.value);
            if (present.find(shown) == std::wstring::npos) {
                present += (present.empty() ? L"" : L", ") + shown;
            }
        }
    }
    if (malformed) {
        return Malformed(L"tag", *malformed, L"a tag name");
    }
    if (present.empty()) {
        return std::wstring(L"tag ") + Quoted(wanted) + L" does not match any tag of this device";
    }
    return Mismatch(L"tag", wanted, present);
}

// Dot-separated decimal parts, as many as given.
std::optional<std::vector<uint64_t>> ParseVersion(const std::wstring& text)
{
    std::vector<uint64_t> parts;
    size_t start = 0;
    while (true) {
        const auto dot = std::min(text.find(L'.', start), text.size());
        const std::wstring part = text.substr(start, dot - start);
        if (part.empty() || part.size() > 18 || part.find_first_not_of(L"0123456789") != std::wstring::npos) {
            return std::nullopt;
        }
        parts.push_back(std::stoull(part));
        if (dot == text.size()) {
            return parts;
        }
        start = dot + 1;
    }
}

// Missing trailing parts count as 0, so "12" equals "12.0".
int CompareVersions(const std::vector<uint64_t>& left, const std::vector<uint64_t>& right)
{
    for (size_t i = 0; i < std::max(left.size(), right.size()); ++i) {
        const uint64_t a = i < left.size() ? left[i] : 0;
        const uint64_t b = i < right.size() ? right[i] : 0;
        if (a != b) {
            return a < b ? -1 : 1;
        }
    }
    return 0;
}

// An optional operator (">=", "<=", ">", "<", "="; none means "=") and a version.
std::optional<bool> VersionHolds(const std::wstring& alternative, const std::vector<uint64_t>& actual)
{
    static const std::vector<std::wstring> kOperators = {L">=", L"<=", L">", L"<", L"="};
    std::wstring op = L"=";
    std::wstring rest = alternative;
    for (const std::wstring& candidate : kOperators) {
        if (String::StartsWith(alternative, candidate)) {
            op = candidate;
            rest = Trim(alternative.substr(candidate.size()));
            break;
        }
    }
    const auto wanted = ParseVersion(rest);
    if (!wanted) {
        return std::nullopt;
    }
    const int order = CompareVersions(actual, *wanted);
    if (op == L">=") return order >= 0;
    if (op == L"<=") return order <= 0;
    if (op == L">") return order > 0;
    if (op == L"<") return order < 0;
    return order == 0;
}

Failure MatchVersion(const wchar_t* field, const std::wstring& wanted, const std::optional<std::wstring>& actual)
{
    // A machine whose version is no number ("rolling") cannot say whether it is newer.
    const auto actualParts = actual ? ParseVersion(Trim(*actual)) : std::nullopt;
    if (!actualParts) {
        return Unanswered(field, wanted);
    }
    std::optional<std::wstring> malformed;
    for (const std::wstring& alternative : Alternatives(wanted)) {
        const auto holds = VersionHolds(alternative, *actualParts);
        if (holds && *holds) {
            return std::nullopt;
        }
        if (!holds && !malformed) {
            malformed = alternative;
        }
    }
    if (malformed) {
        return Malformed(field, *malformed, L"a version comparison");
    }
    return Mismatch(field, wanted, *actual);
}

std::optional<std::chrono::sys_days> ParseDate(const std::wstring& text)
{
    if (text.size() != 10 || text[4] != L'-' || text[7] != L'-') {
        return std::nullopt;
    }
    for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9}) {
        if (text[i] < L'0' || text[i] > L'9') {
            return std::nullopt;
        }
    }
    const std::chrono::year_month_day date{std::chrono::year{std::stoi(text.substr(0, 4))},
                                           std::chrono::month{static_cast<unsigned>(std::stoi(text.substr(5, 2)))},
                                           std::chrono::day{static_cast<unsigned>(std::stoi(text.substr(8, 2)))}};
    if (!date.ok()) {
        return std::nullopt;
    }
    return std::chrono::sys_days{date};
}

std::wstring FormatDate(const std::chrono::year_month_day& date)
{
    wchar_t text[16];
    std::swprintf(text, 16, L"%04d-%02u-%02u", static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                  static_cast<unsigned>(date.day()));
    return text;
}

// "from..to", both ends included, either end open when empty.
Failure MatchDateRange(const std::wstring& wanted, const std::chrono::year_month_day& today)
{
    const std::chrono::sys_days day{today};
    std::optional<std::wstring> malformed;
    for (const std::wstring& alternative : Alternatives(wanted)) {
        const auto dots = alternative.find(L"..");
        if (dots == std::wstring::npos) {
            malformed = malformed.value_or(alternative);
            continue;
        }
        const std::wstring fromText = Trim(alternative.substr(0, dots));
        const std::wstring toText = Trim(alternative.substr(dots + 2));
        const auto from = fromText.empty() ? std::optional<std::chrono::sys_days>{} : ParseDate(fromText);
        const auto to = toText.empty() ? std::optional<std::chrono::sys_days>{} : ParseDate(toText);
        if ((!fromText.empty() && !from) || (!toText.empty() && !to)) {
            malformed = malformed.value_or(alternative);
            continue;
        }
        if ((!from || *from <= day) && (!to || day <= *to)) {
            return std::nullopt;
        }
    }
    if (malformed) {
        return Malformed(L"date_range", *malformed, L"a date range");
    }
    return Mismatch(L"date_range", wanted, FormatDate(today));
}

// The first field of the rule that does not hold, in the order of ApplicabilityFilter.
Failure FirstFailure(const ApplicabilityFilter& rule, const MachineFacts& facts, const std::wstring& targetVersion,
                     const std::vector<KeyValuePair>& tags)
{
    const std::optional<std::wstring> target = Trim(targetVersion).empty() ? std::nullopt
                                                                          : std::optional<std::wstring>(targetVersion);
    // "value" is never compared: it is what the rule's author calls the rule.
    const std::vector<std::pair<const std::wstring*, std::function<Failure(const std::wstring&)>>> fields = {
        {&rule.defaultValue, [&](const std::wstring& w) { return MatchDefault(w); }},
        {&rule.mfr, [&](const std::wstring& w) { return MatchText(L"mfr", w, facts.mfr); }},
        {&rule.family, [&](const std::wstring& w) { return MatchText(L"family", w, facts.family); }},
        {&rule.model, [&](const std::wstring& w) { return MatchText(L"model", w, facts.model); }},
        {&rule.sku, [&](const std::wstring& w) { return MatchText(L"sku", w, facts.sku); }},
        {&rule.tag, [&](const std::wstring& w) { return MatchTag(w, facts.tags, tags); }},
        {&rule.country, [&](const std::wstring& w) { return MatchText(L"country", w, facts.country); }},
        {&rule.language, [&](const std::wstring& w) { return MatchText(L"language", w, facts.language); }},
        {&rule.os, [&](const std::wstring& w) { return MatchOs(w, facts.os); }},
        {&rule.os_bitness, [&](const std::wstring& w) { return MatchText(L"os_bitness", w, facts.osBitness); }},
        {&rule.enclosure, [&](const std::wstring& w) { return MatchEnclosure(w, facts.enclosure); }},
        {&rule.os_description,
         [&](const std::wstring& w) { return MatchText(L"os_description", w, facts.osDescription); }},
        {&rule.device_subscription, [&](const std::wstring& w) { return Unanswered(L"device_subscription", w); }},
        {&rule.version, [&](const std::wstring& w) { return MatchVersion(L"version", w, facts.osVersion); }},
        {&rule.os_version, [&](const std::wstring& w) { return MatchVersion(L"os_version", w, facts.osVersion); }},
        {&rule.target_version, [&](const std::wstring& w) { return MatchVersion(L"target_version", w, target); }},
        {&rule.sn_hash, [&](const std::wstring& w) { return Unanswered(L"sn_hash", w); }},
        {&rule.org_hash, [&](const std::wstring& w) { return Unanswered(L"org_hash", w); }},
        {&rule.date_range, [&](const std::wstring& w) { return MatchDateRange(w, facts.today); }},
        {&rule.date_function, [&](const std::wstring& w) { return Unanswered(L"date_function", w); }},
        {&rule.installed_items, [&](const std::wstring& w) { return Unanswered(L"installed_items", w); }},
        {&rule.registry, [&](const std::wstring& w) { return Unanswered(L"registry", w); }},
        {&rule.hardware_id, [&](const std::wstring& w) { return Unanswered(L"hardware_id", w); }},
    };
    for (const auto& [value, match] : fields) {
        if (Alternatives(*value).empty()) {
            continue;  // absent or blank: not part of the rule
        }
        if (Failure failure = match(Trim(*value))) {
            return failure;
        }
    }
    return std::nullopt;
}

}  // namespace

ApplicabilityEvaluator::ApplicabilityEvaluator() : readFacts_([] { return MachineFacts::Read(); }) {}

ApplicabilityEvaluator::ApplicabilityEvaluator(MachineFacts facts)
    : facts_(std::make_shared<const MachineFacts>(std::move(facts)))
{
}

std::shared_ptr<ApplicabilityEvaluator> ApplicabilityEvaluator::GetInstance()
{
    return Platform::Evaluator();
}

std::shared_ptr<const MachineFacts> ApplicabilityEvaluator::Facts()
{
    std::lock_guard<std::mutex> lock(factsMutex_);
    const auto now = std::chrono::steady_clock::now();
    if (readFacts_ && (!facts_ || now - factsRead_ >= kFactsLife)) {
        facts_ = std::make_shared<const MachineFacts>(readFacts_());
        factsRead_ = now;
    }
    return facts_;
}

bool ApplicabilityEvaluator::EvaluateFilters(std::vector<ApplicabilityFilter> filters,
                                             const std::wstring& targetVersion,
                                             const std::vector<KeyValuePair>& tags, std::wstring& reason)
{
    reason.clear();
    if (filters.empty()) {
        return true;
    }
    const auto facts = Facts();
    for (size_t i = 0; i < filters.size(); ++i) {
        if (Failure failure = FirstFailure(filters[i], *facts, targetVersion, tags)) {
            reason = L"rule " + std::to_wstring(i + 1) + L": " + *failure;
            return false;
        }
    }
    return true;
}

}  // namespace VEQ
