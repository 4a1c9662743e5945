#pragma once
// What the service needs of the file system. Paths are wide strings; on Linux they are UTF-8 on
// disk. No operation throws: failures are reported by the result.

#include <string>
#include <vector>

namespace VEQ {

class IFileSystem {
public:
    virtual ~IFileSystem() = default;

    // True for anything that exists and is not a directory (regular files, sockets, ...).
    virtual bool fileExists(const std::wstring& path) = 0;
    virtual bool directoryExists(const std::wstring& path) = 0;
    // True when the directory exists afterwards; recursive creates missing parents too.
    virtual bool createDirectory(const std::wstring& path, bool recursive) = 0;
    // True when nothing is left at path, including when nothing was there. A directory with
    // content needs recursive. Symbolic links are removed, never followed.
    virtual bool deleteDirectoryOrFile(const std::wstring& path, bool recursive) = 0;
    // Copies a file, replacing the destination.
    virtual bool copyFile(const std::wstring& from, const std::wstring& to) = 0;
    // Copies a directory tree, replacing files that exist at the destination.
    virtual bool copyDir(const std::wstring& from, const std::wstring& to) = 0;
    // Removes a file that is not a directory; true when it is gone, also when it never existed.
    virtual bool removeFile(const std::wstring& path) = 0;

    // Names (not paths) of the entries that are not directories in a folder, sorted. The last
    // component may be a mask with '*' and '?', as in "<folder>/*.json". Empty when unreadable.
    virtual std::vector<std::wstring> GetFileList(const std::wstring& folderOrMask) = 0;
    // Names of the subdirectories of a folder, sorted.
    virtual std::vector<std::wstring> GetDirectoriesForFolder(const std::wstring& folder) = 0;
    // The first directory named name (ASCII letters in any case) at any depth below root, breadth first.
    virtual bool FindDirectoryInDirectoryTree(const std::wstring& root, const std::wstring& name,
                                              std::wstring& found) = 0;
};

}  // namespace VEQ
