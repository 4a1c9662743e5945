// "Start-PackageOperation" through veqd: each row of the decision between the configuration, the
// engine's records in the registry and the request, the hand-over to the update engine as
// `veqctl monitor` shows it, and the final result that follows the engine's package event.

#include "platform/registry/SqliteRegistryStore.h"
#include "platform/string/String.h"
#include "sdk/AppClient.h"
#include "tests/support/BackgroundProcess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DaemonProcess.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Veq::Sdk::AppClient;
using Veq::Sdk::AppClientOptions;
using Veq::Sdk::Side;

constexpr const wchar_t* kStatusKey = L"Software\\Tavrin\\VEQ\\PackageStatus";

std::string Policy(const std::string& updateScope)
{
    return R"({"app_settings":[{"application_id":"Tavrin.veq","settings":{"extension_apps":{"enablement":"enabled",)"
           R"("ipcMethods_afunix":"both"}}}],"update_policy":{"updateScope":")" +
           updateScope +
           R"(","packages":[{"packageId":"Tool","packageVersion":"2.0","filter":[{"os":"linux"}]},)"
           R"({"packageId":"Tool","packageVersion":"9.9"},)"
           R"({"packageId":"Elsewhere","packageVersion":"1.0","filter":[{"os":"windows"}]}]}})";
}

// What the engine has recorded before a request. Empty texts and negative numbers: not written.
struct Records {
    std::wstring operationState;
    std::wstring trigger;
    std::wstring packageState;
    int suspended = -1;
    int retries = -1;
    std::wstring installedVersion;
};

struct Reply {
    bool isSuccess = false;
    std::string statusText;
    std::string result;
    std::string packageId;
    std::string requestId;
};

class VeqdPackageOperationTest : public ::testing::Test {
protected:
    VeqdPackageOperationTest()
    {
        char rootTemplate[] = "/tmp/veqd-packages-XXXXXX";
        root_ = ::mkdtemp(rootTemplate);
        ::chmod(root_.c_str(), 0755);
    }

    ~VeqdPackageOperationTest() override
    {
        app_.reset();
        monitor_.reset();
        daemon_.reset();
        std::filesystem::remove_all(root_);
    }

    void Start(const std::string& updateScope)
    {
        const std::string temporary = root_ + "/policy.json.new";
        std::ofstream(temporary) << Policy(updateScope);
        std::filesystem::rename(temporary, root_ + "/policy.json");
        daemon_ = std::make_unique<VEQ::Test::DaemonProcess>(root_);
        ASSERT_TRUE(daemon_->Start()) << daemon_->Output();
        monitor_ = std::make_unique<VEQ::Test::BackgroundProcess>(
            std::vector<std::string>{VEQCTL_PROGRAM, "--root", root_, "monitor", "--topic", "5"});
        ASSERT_TRUE(monitor_->Start());
        ASSERT_TRUE(monitor_->WaitForOutput("monitoring", 10s)) << monitor_->Output();
        AppClientOptions options;
        options.dataRoot = root_;
        options.side = Side::Elevated;
        options.extensionId = "engine.test";
        options.extensionName = "engine.test";
        options.timeout = 10s;
        options.autoReconnect = false;
        app_ = std::make_unique<AppClient>(options);
        ASSERT_FALSE(app_->Connect());
    }

    void Record(const std::wstring& version, const Records& records)
    {
        SqliteRegistryStore store(String::UTF8ToUTF16(root_ + "/registry"));
        store.DeleteKey(Hive::LocalMachine, kStatusKey);
        const std::wstring key = std::wstring(kStatusKey) + L"\\Tool\\" + version;
        const std::pair<const wchar_t*, const std::wstring*> texts[] = {{L"OperationState", &records.operationState},
                                                                        {L"InstallationTrigger", &records.trigger},
                                                                        {L"PackageState", &records.packageState}};
        for (const auto& [name, value] : texts) {
            if (!value->empty()) {
                ASSERT_TRUE(store.SetString(Hive::LocalMachine, key, name, *value));
            }
        }
        if (records.suspended >= 0) {
            ASSERT_TRUE(store.SetDword(Hive::LocalMachine, key, L"PackageSuspended", records.suspended));
        }
        if (records.retries >= 0) {
            ASSERT_TRUE(store.SetDword(Hive::LocalMachine, key, L"FailedInstallRetryCount", records.retries));
        }
        if (!records.installedVersion.empty()) {
            ASSERT_TRUE(store.SetString(Hive::LocalMachine, std::wstring(kStatusKey) + L"\\Tool", L"InstalledVersion",
                                        records.installedVersion));
        }
    }

