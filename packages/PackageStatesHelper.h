#pragma once
// The states a package passes through as the update engine stores them (registry value
// PackageState), and the questions asked about them. Not the status words of package events:
// a failed installation is "install_fail" here and "install_failed" there.

#include <string>

namespace VEQ {

class PackageStatesHelper {
public:
    static const std::wstring NOT_DEFINED;
    static const std::wstring INSTALLED_SUCCESS;
    static const std::wstring DOWNLOAD_ERROR;
    static const std::wstring INSTALL_FAIL;
    static const std::wstring PACKAGE_DOWNLOADING;
    static const std::wstring DOWNLOAD_SUCCESS;
    static const std::wstring PACKAGE_INSTALLING;
    static const std::wstring PENDING_INSTALL;
    static const std::wstring PENDING_DOWNLOAD;

    // Exact comparisons: letter case counts.
    static bool InstallationFailed(const std::wstring& state);
    static bool IsDownloadFailed(const std::wstring& state);
    static bool IsInstallationComplete(const std::wstring& state);
    static bool PackageDownloadInProcess(const std::wstring& state);
    static bool PackageProcessingInProgress(const std::wstring& state);
};

}  // namespace VEQ
