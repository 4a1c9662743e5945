// "Invoke-HttpRequest" against a real HTTPS server that demands the device's certificate: who may
// reach what, what the back end receives, what the client is told, and that nothing outside the
// configured base is ever contacted.

#include "http/InvokeHttpRequestCommand.h"
#include "broker/ReplyJson.h"
#include "platform/fs/utility.h"
#include "platform/http/EpUrlProvider.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/service/ServiceStatus.h"
#include "platform/string/String.h"
#include "tests/support/HttpsTestServer.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestCa.h"

#include <gtest/gtest.h>

#include <memory>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Tavrin::Veq::ClientBroker::ExtensionType;
using Tavrin::Veq::ClientBroker::Result;
using Test::HttpsTestServer;
using Test::TestCa;

constexpr const char* kGuid = "1F0A3C5E-7B9D-4E2F-8A6C-0D1E2F3A4B5C";
constexpr const char* kGeneralError = "General Error";
constexpr const char* kLeavesBase =
    "The url provided leaves the base url, the parameter must be a relative url which stays below the base url";
constexpr const char* kBadHeader =
    "The headers provided are not valid, a header name must be a token and no header may hold CR, LF or NUL";

ClientRequest Request(const std::string& command, const std::string& payload)
{
    Tavrin::Veq::ClientBroker::Message message;
    message.guid = kGuid;
    message.notification.command = command;
    message.notification.payload = payload;
    ClientRequest request;
    request.setMessage(message);
    return request;
}

// A request payload; extra is spliced in as further members.
std::string Payload(const std::string& relativeUrl, const std::string& method = "get", const std::string& extra = "")
{
    Json::Value root(Json::objectValue);
    root["relativeUrl"] = relativeUrl;
    root["httpMethod"] = method;
    std::string text = ReplyJson::Write(root);
    if (!extra.empty()) {
        text.insert(text.size() - 1, "," + extra);
    }
    return text;
}

Json::Value Parse(const std::string& text)
{
    Json::Value value;
    EXPECT_TRUE(ReplyJson::Parse(text, value)) << text;
    return value;
}

class InvokeHttpRequestCommandTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        PlatformSettings settings;
        settings.http.caFile = ca_.CaFile();
        settings.http.clientCert = device_.certFile;
        settings.http.clientKey = device_.keyFile;
        settings.http.connectTimeout = 3s;
        settings.http.totalTimeout = 5s;
        root_.Reinstall({}, settings);
        ASSERT_TRUE(utility::InitLog(log_, L"InvokeHttpRequest.log", Log::kDebug));
        UseBase(server_.Url("/base"));
        ServiceStatus::GetInstance()->SetSettings({ServiceStatus::kAlways});
    }
    void TearDown() override
    {
        EpUrlProvider::GetInstance()->SetEndpoints({});
        ServiceStatus::GetInstance()->SetSettings({});
        ConfigPolicyAgent::GetInstance()->SetPolicyDocument(Json::Value());
    }

    static void UseBase(const std::string& base)
    {
        EpUrlProvider::GetInstance()->SetEndpoints({String::UTF8ToUTF16(base)});
    }

    // The handler as a broker's factory makes it: IsApplicable decides, and computes the type.
    std::unique_ptr<InvokeHttpRequestCommand> Make(ExtensionType extension, ElevationType elevation)
    {
        auto command = std::make_unique<InvokeHttpRequestCommand>(log_, elevation, extension);
        BrokerContext context;
        context.setExtensionType(extension);
        context.setElevationType(elevation);
        EXPECT_TRUE(command->IsApplicable(context));
        return command;
    }
    std::unique_ptr<InvokeHttpRequestCommand> Plugin() { return Make(ExtensionType::Plugin, ElevationType::Elevated); }
    std::unique_ptr<InvokeHttpRequestCommand> ElevatedApp() { return Make(ExtensionType::App, ElevationType::Elevated); }

    static Result Ask(InvokeHttpRequestCommand& command, const std::string& payload,
                      const std::string& name = InvokeHttpRequestCommand::kCommandName)
    {
        bool pending = false;
        Result result = command.GetResponse(Request(name, payload), pending);
        EXPECT_FALSE(pending);
        return result;
    }

    static void ExpectRefused(const Result& result, const std::string& text)
    {
        EXPECT_FALSE(result.isSuccess);
        EXPECT_EQ(result.message.statusCode, -1);
        EXPECT_EQ(result.message.statusText, text);
        EXPECT_EQ(result.message.guid, kGuid);
    }

    VEQ::Test::TempRoot root_;
    TestCa ca_{root_.PathUtf8() + "/ca", "Back-end CA"};
    TestCa::TlsIdentity device_ = ca_.IssueClient("device", "device-1");
    HttpsTestServer server_{ca_.IssueServer("server"), ca_.CaFile()};
    Log log_;
};

