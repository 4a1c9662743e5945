#include "platform/fs/FileSystem.h"

#include "platform/Platform.h"
#include "platform/fs/IFileSystem.h"

namespace VEQ {
namespace {

int AppendAll(std::vector<std::wstring>&& found, std::vector<std::wstring>& names)
{
    names.insert(names.end(), std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
    return static_cast<int>(found.size());
}

}  // namespace

bool FileSystem::fileExists(const std::wstring& path)
{
    return Platform::FileSystem()->fileExists(path);
}

bool FileSystem::directoryExists(const std::wstring& path)
{
    return Platform::FileSystem()->directoryExists(path);
}

bool FileSystem::createDirectory(const std::wstring& path, bool recursive)
{
    return Platform::FileSystem()->createDirectory(path, recursive);
}

bool FileSystem::deleteDirectoryOrFile(const std::wstring& path, bool recursive)
{
    return Platform::FileSystem()->deleteDirectoryOrFile(path, recursive);
}

bool FileSystem::copyFile(const std::wstring& from, const std::wstring& to)
{
    return Platform::FileSystem()->copyFile(from, to);
}

bool FileSystem::copyDir(const std::wstring& from, const std::wstring& to)
{
    return Platform::FileSystem()->copyDir(from, to);
}

std::vector<std::wstring> FileSystem::GetFileList(const std::wstring& folderOrMask)
{
    return Platform::FileSystem()->GetFileList(folderOrMask);
}

std::vector<std::wstring> FileSystem::GetDirectoriesForFolder(const std::wstring& folder)
{
    return Platform::FileSystem()->GetDirectoriesForFolder(folder);
}

int FileSystem::GetFileList(const std::wstring& folderOrMask, std::vector<std::wstring>& names)
{
    return AppendAll(GetFileList(folderOrMask), names);
}

int FileSystem::GetDirectoriesForFolder(const std::wstring& folder, std::vector<std::wstring>& names)
{
    return AppendAll(GetDirectoriesForFolder(folder), names);
}

bool FileSystem::FindDirectoryInDirectoryTree(const std::wstring& root, const std::wstring& name, std::wstring& found)
{
    return Platform::FileSystem()->FindDirectoryInDirectoryTree(root, name, found);
}

std::wstring FileSystem::getDirectoryName(const std::wstring& path)
{
    size_t end = path.find_last_not_of(L'/');
    if (end == std::wstring::npos) {
        return path.empty() ? L"" : L"/";
    }
    const size_t separator = path.find_last_of(L'/', end);
    if (separator == std::wstring::npos) {
        return L"";
    }
    const size_t parentEnd = path.find_last_not_of(L'/', separator);
    return parentEnd == std::wstring::npos ? L"/" : path.substr(0, parentEnd + 1);
}

}  // namespace VEQ
