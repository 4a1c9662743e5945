// A back end's view of the device stamp: the key from `veqctl device-key` and the commands of
// docs/data-protection.md, run as written there, with the openssl command line.

#include "commands/GetDeviceAccessStampCommand.h"
#include "platform/fs/utility.h"
#include "platform/log/Log.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace VEQ {
namespace {

using VEQ::Test::ChildOutcome;
using VEQ::Test::ChildProcess;

std::string FileText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// The block of the page that follows its "verify-stamp" mark.
std::string VerificationCommands()
{
    const std::string page = FileText(VEQ_DATA_PROTECTION_DOC);
    const size_t mark = page.find("<!-- verify-stamp");
    const size_t begin = page.find("```sh\n", mark);
    const size_t end = page.find("```", begin + 6);
    if (mark == std::string::npos || begin == std::string::npos || end == std::string::npos) {
        return {};
    }
    return page.substr(begin + 6, end - begin - 6);
}

TEST(DeviceKeyCommandTest, StampsVerifyWithTheDocumentedOpensslCommandsAndThePrintedKeyOnly)
{
    const std::string commands = VerificationCommands();
    ASSERT_NE(commands.find("openssl dgst -sha256 -verify device-key.pem"), std::string::npos) << commands;
    VEQ::Test::TempRoot root;
    const std::string machineId = root.BelowUtf8("machine-id");
    std::ofstream(machineId) << "4c4c4544003a4e10804ab7c04f4d3432\n";
    CoreUtility::GetInstance()->SetMachineIdFiles({String::UTF8ToUTF16(machineId)});

    const ChildOutcome before = ChildProcess::Run({VEQCTL_PROGRAM, "--root", root.PathUtf8(), "device-key"});
    EXPECT_EQ(before.exitCode, 1) << before.output;
    EXPECT_NE(before.output.find("no device key"), std::string::npos) << before.output;

    Log log;
    ASSERT_TRUE(utility::InitLog(log, L"DeviceKeyCommandTest.log", Log::kDebug));
    GetDeviceAccessStampCommand command(log);
    Json::Value request;
    request["timestamp"] = "2026-11-23T14:05:00Z\nnonce 7";
    Json::StreamWriterBuilder writer;
    ClientRequest clientRequest;
    Tavrin::Veq::ClientBroker::Message message;
    message.notification.command = "Get-DeviceAccessStamp";
    message.notification.payload = Json::writeString(writer, request);
    clientRequest.setMessage(message);
    bool pending = false;
    Json::Value reply;
    std::istringstream replyText(command.GetResponse(clientRequest, pending).message.notification.payload);
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), replyText, &reply, nullptr));

    const ChildOutcome key = ChildProcess::Run({VEQCTL_PROGRAM, "--root", root.PathUtf8(), "device-key"});
    ASSERT_EQ(key.exitCode, 0) << key.output;
    EXPECT_EQ(key.output, FileText(root.BelowUtf8("keys/device-key.pub.pem")));
    std::ofstream(root.BelowUtf8("device-key.pem")) << key.output;

    struct Row {
        const char* name;
        std::string timestamp;
        std::string stamp;
        int expectedExit;
        const char* expectedOutput;
    };
    const std::string stamp = reply["stamp"].asString();
    std::string otherStamp = stamp;
    otherStamp[10] = otherStamp[10] == '0' ? '1' : '0';
    const std::vector<Row> rows = {
        {"the stamp as given", reply["timestamp"].asString(), stamp, 0, "Verified OK"},
        {"another timestamp", "2026-11-23T14:06:00Z\nnonce 7", stamp, 1, "Verification failure"},
        {"a timestamp without its last line", "2026-11-23T14:05:00Z", stamp, 1, "Verification failure"},
        {"a changed stamp", reply["timestamp"].asString(), otherStamp, 1, "Verification failure"},
    };
    for (const Row& row : rows) {
        ::setenv("DEVICE_ID", reply["deviceId"].asCString(), 1);
        ::setenv("TIMESTAMP", row.timestamp.c_str(), 1);
        ::setenv("STAMP", row.stamp.c_str(), 1);
        const ChildOutcome verified =
            ChildProcess::Run({"/bin/sh", "-c", "cd \"$1\" || exit 9\n" + commands, "sh", root.PathUtf8()});
        EXPECT_EQ(verified.exitCode, row.expectedExit) << row.name << ": " << verified.output;
        EXPECT_NE(verified.output.find(row.expectedOutput), std::string::npos) << row.name << ": " << verified.output;
    }

    if (ChildProcess::IsRoot()) {
        const ChildOutcome stranger = ChildProcess::RunAsNobody({VEQCTL_PROGRAM, "--root", root.PathUtf8(), "device-key"});
        EXPECT_EQ(stranger.exitCode, 1) << stranger.output;
        EXPECT_NE(stranger.output.find("run as the service's user"), std::string::npos) << stranger.output;
    }
    CoreUtility::GetInstance()->SetMachineIdFiles(CoreUtility::DefaultMachineIdFiles());
}

}  // namespace
}  // namespace VEQ