TEST_F(InvokeHttpRequestCommandTest, OnlyPluginsAndElevatedAppsGetTheCommand)
{
    struct Row {
        ExtensionType extension;
        ElevationType elevation;
        bool applicable;
    };
    const Row rows[] = {{ExtensionType::Plugin, ElevationType::Elevated, true},
                        {ExtensionType::Plugin, ElevationType::User, true},
                        {ExtensionType::App, ElevationType::Elevated, true},
                        {ExtensionType::App, ElevationType::User, false}};
    for (const Row& row : rows) {
        InvokeHttpRequestCommand command(log_, row.elevation, row.extension);
        BrokerContext context;
        context.setExtensionType(row.extension);
        context.setElevationType(row.elevation);
        EXPECT_EQ(command.IsApplicable(context), row.applicable)
            << static_cast<int>(row.extension) << "/" << static_cast<int>(row.elevation);
    }
}

TEST_F(InvokeHttpRequestCommandTest, ElevatedAppsReachOnlyTheAllowListAndPluginsAnyUrlBelowTheBase)
{
    const std::string kFullUrl =
        "The url provided is a full url, the parameter must be a relative url which will be combined with base url";
    struct Row {
        bool app;
        std::string relativeUrl;
        std::string refusal;  // empty: reaches the server
    };
    const Row rows[] = {
        {false, "/any/thing?x=1", ""},
        {true, "/ZOUDS/PERIPHERAL-PRESET/V1/DEVICE/printer-7", ""},
        {true, "/zouds/device/tray/service/device-tray-service/v1/edm/policy?tenant=a", ""},
        {true, "/device-profile-service/zcp/apis/v1/devices/activation/activation-code", ""},
        {true, "/zouds/peripheral-preset/v1/device", kGeneralError},
        {true, "/any/thing", kGeneralError},
        {true, "https://127.0.0.1/zouds/peripheral-preset/v1/device/x", kFullUrl},
        {false, "http-lookalike/x", kFullUrl},
        // A prefix test alone would let these climb out of an allowed prefix.
        {true, "/zouds/peripheral-preset/v1/device/../../../admin", kLeavesBase},
        {true, "/zouds/peripheral-preset/v1/device/%2E%2e/%2e%2E/admin", kLeavesBase},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.relativeUrl);
        const auto command = row.app ? ElevatedApp() : Plugin();
        const size_t before = server_.Requests().size();
        const Result result = Ask(*command, Payload(row.relativeUrl));
        if (!row.refusal.empty()) {
            ExpectRefused(result, row.refusal);
            EXPECT_EQ(server_.Requests().size(), before);
            continue;
        }
        EXPECT_TRUE(result.isSuccess) << result.message.statusText;
        EXPECT_EQ(result.message.statusCode, 0);
        EXPECT_EQ(result.message.notification.command, "Receive-HttpRequest");
        ASSERT_EQ(server_.Requests().size(), before + 1);
        const auto seen = server_.Requests().back();
        EXPECT_EQ(seen.method, "GET");
        EXPECT_EQ(seen.clientCommonName, "device-1");
        const std::string path = row.relativeUrl.substr(0, row.relativeUrl.find('?'));
        EXPECT_EQ(seen.path, "/base" + path);
        const Json::Value reply = Parse(result.message.notification.payload);
        EXPECT_EQ(reply["fullUrl"].asString(), server_.Url("/base" + row.relativeUrl));
        EXPECT_EQ(reply["httpResponseCode"].asString(), "404");
        EXPECT_EQ(reply["responseBody"].asString(), "not scripted");
        EXPECT_EQ(reply["resultType"].asString(), "");
        EXPECT_EQ(reply["responseFile"].asString(), "");
    }
}

