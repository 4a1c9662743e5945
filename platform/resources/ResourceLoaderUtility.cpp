#include "platform/resources/ResourceLoaderUtility.h"

namespace VEQ {

ResourceLoaderUtility* ResourceLoaderUtility::GetInstance()
{
    static ResourceLoaderUtility* instance = new ResourceLoaderUtility();
    return instance;
}

bool ResourceLoaderUtility::LoadCustomResource(std::wstring& text, int /*id*/, const std::wstring& /*type*/)
{
    text.clear();
    return false;
}

bool ResourceLoaderUtility::LoadCustomResourceFromFile(std::wstring& text, const std::wstring& /*path*/, int /*id*/,
                                                       const std::wstring& /*type*/)
{
    text.clear();
    return false;
}

}  // namespace VEQ
