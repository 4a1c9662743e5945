#include "platform/fs/FileSystem.h"

#include "platform/Platform.h"
#include "platform/elf/ElfSectionReader.h"
#include "platform/fs/IFileSystem.h"
#include "platform/fs/PathMapper.h"
#include "platform/string/String.h"
#include "platform/util/CVersion.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

int AppendAll(std::vector<std::wstring>&& found, std::vector<std::wstring>& names)
{
    names.insert(names.end(), std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
    return static_cast<int>(found.size());
}

std::wstring Native(const std::wstring& path)
{
    return PathMapper::ToNative(path);
}

bool IsSeparator(wchar_t c)
{
    return c == L'/' || c == L'\\';
}

constexpr size_t kVersionSectionLimit = 64;

}  // namespace

std::wstring FileSystem::GetSystemFolderPath()
{
    return Platform::Paths().systemRoot;
}

std::wstring FileSystem::GetCommonApplicationDataPath()
{
    return Platform::Paths().commonDataRoot;
}

bool FileSystem::fileExists(const std::wstring& path)
{
    return Platform::FileSystem()->fileExists(Native(path));
}

bool FileSystem::directoryExists(const std::wstring& path)
{
    return Platform::FileSystem()->directoryExists(Native(path));
}

bool FileSystem::createDirectory(const std::wstring& path, bool recursive)
{
    return Platform::FileSystem()->createDirectory(Native(path), recursive);
}

bool FileSystem::deleteDirectoryOrFile(const std::wstring& path, bool recursive)
{
    return Platform::FileSystem()->deleteDirectoryOrFile(Native(path), recursive);
}

bool FileSystem::copyFile(const std::wstring& from, const std::wstring& to)
{
    return Platform::FileSystem()->copyFile(Native(from), Native(to));
}

bool FileSystem::copyDir(const std::wstring& from, const std::wstring& to)
{
    return Platform::FileSystem()->copyDir(Native(from), Native(to));
}

std::vector<std::wstring> FileSystem::GetFileList(const std::wstring& folderOrMask)
{
    return Platform::FileSystem()->GetFileList(Native(folderOrMask));
}

std::vector<std::wstring> FileSystem::GetDirectoriesForFolder(const std::wstring& folder)
{
    return Platform::FileSystem()->GetDirectoriesForFolder(Native(folder));
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
    const std::wstring nativeRoot = Native(root);
    std::wstring nativeFound;
    if (!Platform::FileSystem()->FindDirectoryInDirectoryTree(nativeRoot, name, nativeFound)) {
        return false;
    }
    // Give the path back in the caller's spelling, so that it compares with paths the caller builds.
    std::wstring below = nativeFound.substr(std::min(nativeFound.size(), nativeRoot.size()));
    while (!below.empty() && below.front() == L'/') {
        below.erase(0, 1);
    }
    const wchar_t separator = root.find(L'\\') != std::wstring::npos ? L'\\' : L'/';
    if (separator == L'\\') {
        std::replace(below.begin(), below.end(), L'/', L'\\');
    }
    found = root;
    if (found.empty() || !IsSeparator(found.back())) {
        found += separator;
    }
    found += below;
    return true;
}

bool FileSystem::GetFileVersion(const std::wstring& path, CVersion& version)
{
    std::string text;
    std::string error;
    if (!ElfSectionReader::ReadSection(PathMapper::ToNativeUtf8(path), ".veq.version", kVersionSectionLimit, text,
                                       error)) {
        return false;
    }
    while (!text.empty() && (text.back() == '\0' || text.back() == '\n')) {
        text.pop_back();
    }
    return version.Parse(String::UTF8ToUTF16(text));
}

bool FileSystem::readAllText(const std::wstring& path, std::wstring& content, size_t maxBytes)
{
    const int fd = open(PathMapper::ToNativeUtf8(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    struct stat status {};
    bool done = fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && static_cast<size_t>(status.st_size) <= maxBytes;
    std::string bytes;
    while (done) {
        char buffer[65536];
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got < 0) {
            done = errno == EINTR;
            continue;
        }
        if (got == 0) {
            break;
        }
        bytes.append(buffer, static_cast<size_t>(got));
        done = bytes.size() <= maxBytes;  // the file may have grown since fstat
    }
    close(fd);
    if (done) {
        content = String::UTF8ToUTF16(bytes);
    }
    return done;
}

std::wstring FileSystem::getDirectoryName(const std::wstring& path)
{
    const wchar_t* separators = L"/\\";
    size_t end = path.find_last_not_of(separators);
    if (end == std::wstring::npos) {
        return path.empty() ? L"" : path.substr(0, 1);
    }
    const size_t separator = path.find_last_of(separators, end);
    if (separator == std::wstring::npos) {
        return L"";
    }
    const size_t parentEnd = path.find_last_not_of(separators, separator);
    return parentEnd == std::wstring::npos ? path.substr(0, 1) : path.substr(0, parentEnd + 1);
}

}  // namespace VEQ
