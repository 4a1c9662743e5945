#include "platform/fs/LinuxFileSystem.h"

#include "platform/string/String.h"

#include <algorithm>
#include <deque>
#include <filesystem>

namespace fs = std::filesystem;

namespace VEQ {
namespace {

// Wide text goes to disk as UTF-8 whatever the process locale is.
fs::path ToPath(const std::wstring& path)
{
    return fs::path(String::UTF16ToUTF8(path));
}

std::wstring NameOf(const fs::path& path)
{
    return String::UTF8ToUTF16(path.filename().string());
}

wchar_t LowerAscii(wchar_t c)
{
    return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

// '*' and '?' wildcards, ignoring ASCII case as the masks' authors expect; "*.*" means every name.
bool MatchesMask(std::wstring_view name, std::wstring_view mask)
{
    if (mask == L"*.*") {
        return true;
    }
    size_t n = 0;
    size_t m = 0;
    size_t starMask = std::wstring_view::npos;
    size_t starName = 0;
    while (n < name.size()) {
        if (m < mask.size() && (mask[m] == L'?' || LowerAscii(mask[m]) == LowerAscii(name[n]))) {
            ++n;
            ++m;
        } else if (m < mask.size() && mask[m] == L'*') {
            starMask = m++;
            starName = n;
        } else if (starMask != std::wstring_view::npos) {
            m = starMask + 1;
            n = ++starName;
        } else {
            return false;
        }
    }
    while (m < mask.size() && mask[m] == L'*') {
        ++m;
    }
    return m == mask.size();
}

// Calls visit(entry) for each entry of folder; false when the folder cannot be read.
template <typename Visit>
bool ForEachEntry(const fs::path& folder, Visit visit)
{
    std::error_code error;
    fs::directory_iterator it(folder, error);
    if (error) {
        return false;
    }
    for (const fs::directory_iterator end; it != end; it.increment(error)) {
        if (error) {
            return false;
        }
        visit(*it);
    }
    return !error;
}

bool IsDirectoryNotLink(const fs::directory_entry& entry)
{
    std::error_code error;
    return entry.is_directory(error) && !entry.is_symlink(error);
}

}  // namespace

bool LinuxFileSystem::fileExists(const std::wstring& path)
{
    std::error_code error;
    const fs::file_status status = fs::status(ToPath(path), error);
    return fs::exists(status) && !fs::is_directory(status);
}

bool LinuxFileSystem::directoryExists(const std::wstring& path)
{
    std::error_code error;
    return fs::is_directory(ToPath(path), error);
}

bool LinuxFileSystem::createDirectory(const std::wstring& path, bool recursive)
{
    std::error_code error;
    const fs::path target = ToPath(path);
    if (recursive) {
        fs::create_directories(target, error);
    } else {
        fs::create_directory(target, error);
    }
    return fs::is_directory(target, error);
}

bool LinuxFileSystem::deleteDirectoryOrFile(const std::wstring& path, bool recursive)
{
    std::error_code error;
    const fs::path target = ToPath(path);
    const fs::file_status status = fs::symlink_status(target, error);
    if (!fs::exists(status)) {
        return status.type() == fs::file_type::not_found;
    }
    if (fs::is_directory(status) && recursive) {
        return fs::remove_all(target, error) != static_cast<std::uintmax_t>(-1) && !error;
    }
    return fs::remove(target, error) && !error;
}

bool LinuxFileSystem::copyFile(const std::wstring& from, const std::wstring& to)
{
    std::error_code error;
    return fs::copy_file(ToPath(from), ToPath(to), fs::copy_options::overwrite_existing, error) && !error;
}

bool LinuxFileSystem::copyDir(const std::wstring& from, const std::wstring& to)
{
    std::error_code error;
    const fs::path source = ToPath(from);
    if (!fs::is_directory(source, error)) {
        return false;
    }
    fs::copy(source, ToPath(to), fs::copy_options::recursive | fs::copy_options::overwrite_existing, error);
    return !error;
}

bool LinuxFileSystem::removeFile(const std::wstring& path)
{
    std::error_code error;
    const fs::path target = ToPath(path);
    const fs::file_status status = fs::symlink_status(target, error);
    if (!fs::exists(status)) {
        return status.type() == fs::file_type::not_found;
    }
    if (fs::is_directory(status)) {
        return false;
    }
    return fs::remove(target, error) && !error;
}

std::vector<std::wstring> LinuxFileSystem::GetFileList(const std::wstring& folderOrMask)
{
    // Callers written for Windows paths put a backslash before the mask; read it as a separator there only.
    std::wstring folder = folderOrMask;
    std::wstring mask;
    const size_t separator = folderOrMask.find_last_of(L"/\\");
    const std::wstring last = folderOrMask.substr(separator == std::wstring::npos ? 0 : separator + 1);
    if (last.find_first_of(L"*?") != std::wstring::npos) {
        mask = last;
        folder = separator == std::wstring::npos ? L"." : folderOrMask.substr(0, separator);
    }
    std::vector<std::wstring> names;
    ForEachEntry(ToPath(folder), [&](const fs::directory_entry& entry) {
        std::error_code error;
        const std::wstring name = NameOf(entry.path());
        if (!entry.is_directory(error) && (mask.empty() || MatchesMask(name, mask))) {
            names.push_back(name);
        }
    });
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::wstring> LinuxFileSystem::GetDirectoriesForFolder(const std::wstring& folder)
{
    std::vector<std::wstring> names;
    ForEachEntry(ToPath(folder), [&](const fs::directory_entry& entry) {
        std::error_code error;
        if (entry.is_directory(error)) {
            names.push_back(NameOf(entry.path()));
        }
    });
    std::sort(names.begin(), names.end());
    return names;
}

bool LinuxFileSystem::FindDirectoryInDirectoryTree(const std::wstring& root, const std::wstring& name,
                                                   std::wstring& found)
{
    // Breadth first, so the shallowest match wins; links to directories are not followed, so a
    // link back up the tree cannot loop.
    std::deque<fs::path> folders{ToPath(root)};
    while (!folders.empty()) {
        const fs::path folder = folders.front();
        folders.pop_front();
        std::vector<fs::path> children;
        ForEachEntry(folder, [&](const fs::directory_entry& entry) {
            if (IsDirectoryNotLink(entry)) {
                children.push_back(entry.path());
            }
        });
        std::sort(children.begin(), children.end());
        for (const fs::path& child : children) {
            if (String::CaseInsesitiveEqual(NameOf(child), name)) {
                found = String::UTF8ToUTF16(child.string());
                return true;
            }
            folders.push_back(child);
        }
    }
    return false;
}

}  // namespace VEQ
