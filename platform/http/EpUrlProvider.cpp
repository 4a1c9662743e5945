#include "platform/http/EpUrlProvider.h"

namespace VEQ {

EpUrlProvider* EpUrlProvider::GetInstance()
{
    static EpUrlProvider* instance = new EpUrlProvider();
    return instance;
}

int EpUrlProvider::GetRealm(std::wstring& realm)
{
    std::lock_guard<std::mutex> lock(mutex_);
    realm = realm_;
    return realm_.empty() ? kNotSet : kOk;
}

void EpUrlProvider::SetRealm(const std::wstring& realm)
{
    std::lock_guard<std::mutex> lock(mutex_);
    realm_ = realm;
}

}  // namespace VEQ
