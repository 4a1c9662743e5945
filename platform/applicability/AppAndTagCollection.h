#pragma once
// The device's applicability tags: those persisted in the registry, which survive restarts and
// are written by commands such as the warranty lookup, and those the host keeps in memory for
// the running service only.

#include "platform/applicability/VEQTag.h"

#include <mutex>
#include <vector>

namespace VEQ {

class AppAndTagCollection {
public:
    // Under HKEY_LOCAL_MACHINE; each string value is one tag, named by the value's name.
    static constexpr const wchar_t* kTagsKey = L"SOFTWARE\\Tavrin\\VEQ\\Applicability\\Tags";

    static AppAndTagCollection* GetInstance();

    AppAndTagCollection(const AppAndTagCollection&) = delete;
    AppAndTagCollection& operator=(const AppAndTagCollection&) = delete;

    // The registry's tags in the order of their names (DWORD values are no tags), then the
    // memory tags in the order they were given. A name may occur in both.
    std::vector<VEQTag> getTagsFromRegistryAndMemory();

    void AddTag(const VEQTag& tag);
    // Replaces all memory tags.
    void SetTags(std::vector<VEQTag> tags);

private:
    AppAndTagCollection() = default;
    ~AppAndTagCollection() = default;

    std::mutex mutex_;  // guards memoryTags_
    std::vector<VEQTag> memoryTags_;
};

}  // namespace VEQ
