#include "platform/applicability/AppAndTagCollection.h"

#include "platform/Platform.h"
#include "platform/registry/IRegistryStore.h"

namespace VEQ {

AppAndTagCollection* AppAndTagCollection::GetInstance()
{
    static AppAndTagCollection* instance = new AppAndTagCollection();  // handlers may still run while statics go
    return instance;
}

std::vector<VEQTag> AppAndTagCollection::getTagsFromRegistryAndMemory()
{
    std::vector<VEQTag> tags;
    if (const auto store = Platform::Registry()) {
        for (const auto& name : store->ValueNames(HKEY_LOCAL_MACHINE, kTagsKey)) {
            // A value removed since the names were listed is simply no longer a tag.
            if (auto value = store->GetString(HKEY_LOCAL_MACHINE, kTagsKey, name)) {
                tags.emplace_back(name, std::move(*value));
            }
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    tags.insert(tags.end(), memoryTags_.begin(), memoryTags_.end());
    return tags;
}

void AppAndTagCollection::AddTag(const VEQTag& tag)
{
    std::lock_guard<std::mutex> lock(mutex_);
    memoryTags_.push_back(tag);
}

void AppAndTagCollection::SetTags(std::vector<VEQTag> tags)
{
    std::lock_guard<std::mutex> lock(mutex_);
    memoryTags_ = std::move(tags);
}

}  // namespace VEQ
