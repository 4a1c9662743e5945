#include "platform/bus/VEQNotificationData.h"

#include "platform/string/String.h"

#include <gtest/gtest.h>
#include <json/json.h>

namespace VEQ {
namespace {

TEST(NotificationDataTest, PackageEventsReadTheirFiveMembers)
{
    struct Row {
        const char* what;
        std::wstring payload;
        bool parsed;
        std::vector<std::wstring> fields;  // id, type, name, version, trigger
    };
    const Row rows[] = {
        {"all members",
         LR"({"packageId":"p1","packageType":"App","packageName":"Caf\u00e9","packageVersion":"1.2.3","installationTrigger":"User"})",
         true, {L"p1", L"App", L"Caf\u00E9", L"1.2.3", L"User"}},
        {"absent members read empty", LR"({"packageId":"p2","other":"x"})", true, {L"p2", L"", L"", L"", L""}},
        {"numbers read as text", LR"({"packageId":7,"packageVersion":2.5})", true, {L"7", L"", L"", L"2.5", L""}},
        {"nested values read empty", LR"({"packageId":{"a":1},"packageName":[1]})", true, {L"", L"", L"", L"", L""}},
        {"empty payload", L"", false, {L"", L"", L"", L"", L""}},
        {"array payload", L"[1,2]", false, {L"", L"", L"", L"", L""}},
        {"string payload", L"\"packageId\"", false, {L"", L"", L"", L"", L""}},
        {"broken json", LR"({"packageId":"p3")", false, {L"", L"", L"", L"", L""}},
    };
    for (const Row& row : rows) {
        std::vector<std::wstring> got(5, L"stale");
        const VEQNotificationData data(30, 2, row.payload);
        EXPECT_EQ(data.deserializePayloadForPackageEvent(got[0], got[1], got[2], got[3], got[4]), row.parsed)
            << row.what;
        EXPECT_EQ(got, row.fields) << row.what;
    }
}

TEST(NotificationDataTest, DeviceRegistrationNeedsAStatus)
{
    struct Row {
        std::wstring payload;
        bool parsed;
        std::wstring status;
        std::wstring message;
    };
    const Row rows[] = {
        {LR"({"status":"Registered","message":"done"})", true, L"Registered", L"done"},
        {LR"({"status":"Failed"})", true, L"Failed", L""},
        {LR"({"message":"no status"})", false, L"", L"no status"},
        {L"not json", false, L"", L""},
    };
    for (const Row& row : rows) {
        std::wstring status = L"stale";
        std::wstring message = L"stale";
        const VEQNotificationData data(2, 11, row.payload);
        EXPECT_EQ(data.deserializePayloadForDeviceRegistration(status, message), row.parsed) << String::UTF16ToUTF8(row.payload);
        EXPECT_EQ(status, row.status) << String::UTF16ToUTF8(row.payload);
        EXPECT_EQ(message, row.message) << String::UTF16ToUTF8(row.payload);
    }
}

TEST(NotificationDataTest, FieldValuesAreTopLevelScalarsOfAnObjectPayload)
{
    const VEQNotificationData message(L"app/client/alert",
                                      LR"({"command":"Get-X","isAsync":true,"message_id":12,"inner":{"command":"no"}})",
                                      true);
    const std::pair<std::wstring, std::wstring> rows[] = {
        {L"command", L"Get-X"}, {L"isAsync", L"true"}, {L"message_id", L"12"}, {L"inner", L""}, {L"missing", L""},
    };
    for (const auto& [name, value] : rows) {
        EXPECT_EQ(message.getFieldValue(name), value) << String::UTF16ToUTF8(name);
    }
    EXPECT_EQ(VEQNotificationData(L"t", L"[\"command\"]", true).getFieldValue(L"command"), L"");
}

TEST(NotificationDataTest, InvokeCommandPayloadIsOneLineOfJsonThatReadsBack)
{
    const std::map<std::string, std::string> fields = {
        {"isMqttNotification", "true"}, {"message_id", "m-\"1\"\n"}, {"requestId", "caf\xC3\xA9"}, {"isAsync", "false"}};
    const std::wstring payload = VEQNotificationData::constructPayloadForInvokeCommand(fields);
    EXPECT_EQ(payload.find(L'\n'), std::wstring::npos) << String::UTF16ToUTF8(payload);
    EXPECT_NE(payload.find(L"caf\u00E9"), std::wstring::npos) << "non-ASCII text is written as it is";

    Json::Value root;
    std::string errors;
    const std::string text = String::UTF16ToUTF8(payload);
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors;
    ASSERT_EQ(root.size(), fields.size());
    for (const auto& [name, value] : fields) {
        EXPECT_EQ(root[name].asString(), value) << name;
    }
    EXPECT_EQ(VEQNotificationData::constructPayloadForInvokeCommand({}), L"{}");
}

}  // namespace
}  // namespace VEQ