    static std::string Request(const std::string& requestId, const std::string& packageId, const std::string& operation)
    {
        return R"({"requestId":")" + requestId + R"(","packageId":")" + packageId + R"(","operationType":")" +
               operation + R"("})";
    }

    Reply Ask(const std::string& payload)
    {
        AppClient::Result result;
        EXPECT_FALSE(app_->Send("Start-PackageOperation", payload, result));
        Reply reply;
        reply.isSuccess = result.isSuccess;
        reply.statusText = result.message.statusText;
        Json::Value body;
        if (Json::Reader().parse(result.message.notification.payload, body) && body.isObject()) {
            reply.result = body["result"].asString();
            reply.packageId = body["packageId"].asString();
            reply.requestId = body["requestId"].asString();
        }
        EXPECT_EQ(result.message.notification.command, "Receive-PackageOperationResult");
        return reply;
    }

    // The payloads of the hand-over events the monitor has printed, once it has printed count.
    std::vector<std::string> HandOvers(size_t count)
    {
        std::vector<std::string> payloads;
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        do {
            payloads.clear();
            std::istringstream lines(monitor_->Output());
            for (std::string line; std::getline(lines, line);) {
                Json::Value event;
                if (!line.empty() && line.front() == '{' && Json::Reader().parse(line, event) &&
                    event["topic"].asInt() == 5 && event["state"].asInt() == 49) {
                    payloads.push_back(event["payload"].asString());
                }
            }
        } while (payloads.size() < count && std::chrono::steady_clock::now() < deadline &&
                 (std::this_thread::sleep_for(20ms), true));
        return payloads;
    }

    VEQ::Test::ChildOutcome PackageEvent(int state, const std::string& packageId)
    {
        const std::string payload = R"({"packageId":")" + packageId +
                                    R"(","packageType":"app","packageName":"T","packageVersion":"2.0",)"
                                    R"("installationTrigger":"manual"})";
        return VEQ::Test::ChildProcess::Run({VEQCTL_PROGRAM, "--root", root_, "publish", "--topic", "30", "--state",
                                             std::to_string(state), "--payload", payload});
    }

    std::string root_;
    std::unique_ptr<VEQ::Test::DaemonProcess> daemon_;
    std::unique_ptr<VEQ::Test::BackgroundProcess> monitor_;
    std::unique_ptr<AppClient> app_;
};

TEST_F(VeqdPackageOperationTest, EachRecordAndOperationGetsItsWordAndOnlyGoAheadsAreHandedOver)
{
    Start("all");
    struct Row {
        const char* what;
        std::string packageId;
        std::string operation;
        Records records;
        const char* result;
        bool handedOver;
        bool success = true;
    };
    const std::vector<Row> rows = {
        {"installed version", "Tool", "install", {.installedVersion = L"2.0"}, "installed", false},
        {"capital operation type", "Tool", "INSTALL", {.installedVersion = L"2.0"}, "installed", false},
        {"forced install passes the version", "Tool", "forcedInstall", {.installedVersion = L"2.0"}, "OTA_pending",
         true},
        {"another installed version", "Tool", "install", {.installedVersion = L"1.0"}, "OTA_pending", true},
        {"failed install", "Tool", "install", {.operationState = L"install_fail"}, "install_fail", false},
        {"retry count 2", "Tool", "forcedInstall", {.operationState = L"install_fail", .retries = 2}, "OTA_pending",
         true},
        {"retry count 3", "Tool", "forcedInstall", {.operationState = L"install_fail", .retries = 3},
         "install_fail_limit_reached", false},
        {"busy with a scheduled run", "Tool", "install", {.trigger = L"scheduled", .packageState = L"installing"},
         "operation_denied", false},
        {"busy but suspended", "Tool", "install",
         {.trigger = L"scheduled", .packageState = L"installing", .suspended = 1}, "OTA_pending", true},
        {"busy with a manual run", "Tool", "forcedInstall", {.trigger = L"Manual", .packageState = L"downloading"},
         "OTA_pending", true},
        {"cancel a manual pending download", "Tool", "cancel",
         {.operationState = L"pending_download", .trigger = L"manual", .packageState = L"pending_download"},
         "cancelled", true},
        {"cancel a scheduled pending download", "Tool", "cancel",
         {.operationState = L"pending_download", .trigger = L"scheduled", .packageState = L"pending_download"},
         "cancel_error", false},
        {"cancel while installing", "Tool", "Cancel",
         {.operationState = L"installing", .trigger = L"manual", .packageState = L"installing"}, "cancel_error",
         false},
        {"cancel with nothing recorded", "Tool", "cancel", {}, "cancel_error", false},
        {"id in another case", "tOOL", "install", {}, "OTA_pending", true},
        {"unknown package", "Nope", "install", {}, "package_not_found", false},
        {"unknown package, unknown operation", "Nope", "update", {}, "package_not_found", false, false},
        {"known package, unknown operation", "Tool", "update", {}, "OTA_pending", true, false},
        {"not applicable here", "Elsewhere", "install", {}, "not_applicable", true},
        {"not applicable, cancel", "Elsewhere", "cancel", {}, "not_applicable", true},
    };
    std::vector<std::string> expected;
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row& row = rows[i];
        Record(L"2.0", row.records);
        const std::string payload = Request("r" + std::to_string(i), row.packageId, row.operation);
        const Reply reply = Ask(payload);
        EXPECT_EQ(reply.result, row.result) << row.what;
        EXPECT_EQ(reply.isSuccess, row.success) << row.what;
        EXPECT_EQ(reply.statusText, row.success ? "" : "General Error") << row.what;
        EXPECT_EQ(reply.packageId, row.packageId) << row.what;
        EXPECT_EQ(reply.requestId, "r" + std::to_string(i)) << row.what;
        if (row.handedOver) {
            expected.push_back(payload);
        }
    }
    // The engine gets each request that went ahead once, as the client wrote it, in order.
    EXPECT_EQ(HandOvers(expected.size()), expected);
}

