#include "platform/resources/ResourceLoaderUtility.h"

#include "platform/elf/ElfSectionReader.h"
#include "platform/fs/FileSystem.h"
#include "platform/fs/PathMapper.h"
#include "platform/string/String.h"

namespace VEQ {
namespace {

// A type names a folder or a section: letters, digits, '_' and '-' only.
bool IsPlainType(const std::wstring& type)
{
    if (type.empty()) {
        return false;
    }
    for (wchar_t c : type) {
        const bool plain = (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') ||
                           c == L'_' || c == L'-';
        if (!plain) {
            return false;
        }
    }
    return true;
}

}  // namespace

ResourceLoaderUtility* ResourceLoaderUtility::GetInstance()
{
    static ResourceLoaderUtility* instance = new ResourceLoaderUtility();
    return instance;
}

bool ResourceLoaderUtility::LoadCustomResource(std::wstring& text, int id, const std::wstring& type)
{
    text.clear();
    if (!IsPlainType(type) || id < 0) {
        return false;
    }
    const std::wstring path =
        FileSystem::GetSystemFolderPath() + L"/resources/" + type + L"/" + std::to_wstring(id) + L".json";
    if (!FileSystem::readAllText(path, text, kMaxResourceBytes)) {
        text.clear();
        return false;
    }
    return true;
}

bool ResourceLoaderUtility::LoadCustomResourceFromFile(std::wstring& text, const std::wstring& path, int id,
                                                       const std::wstring& type)
{
    text.clear();
    if (!IsPlainType(type) || id < 0) {
        return false;
    }
    const std::string section = ".veq.res." + String::UTF16ToUTF8(type) + "." + std::to_string(id);
    std::string bytes;
    std::string error;
    if (!ElfSectionReader::ReadSection(PathMapper::ToNativeUtf8(path), section, kMaxResourceBytes, bytes, error)) {
        return false;
    }
    text = String::UTF8ToUTF16(bytes);
    return true;
}

}  // namespace VEQ
