#pragma once
// The file operations the module calls by name. Each forwards to the IFileSystem installed by
// Platform, so tests can put a double behind them. See IFileSystem for the meaning of each.

#include <string>
#include <vector>

namespace VEQ {

class FileSystem {
public:
    static bool fileExists(const std::wstring& path);
    static bool directoryExists(const std::wstring& path);
    static bool createDirectory(const std::wstring& path, bool recursive);
    static bool deleteDirectoryOrFile(const std::wstring& path, bool recursive);
    static bool copyFile(const std::wstring& from, const std::wstring& to);
    static bool copyDir(const std::wstring& from, const std::wstring& to);

    static std::vector<std::wstring> GetFileList(const std::wstring& folderOrMask);
    static std::vector<std::wstring> GetDirectoriesForFolder(const std::wstring& folder);
    // The same lists appended to names; the result is the number appended.
    static int GetFileList(const std::wstring& folderOrMask, std::vector<std::wstring>& names);
    static int GetDirectoriesForFolder(const std::wstring& folder, std::vector<std::wstring>& names);
    static bool FindDirectoryInDirectoryTree(const std::wstring& root, const std::wstring& name, std::wstring& found);

    // The path without its last component, by text alone: "/a/b/c.txt" and "/a/b/c/" give "/a/b",
    // "/c" gives "/", and a bare name gives "".
    static std::wstring getDirectoryName(const std::wstring& path);
};

}  // namespace VEQ