TEST_F(InvokeHttpRequestCommandTest, TheBackEndGetsTheMappedMethodTheBodyAndTheStringHeaders)
{
    struct Row {
        std::string method;
        std::string extra;
        std::string seenMethod;
        std::string seenBody;
    };
    const Row rows[] = {
        {"delete", R"("payload":{"a":1})", "POST", R"({"a":1})"},
        {"GET", R"("payload":"ignored")", "GET", ""},
        {"Put", R"("payload":"raw text")", "PUT", "raw text"},
        {"post", "", "POST", "null"},
        {"pOsT", R"("payload":[1,"two"])", "POST", R"([1,"two"])"},
    };
    server_.Script("/base/r", {});
    for (const Row& row : rows) {
        SCOPED_TRACE(row.method);
        const Result result = Ask(*Plugin(), Payload("/r", row.method, row.extra));
        ASSERT_TRUE(result.isSuccess) << result.message.statusText;
        const auto seen = server_.Requests().back();
        EXPECT_EQ(seen.method, row.seenMethod);
        EXPECT_EQ(seen.body, row.seenBody);
        EXPECT_EQ(seen.Header("Content-Type"), "application/json");
        EXPECT_EQ(Parse(result.message.notification.payload)["httpMethod"].asString(), row.method);
    }

    const Result result = Ask(*Plugin(), Payload("/r", "post",
                                                 R"("headers":{"X-Count":5,"X-Name":"v","X-Empty":"",)"
                                                 R"("content-type":"text/plain","X-List":["a"]})"));
    ASSERT_TRUE(result.isSuccess) << result.message.statusText;
    const auto seen = server_.Requests().back();
    EXPECT_EQ(seen.HeaderCount("X-Count"), 0u);
    EXPECT_EQ(seen.HeaderCount("X-List"), 0u);
    EXPECT_EQ(seen.Header("X-Name"), "v");
    EXPECT_EQ(seen.HeaderCount("X-Empty"), 1u);
    // Names are told apart byte for byte: the client's own spelling goes beside the default.
    EXPECT_EQ(seen.HeaderCount("Content-Type"), 2u);
}

TEST_F(InvokeHttpRequestCommandTest, AnyStatusIsASuccessAndNoExchangeIsMinusOneWithTheReason)
{
    HttpsTestServer elsewhere(ca_.IssueServer("elsewhere"), ca_.CaFile());
    HttpsTestServer::Reply failing;
    failing.status = 500;
    failing.body = "boom";
    server_.Script("/base/fail", failing);
    HttpsTestServer::Reply redirect;
    redirect.status = 302;
    redirect.headers = {{"Location", elsewhere.Url("/steal")}};
    server_.Script("/base/moved", redirect);

    const Result failed = Ask(*Plugin(), Payload("/fail"));
    EXPECT_TRUE(failed.isSuccess);
    EXPECT_EQ(Parse(failed.message.notification.payload)["httpResponseCode"].asString(), "500");
    EXPECT_EQ(Parse(failed.message.notification.payload)["responseBody"].asString(), "boom");

    const Result moved = Ask(*Plugin(), Payload("/moved", "post", R"("payload":"secret")"));
    EXPECT_TRUE(moved.isSuccess);
    EXPECT_EQ(Parse(moved.message.notification.payload)["httpResponseCode"].asString(), "302");
    EXPECT_TRUE(elsewhere.Requests().empty());

    UseBase("https://127.0.0.1:1");  // nothing listens there
    const Result unreachable = Ask(*Plugin(), Payload("/x"));
    EXPECT_FALSE(unreachable.isSuccess);
    EXPECT_EQ(unreachable.message.statusCode, -1);
    EXPECT_FALSE(unreachable.message.statusText.empty());
    EXPECT_NE(unreachable.message.statusText, "VEQ State prevent execution of the command");
    EXPECT_EQ(unreachable.message.notification.command, "Receive-HttpRequest");
    EXPECT_EQ(Parse(unreachable.message.notification.payload)["httpResponseCode"].asString(), "0");
}

TEST_F(InvokeHttpRequestCommandTest, NothingOutsideTheBaseIsEverContacted)
{
    HttpsTestServer::Reply ok;
    server_.Script("/x", ok);
    struct Row {
        std::string relativeUrl;
        std::string extra;
        std::string refusal;
    };
    const Row rows[] = {
        {"/../x", "", kLeavesBase},
        {"/%2e%2e/x", "", kLeavesBase},
        {"/a/.%2E/%2e./x", "", kLeavesBase},
        {"/a\\..\\..\\x", "", kLeavesBase},
        {"/a/%2e%2e%2fx", "", kLeavesBase},
        {"@evil.example/x", "", kLeavesBase},
        {":1/x", "", kLeavesBase},
        {".evil.example/x", "", kLeavesBase},
        {"HTTPS://evil.example/x", "", kLeavesBase},
        {"/x\r\nHost: evil.example", "", kLeavesBase},
        {"/x y", "", kLeavesBase},
        {"/x", R"("headers":{"X-A\nInjected":"v"})", kBadHeader},
        {"/x", R"("headers":{"X-A":"v\r\nInjected: 1"})", kBadHeader},
        {"/x", R"("headers":{"Bad Name":"v"})", kBadHeader},
    };
    // With and without a path of its own, the base keeps the request on its host.
    for (const std::string& base : {server_.Url("/base"), server_.Url("")}) {
        UseBase(base);
        for (const Row& row : rows) {
            SCOPED_TRACE(base + " + " + row.relativeUrl + " " + row.extra);
            ExpectRefused(Ask(*Plugin(), Payload(row.relativeUrl, "get", row.extra)), row.refusal);
        }
    }
    EXPECT_TRUE(server_.Requests().empty());

    UseBase("");  // no base configured: nothing to glue to
    ExpectRefused(Ask(*Plugin(), Payload("/x")), kLeavesBase);
}

