#include "packages/PackageStatesHelper.h"
#include "packages/StartPackageOperationCommandResponse.h"

#include <gtest/gtest.h>

namespace VEQ {
namespace {

TEST(PackageStatesHelperTest, EachQuestionKnowsItsStatesExactly)
{
    using H = PackageStatesHelper;
    struct Row {
        std::wstring state;
        bool failed, downloadFailed, complete, downloading, inProgress;
    };
    const Row rows[] = {
        {L"install_fail", true, false, false, false, false},
        {L"download_error", false, true, false, false, false},
        {L"installed", false, false, true, false, false},
        {L"downloading", false, false, false, true, true},
        {L"pending_download", false, false, false, true, true},
        {L"downloaded", false, false, false, false, true},
        {L"installing", false, false, false, false, true},
        {L"pending_install", false, false, false, false, true},
        // Another spelling, another vocabulary, or nothing: no question holds.
        {L"Installed", false, false, false, false, false},
        {L"download_failed", false, false, false, false, false},
        {L"install_failed", false, false, false, false, false},
        {L"notDefined", false, false, false, false, false},
        {L"", false, false, false, false, false},
        {L"installing ", false, false, false, false, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.state.begin(), row.state.end()));
        EXPECT_EQ(H::InstallationFailed(row.state), row.failed);
        EXPECT_EQ(H::IsDownloadFailed(row.state), row.downloadFailed);
        EXPECT_EQ(H::IsInstallationComplete(row.state), row.complete);
        EXPECT_EQ(H::PackageDownloadInProcess(row.state), row.downloading);
        EXPECT_EQ(H::PackageProcessingInProgress(row.state), row.inProgress);
    }
}

TEST(PackageStatesHelperTest, TheImmediateReplyIsOneLineOfThreeTexts)
{
    StartPackageOperationCommandResponse response;
    response.requestId = "r-1";
    response.packageId = "P\xC3\xA9";
    response.result = StartPackageOperationCommandResponse::PO_OTA_PENDING;
    EXPECT_EQ(StartPackageOperationCommandResponse::Serialize(response),
              R"({"packageId":"P\u00e9","requestId":"r-1","result":"OTA_pending"})");
}

}  // namespace
}  // namespace VEQ
