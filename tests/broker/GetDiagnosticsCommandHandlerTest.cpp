#include "broker/GetDiagnosticsCommandHandler.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>

namespace VEQ {
namespace {

using Result = GetDiagnosticsCommandHandler::DiagnosticsOperationResult;

TEST(GetDiagnosticsCommandHandlerTest, APluginsAnswerSaysWhetherItSucceededAndWhatBecomesOfItsFiles)
{
    VEQ::Test::TempRoot root;
    struct Row {
        const char* payload;
        bool successBefore;
        bool read;
        bool success;
        bool deleteFilesOnUpload;
    };
    const Row rows[] = {
        {R"({"status":"SUCCESS"})", false, true, true, true},
        {R"({"status":"failed","deleteFilesOnUpload":false})", true, true, false, false},
        {R"({"deleteFilesOnUpload":"TRUE"})", false, true, false, true},
        {R"({"deleteFilesOnUpload":"yes"})", false, true, false, false},
        {R"({"deleteFilesOnUpload":0})", false, true, false, true},  // neither bool nor text: kept
        {R"({"status":1})", true, true, true, true},                 // a status that is no text changes nothing
        {R"([1,2])", false, true, false, true},
        {"", false, false, false, false},
        {"not json", false, false, false, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.payload);
        Result result;
        result.success = row.successBefore;
        result.deleteFilesOnUpload = false;
        EXPECT_EQ(GetDiagnosticsCommandHandler::TryPopulateFromPluginResponseJson(row.payload, result), row.read);
        EXPECT_EQ(result.success, row.success);
        EXPECT_EQ(result.deleteFilesOnUpload, row.deleteFilesOnUpload);
    }
}

}  // namespace
}  // namespace VEQ