TEST_F(InvokeHttpRequestCommandTest, TheBaseComesFromThePolicyBeforeTheHostConfiguration)
{
    struct Row {
        const char* policy;  // platform_policy.api_mtls_baseuri as JSON; null: no such member
        std::wstring expected;
    };
    const Row rows[] = {{nullptr, L"https://host.example/api"},
                        {R"("https://policy.example/api")", L"https://policy.example/api"},
                        {R"("")", L"https://host.example/api"},
                        {"7", L"https://host.example/api"}};
    UseBase("https://host.example/api");
    for (const Row& row : rows) {
        Json::Value document(Json::objectValue);
        document["platform_policy"]["api_baseuri"] = "https://other.example";
        if (row.policy != nullptr) {
            document["platform_policy"][EpUrlProvider::kPolicyApiMtlsBaseUri] = Parse(row.policy);
        }
        ConfigPolicyAgent::GetInstance()->SetPolicyDocument(document);
        std::wstring base;
        EXPECT_EQ(EpUrlProvider::GetInstance()->GetApiMtlsBaseUri(base), EpUrlProvider::kOk);
        EXPECT_EQ(base, row.expected) << (row.policy ? row.policy : "none");
    }
    UseBase("");
    ConfigPolicyAgent::GetInstance()->SetPolicyDocument(Json::Value());
    std::wstring base = L"stale";
    EXPECT_EQ(EpUrlProvider::GetInstance()->GetApiMtlsBaseUri(base), EpUrlProvider::kNotSet);
    EXPECT_EQ(base, L"");
}

TEST_F(InvokeHttpRequestCommandTest, TheServiceGateComesFirstForElevatedAppsOnly)
{
    const std::string allowed = Payload("/zouds/peripheral-preset/v1/device/x");
    struct Row {
        std::string gate;
        bool app;
        std::string command;
        std::string refusal;  // empty: reaches the server
    };
    const Row rows[] = {
        {ServiceStatus::kNever, true, "Invoke-HttpRequest", kGeneralError},
        {ServiceStatus::kNever, true, "Unknown-Command", kGeneralError},
        {"veq-test-no-such-unit.service", true, "Invoke-HttpRequest", kGeneralError},
        {ServiceStatus::kAlways, true, "Unknown-Command", "Command not Supported"},
        {ServiceStatus::kNever, false, "Unknown-Command", "Command not Supported"},
        {ServiceStatus::kNever, false, "Invoke-HttpRequest", ""},
        {ServiceStatus::kAlways, true, "Invoke-HttpRequest", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.gate + (row.app ? " app " : " plugin ") + row.command);
        ServiceStatus::GetInstance()->SetSettings({row.gate});
        const auto command = row.app ? ElevatedApp() : Plugin();
        const size_t before = server_.Requests().size();
        const Result result = Ask(*command, allowed, row.command);
        if (row.refusal.empty()) {
            EXPECT_TRUE(result.isSuccess) << result.message.statusText;
            EXPECT_EQ(server_.Requests().size(), before + 1);
            continue;
        }
        ExpectRefused(result, row.refusal);
        EXPECT_EQ(result.message.notification.command, "");
        EXPECT_EQ(server_.Requests().size(), before);
    }
}

TEST_F(InvokeHttpRequestCommandTest, BadRequestsAreRefusedWithTheirOwnText)
{
    struct Row {
        std::string payload;
        std::string refusal;
    };
    const Row rows[] = {
        {"{not json", "RequestMessage couldn't be parsed"},
        {"{}", "Empty relativeURL"},
        {"[1]", "Empty relativeURL"},
        {R"({"relativeUrl":7,"httpMethod":"get"})", "Empty relativeURL"},
        {R"({"relativeUrl":"/x"})", "Empty HTTP Method"},
        {R"({"relativeUrl":"/x","httpMethod":""})", "Empty HTTP Method"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.payload);
        const Result result = Ask(*Plugin(), row.payload);
        ExpectRefused(result, row.refusal);
        EXPECT_EQ(result.message.notification.command, "Receive-HttpRequest");
    }
    EXPECT_TRUE(server_.Requests().empty());
}

}  // namespace
}  // namespace VEQ
