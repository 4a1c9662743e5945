#include "packages/PackageStatesHelper.h"

#include <unordered_set>

namespace VEQ {

const std::wstring PackageStatesHelper::NOT_DEFINED = L"notDefined";
const std::wstring PackageStatesHelper::INSTALLED_SUCCESS = L"installed";
const std::wstring PackageStatesHelper::DOWNLOAD_ERROR = L"download_error";
const std::wstring PackageStatesHelper::INSTALL_FAIL = L"install_fail";
const std::wstring PackageStatesHelper::PACKAGE_DOWNLOADING = L"downloading";
const std::wstring PackageStatesHelper::DOWNLOAD_SUCCESS = L"downloaded";
const std::wstring PackageStatesHelper::PACKAGE_INSTALLING = L"installing";
const std::wstring PackageStatesHelper::PENDING_INSTALL = L"pending_install";
const std::wstring PackageStatesHelper::PENDING_DOWNLOAD = L"pending_download";

bool PackageStatesHelper::InstallationFailed(const std::wstring& state)
{
    return state == INSTALL_FAIL;
}

bool PackageStatesHelper::IsDownloadFailed(const std::wstring& state)
{
    return state == DOWNLOAD_ERROR;
}

bool PackageStatesHelper::IsInstallationComplete(const std::wstring& state)
{
    return state == INSTALLED_SUCCESS;
}

bool PackageStatesHelper::PackageDownloadInProcess(const std::wstring& state)
{
    static const std::unordered_set<std::wstring> downloadStates = {PACKAGE_DOWNLOADING, PENDING_DOWNLOAD};
    return downloadStates.count(state) != 0;
}

bool PackageStatesHelper::PackageProcessingInProgress(const std::wstring& state)
{
    static const std::unordered_set<std::wstring> installStates = {PACKAGE_DOWNLOADING, DOWNLOAD_SUCCESS,
                                                                   PACKAGE_INSTALLING, PENDING_INSTALL, PENDING_DOWNLOAD};
    return installStates.count(state) != 0;
}

}  // namespace VEQ
