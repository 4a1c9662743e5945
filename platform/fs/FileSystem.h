#pragma once
// The file operations the module calls by name. Each forwards to the IFileSystem installed by
// Platform, so tests can put a double behind them. See IFileSystem for the meaning of each.
// Paths are taken as the module builds them and put on disk by PathMapper.

#include <cstddef>
#include <string>
#include <vector>

namespace VEQ {

class CVersion;

class FileSystem {
public:
    // The roots the module builds its paths below (Platform's systemRoot and commonDataRoot).
    static std::wstring GetSystemFolderPath();
    static std::wstring GetCommonApplicationDataPath();

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
    // found is root as given, a separator (the one root uses), and the path below it.
    static bool FindDirectoryInDirectoryTree(const std::wstring& root, const std::wstring& name, std::wstring& found);

    // The version embedded in an ELF file (section ".veq.version", "a.b.c.d"), read without
    // loading the file. False when the file has none or cannot be read.
    static bool GetFileVersion(const std::wstring& path, CVersion& version);

    // A UTF-8 text file, whole, as wide text. False when it cannot be opened or read, or is
    // larger than maxBytes.
    static bool readAllText(const std::wstring& path, std::wstring& content, size_t maxBytes);

    // The path without its last component, by text alone: "/a/b/c.txt" and "/a/b/c/" give "/a/b",
    // "/c" gives "/", and a bare name gives "". Backslashes separate as slashes do.
    static std::wstring getDirectoryName(const std::wstring& path);
};

}  // namespace VEQ