TEST_F(VeqdPackageOperationTest, BadRequestsAndGarbageRecordsGetClearAnswers)
{
    Start("all");
    Reply reply = Ask("{not json");
    EXPECT_FALSE(reply.isSuccess);
    EXPECT_EQ(reply.statusText, "General Error");
    EXPECT_EQ(Ask(std::string(100000, '[')).statusText, "General Error");
    // Fields of another type read as absent.
    reply = Ask(R"({"requestId":7,"packageId":["Tool"],"operationType":"install"})");
    EXPECT_TRUE(reply.isSuccess);
    EXPECT_EQ(reply.result, "package_not_found");
    // Tags that are not texts, and very many of them, do not stop the request.
    std::string tags = R"({"requestId":"t","packageId":"Tool","operationType":"install","additionalTags":{)";
    for (int i = 0; i < 10000; ++i) {
        tags += "\"k" + std::to_string(i) + "\":" + (i % 2 ? "\"v\"" : "[1]") + ",";
    }
    tags.back() = '}';
    tags += "}";
    EXPECT_EQ(Ask(tags).result, "OTA_pending");
    // Values of the wrong type in the engine's records count as none.
    {
        SqliteRegistryStore store(String::UTF8ToUTF16(root_ + "/registry"));
        const std::wstring key = std::wstring(kStatusKey) + L"\\Tool\\2.0";
        store.SetDword(Hive::LocalMachine, key, L"OperationState", 5);
        store.SetString(Hive::LocalMachine, key, L"FailedInstallRetryCount", L"lots");
        store.SetDword(Hive::LocalMachine, key, L"PackageState", 1);
        store.SetDword(Hive::LocalMachine, std::wstring(kStatusKey) + L"\\Tool", L"InstalledVersion", 2);
    }
    EXPECT_EQ(Ask(Request("g", "Tool", "install")).result, "OTA_pending");
    EXPECT_EQ(HandOvers(2).size(), 2u);
}

TEST_F(VeqdPackageOperationTest, UpdateScopeNoneDeniesEvenACancelAndStillHandsItOver)
{
    Start("None");
    const std::string cancel = Request("s1", "Tool", "cancel");
    EXPECT_EQ(Ask(cancel).result, "denied_by_update_scope");
    const std::string install = Request("s2", "tool", "install");
    EXPECT_EQ(Ask(install).result, "denied_by_update_scope");
    EXPECT_EQ(HandOvers(2), (std::vector<std::string>{cancel, install}));
}

TEST_F(VeqdPackageOperationTest, ThePendingRequestGetsItsFinalWordFromTheEnginesPackageEvent)
{
    Start("all");
    Record(L"2.0", {.operationState = L"install_fail", .retries = 1});
    ASSERT_EQ(Ask(Request("f1", "Tool", "forcedInstall")).result, "OTA_pending");
    ASSERT_EQ(PackageEvent(314, "Tool").exitCode, 0);      // progress: no word yet
    ASSERT_EQ(PackageEvent(301, "Other").exitCode, 0);     // another package's outcome
    ASSERT_EQ(PackageEvent(301, "tool").exitCode, 0);      // this one's, in another case
    std::vector<std::string> results;
    while (auto push = app_->NextPush(results.empty() ? 10s : 500ms)) {
        if (push->command == "Receive-PackageOperationResult") {
            results.push_back(push->payload);
        }
    }
    ASSERT_EQ(results.size(), 1u);
    Json::Value result;
    ASSERT_TRUE(Json::Reader().parse(results[0], result));
    EXPECT_EQ(result["requestId"].asString(), "f1");
    EXPECT_EQ(result["result"].asString(), "install_fail");
    // A failed forced install counts towards the limit.
    SqliteRegistryStore store(String::UTF8ToUTF16(root_ + "/registry"));
    EXPECT_EQ(store.GetDword(Hive::LocalMachine, std::wstring(kStatusKey) + L"\\tool\\2.0", L"FailedInstallRetryCount"),
              2u);
}

}  // namespace
}  // namespace VEQ
