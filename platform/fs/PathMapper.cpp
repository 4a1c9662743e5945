#include "platform/fs/PathMapper.h"

#include "platform/Platform.h"
#include "platform/string/String.h"

#include <vector>

namespace VEQ {
namespace {

// One fixed folder below a root and the fixed folders below it.
struct FixedFolder {
    const wchar_t* name;
    std::vector<FixedFolder> children;
};

const std::vector<FixedFolder>& SystemLayout()
{
    static const std::vector<FixedFolder> layout{
        {L"Service", {{L"Hosts", {{L"x64", {}}, {L"ARM64", {}}}}}},
        {L"EmbeddedPlugins", {}},
        {L"AddOnPlugins", {}},
        {L"resources", {}},
    };
    return layout;
}

const std::vector<FixedFolder>& CommonLayout()
{
    static const std::vector<FixedFolder> layout{
        {L"plugin-repository", {}},
        {L"Hosts", {{L"x64", {}}, {L"ARM64", {}}}},
    };
    return layout;
}

std::vector<std::wstring> Components(const std::wstring& path)
{
    std::vector<std::wstring> parts;
    std::wstring part;
    for (wchar_t c : path) {
        if (c == L'/' || c == L'\\') {
            if (!part.empty()) {
                parts.push_back(std::move(part));
                part.clear();
            }
        } else {
            part += c;
        }
    }
    if (!part.empty()) {
        parts.push_back(std::move(part));
    }
    return parts;
}

std::wstring Joined(const std::vector<std::wstring>& parts, size_t from, bool absolute, bool trailing)
{
    std::wstring path = absolute ? L"/" : L"";
    for (size_t n = from; n < parts.size(); ++n) {
        if (n > from) {
            path += L'/';
        }
        path += parts[n];
    }
    if (trailing && from < parts.size()) {
        path += L'/';
    }
    return path;
}

// The length of root's components at the start of parts; 0 when parts is not below root.
size_t RootLength(const std::vector<std::wstring>& parts, const std::vector<std::wstring>& root)
{
    if (root.empty() || parts.size() < root.size()) {
        return 0;
    }
    for (size_t n = 0; n < root.size(); ++n) {
        if (parts[n] != root[n]) {
            return 0;
        }
    }
    return root.size();
}

// Drops the Windows product folder after the root and folds the fixed names below it.
std::vector<std::wstring> Mapped(std::vector<std::wstring> parts, size_t rootLength,
                                 std::initializer_list<const wchar_t*> productFolder,
                                 const std::vector<FixedFolder>& layout)
{
    size_t next = rootLength;
    size_t matched = 0;
    for (const wchar_t* name : productFolder) {
        if (next + matched < parts.size() && String::CaseInsesitiveEqual(parts[next + matched], name)) {
            ++matched;
        } else {
            break;
        }
    }
    if (matched == productFolder.size()) {
        parts.erase(parts.begin() + static_cast<std::ptrdiff_t>(next),
                    parts.begin() + static_cast<std::ptrdiff_t>(next + matched));
    }
    const std::vector<FixedFolder>* level = &layout;
    for (size_t n = next; n < parts.size() && level != nullptr; ++n) {
        const std::vector<FixedFolder>* deeper = nullptr;
        for (const FixedFolder& folder : *level) {
            if (String::CaseInsesitiveEqual(parts[n], folder.name)) {
                parts[n] = folder.name;
                deeper = &folder.children;
                break;
            }
        }
        level = deeper;
    }
    return parts;
}

}  // namespace

std::wstring PathMapper::ToNative(const std::wstring& path)
{
    if (path.find(L'\\') == std::wstring::npos) {
        return path;
    }
    const PlatformPaths paths = Platform::Paths();
    return ToNative(path, paths.systemRoot, paths.commonDataRoot);
}

std::wstring PathMapper::ToNative(const std::wstring& path, const std::wstring& systemRoot,
                                  const std::wstring& commonDataRoot)
{
    // Paths built on Linux (no backslash) are already native; only the design's literals need mapping.
    if (path.find(L'\\') == std::wstring::npos) {
        return path;
    }
    const bool absolute = path.front() == L'/' || path.front() == L'\\';
    const bool trailing = path.back() == L'/' || path.back() == L'\\';
    std::vector<std::wstring> parts = Components(path);
    const std::vector<std::wstring> system = Components(systemRoot);
    const std::vector<std::wstring> common = Components(commonDataRoot);
    // The longer root first: the common data root may lie below the system root or the other way.
    const size_t systemLength = RootLength(parts, system);
    const size_t commonLength = RootLength(parts, common);
    if (systemLength > 0 && systemLength >= commonLength) {
        parts = Mapped(std::move(parts), systemLength, {L"drivers", L"Tavrin", L"VEQ"}, SystemLayout());
    } else if (commonLength > 0) {
        parts = Mapped(std::move(parts), commonLength, {L"Tavrin", L"Veq"}, CommonLayout());
    }
    if (parts.empty()) {
        return absolute ? L"/" : L"";
    }
    return Joined(parts, 0, absolute, trailing);
}

std::string PathMapper::ToNativeUtf8(const std::wstring& path)
{
    return String::UTF16ToUTF8(ToNative(path));
}

}  // namespace VEQ
