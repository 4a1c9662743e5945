#pragma once
// The file system as std::filesystem sees it, without exceptions.

#include "platform/fs/IFileSystem.h"

namespace VEQ {

class LinuxFileSystem : public IFileSystem {
public:
    bool fileExists(const std::wstring& path) override;
    bool directoryExists(const std::wstring& path) override;
    bool createDirectory(const std::wstring& path, bool recursive) override;
    bool deleteDirectoryOrFile(const std::wstring& path, bool recursive) override;
    bool copyFile(const std::wstring& from, const std::wstring& to) override;
    bool copyDir(const std::wstring& from, const std::wstring& to) override;
    bool removeFile(const std::wstring& path) override;
    std::vector<std::wstring> GetFileList(const std::wstring& folderOrMask) override;
    std::vector<std::wstring> GetDirectoriesForFolder(const std::wstring& folder) override;
    bool FindDirectoryInDirectoryTree(const std::wstring& root, const std::wstring& name,
                                      std::wstring& found) override;
};

}  // namespace VEQ
