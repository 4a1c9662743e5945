// "CheckEtagNGetDigestNSaveIfValid" against a real HTTPS back end on loopback: the ETag step, the
// download, the signature gate before the cached copy, what a 404 deletes, and a temporary
// download that no other local user can reach.

#include "digest/CheckEtagNGetDigestNSaveIfValidCommand.h"
#include "digest/RegistryAndDigestManagerCommand.h"
#include "digest/SmartMessageV2Utility.h"
#include "broker/ReplyJson.h"
#include "platform/device/DeveloperSettings.h"
#include "platform/registry/CRegUtil.h"
#include "platform/string/String.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/HttpsTestServer.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestCa.h"
#include "tests/support/TestJws.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using SmartMessageV2::SmartMessageV2Utility;
using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Result;
using VEQ::Test::HttpsTestServer;
using VEQ::Test::TestJws;
using Command = CheckEtagNGetDigestNSaveIfValidCommand;

constexpr const char* kOldDigest = "old";
constexpr const char* kDigest = R"({"messages":[{"id":"m1"}]})";

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return in ? text.str() : "none";
}

class DigestFetchCommandTest : public ::testing::Test {
protected:
    DigestFetchCommandTest()
    {
        // The signed-in user is this test's own, whose hive holds the digest's timestamp.
        std::ofstream(root_.BelowUtf8("session.json")) << "{\"sessionId\": 2, \"uid\": " << getuid() << "}";
        PlatformSettings settings;
        settings.sessionSource = "file";
        settings.sessionFile = root_.BelowUtf8("session.json");
        settings.http.publicCaFile = ca_.CaFile();
        settings.http.totalTimeout = 5s;
        root_.Reinstall({}, settings);
    }
    ~DigestFetchCommandTest() override { DeveloperSettings::GetInstance()->SetSkipSignedContentCheck(false); }

    Result Ask(BaseCommandHandler& handler, const std::string& command, const std::string& payload)
    {
        Message message;
        message.guid = "G-7";
        message.notification.command = command;
        message.notification.payload = payload;
        ClientRequest request;
        request.setMessage(message);
        bool pending = false;
        Result result = handler.GetResponse(request, pending);
        EXPECT_EQ(result.message.guid, "G-7");
        EXPECT_EQ(result.message.statusCode, result.isSuccess ? 0 : -1) << "every failure reaches the client as -1";
        return result;
    }

    Result Fetch(bool etagStep, const std::string& url = "")
    {
        Json::Value request(Json::objectValue);
        request["fullUrl"] = url.empty() ? server_.Url("/digest") : url;
        request["isEtagNeeded"] = etagStep;
        request["contentPublicKeys"].append("not a key");
        request["contentPublicKeys"].append(signer_.PublicPem());
        return Ask(command_, Command::kCommandName, ReplyJson::Write(request));
    }

    // The methods the server saw since the count given.
    std::string MethodsSince(size_t count) const
    {
        std::string methods;
        const auto requests = server_.Requests();
        for (size_t n = count; n < requests.size(); ++n) {
            methods += (methods.empty() ? "" : " ") + requests[n].method;
        }
        return methods;
    }

    std::string CachedPath() const
    {
        return root_.BelowUtf8("plugin-data/46C44A27-EAAD-4593-9AA0-8FA0F87BF955/digestv2.json.signed");
    }
    std::string TempFolder() const { return root_.BelowUtf8("tmp"); }

    std::wstring StoredEtag() const
    {
        std::wstring etag = L"none";
        CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, Command::kMessagingPluginKey,
                                          SmartMessageV2Utility::kEtagValueName, etag);
        return etag;
    }

    VEQ::Test::TempRoot root_;
    VEQ::Test::TestCa ca_{root_.BelowUtf8("ca"), "Digest CA"};
    HttpsTestServer server_{ca_.IssueServer("server")};
    TestJws signer_{TestJws::Algorithm::ES256};
    const std::string digest_ = signer_.Sign(kDigest);  // ES256 signs differently each time
    Log log_;
    Command command_{log_};
};

TEST_F(DigestFetchCommandTest, OnlyASignedDigestReachesTheCacheAndA404ClearsIt)
{
    const TestJws stranger(TestJws::Algorithm::ES256);
    const std::string strangers = stranger.Sign(kDigest);
    struct Row {
        const char* what;
        int status;  // of both steps; 0: nothing listens
        const char* etagField;
        const std::string* body;
        bool etagStep;
        const wchar_t* storedEtag;
        bool developerFlag;
        // Methods | outcome | ETag step | download | etagChanged | signed | cache | ETag | timestamp.
        const char* expected;
    };
    const std::string unsignedDigest = kDigest;
    const Row rows[] = {
        {"only fullUrl", 200, "\"e1\"", &digest_, false, L"e0", false,
         "GET|ok|etag:|get:200|same|signed|cache:new|e0|ts"},
        {"the stored ETag but for case and quotes", 200, "\"E0\"", &digest_, true, L"e0", false,
         "HEAD|failed|etag:200|get:|same|unsigned|cache:old|e0|ts"},
        {"a new ETag", 200, "\"e1\"", &digest_, true, L"e0", false,
         "HEAD GET|ok|etag:200|get:200|changed|signed|cache:new|e1|ts"},
        {"no stored ETag, unsigned: the ETag is kept", 200, "\"e1\"", &unsignedDigest, true, nullptr, false,
         "HEAD GET|ok|etag:200|get:200|changed|unsigned|cache:old|e1|ts"},
        {"a key the request does not list", 200, "", &strangers, false, L"e0", false,
         "GET|ok|etag:|get:200|same|unsigned|cache:old|e0|ts"},
        {"the developer flag", 200, "", &unsignedDigest, false, L"e0", true,
         "GET|ok|etag:|get:200|same|signed|cache:new|e0|ts"},
        {"download 404", 404, "", &digest_, false, L"e0", false,
         "GET|failed: prevented|etag:|get:404|same|unsigned|cache:none|none|-"},
        {"ETag step 404", 404, "", &digest_, true, L"e0", false,
         "HEAD|failed|etag:404|get:|same|unsigned|cache:none|none|-"},
        {"ETag step 403", 403, "", &digest_, true, L"e0", false,
         "HEAD|failed|etag:403|get:|same|unsigned|cache:old|e0|ts"},
        {"download 403", 403, "", &digest_, false, L"e0", false,
         "GET|failed: prevented|etag:|get:403|same|unsigned|cache:old|e0|ts"},
        {"download 500", 500, "", &digest_, false, L"e0", false, "GET|ok|etag:|get:500|same|unsigned|cache:old|e0|ts"},
        {"ETag step status 0", 0, "", &digest_, true, L"e0", false,
         "|failed: reason|etag:0|get:|same|unsigned|cache:old|e0|ts"},
        {"download status 0", 0, "", &digest_, false, L"e0", false,
         "|failed: reason|etag:|get:0|same|unsigned|cache:old|e0|ts"},
    };
    for (const Row& row : rows) {
        // A device that has fetched before; the ETag as the cleanup spells the key (one key).
        std::filesystem::create_directories(std::filesystem::path(CachedPath()).parent_path());
        std::ofstream(CachedPath(), std::ios::trunc) << kOldDigest;
        CRegUtil::DeleteRegValue(HKEY_LOCAL_MACHINE, SmartMessageV2Utility::kMessagingPluginKey, L"Etag");
        if (row.storedEtag != nullptr) {
            CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, SmartMessageV2Utility::kMessagingPluginKey, L"Etag",
                                  row.storedEtag);
        }
        CRegUtil::SetKeyValue(HKEY_CURRENT_USER, SmartMessageV2Utility::kStatusKey, L"LastMessageDigestTimeStamp",
                              L"1700000000");
        DeveloperSettings::GetInstance()->SetSkipSignedContentCheck(row.developerFlag);
        HttpsTestServer::Reply reply{row.status == 0 ? 200 : row.status, {}, *row.body};
        if (*row.etagField != '\0') {
            reply.headers = {{"Etag", row.etagField}};
        }
        server_.Script("/digest", reply);
        const size_t before = server_.Requests().size();

        const Result result = Fetch(row.etagStep, row.status == 0 ? "https://127.0.0.1:1/digest" : "");

        Json::Value payload;
        ReplyJson::Parse(result.message.notification.payload, payload);
        const std::string& text = result.message.statusText;
        const std::string cached = ReadFile(CachedPath());
        const std::string seen =
            MethodsSince(before) + "|" +
            (result.isSuccess         ? "ok"
             : text.empty()           ? "failed"
             : text == Command::kStatePreventsText ? "failed: prevented"
                                                   : "failed: reason") +
            "|etag:" + payload["httpEtagResponseCode"].asString() + "|get:" + payload["httpResponseCode"].asString() +
            (payload["etagChanged"].asBool() ? "|changed" : "|same") +
            (payload["isMessageDigestSigned"].asBool() ? "|signed" : "|unsigned") + "|cache:" +
            (cached == *row.body ? "new" : cached) + "|" + String::UTF16ToUTF8(StoredEtag()) +
            (CRegUtil::DoesKeyExists(HKEY_CURRENT_USER, SmartMessageV2Utility::kStatusKey) ? "|ts" : "|-");
        EXPECT_EQ(seen, row.expected) << row.what << ": " << text;
        EXPECT_EQ(result.message.notification.command, Command::kReplyCommand) << row.what;
        EXPECT_EQ(payload["EtagResponseBody"].asString(), "") << row.what;  // a HEAD has none
    }
}

TEST_F(DigestFetchCommandTest, TheAddressIsBuiltFromTheRequestAndABadRequestSendsNothing)
{
    server_.Script("/digest", HttpsTestServer::Reply{200, {}, digest_});
    const std::string url = server_.Url("/digest");
    const std::pair<std::string, std::string> rows[] = {
        {R"({"fullUrl":")" + url + R"("})", "lang=en&geo=us&format=jwt&getall=true"},
        {R"({"fullUrl":")" + url + R"(","lang":"de","geo":"at&x=1","format":"json"})",
         "lang=de&geo=at&x=1&format=json&getall=true"},
        {"fullUrl=" + url, "RequestMessage couldn't be parsed"},
        {R"({"lang":"de"})", "Empty fullURL"},
    };
    for (const auto& [payload, expected] : rows) {
        const size_t before = server_.Requests().size();
        const Result result = Ask(command_, Command::kCommandName, payload);
        const auto requests = server_.Requests();
        if (!result.isSuccess) {
            EXPECT_EQ(result.message.statusText, expected);
            EXPECT_EQ(requests.size(), before) << payload;
            continue;
        }
        ASSERT_EQ(requests.size(), before + 1) << payload;
        EXPECT_EQ(requests.back().query, expected);
        EXPECT_EQ(requests.back().Header("Content-Type"), "application/json");
    }
    const size_t before = server_.Requests().size();
    const Result refused = Ask(command_, "checketagngetdigestnsaveifvalid", rows[0].first);
    EXPECT_EQ(refused.message.statusText, "Command not Supported");
    EXPECT_EQ(server_.Requests().size(), before);
}

// A changed digest address clears the ETag, so the next fetch downloads the same ETag again.
TEST_F(DigestFetchCommandTest, AChangedDigestAddressMakesTheNextFetchDownloadAgain)
{
    server_.Script("/digest", HttpsTestServer::Reply{200, {{"ETag", "\"v1\""}}, digest_});
    RegistryAndDigestManagerCommand cleanup(log_);
    const auto fetchedWith = [&](const char* digestUrl) {
        Ask(cleanup, "RegistryAndDigestCleanup", std::string(R"({"digestUrl":")") + digestUrl + "\"}");
        const size_t before = server_.Requests().size();
        Fetch(true);
        return MethodsSince(before);
    };
    EXPECT_EQ(fetchedWith("https://a.example/d"), "HEAD GET");
    EXPECT_EQ(fetchedWith("https://a.example/d"), "HEAD");
    EXPECT_EQ(fetchedWith("https://b.example/d"), "HEAD GET");
    EXPECT_EQ(ReadFile(CachedPath()), digest_);
}

// Between its signature check and its copy the download waits in <root>/tmp, a folder of the
// service's own that nobody else can enter; one that others could reach is tightened or refused.
TEST_F(DigestFetchCommandTest, NoOtherUserCanReadOrReplaceTheDownload)
{
    if (!VEQ::Test::ChildProcess::IsRoot()) {
        GTEST_SKIP() << "needs root to act as nobody";
    }
    server_.Script("/digest", HttpsTestServer::Reply{200, {}, digest_});
    const auto privateFolder = [&] {
        struct stat status {};
        return ::lstat(TempFolder().c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
               status.st_uid == ::geteuid() && (status.st_mode & 07777) == 0700;
    };
    ASSERT_TRUE(Fetch(false).isSuccess);
    const std::string file = TempFolder() + "/digestv2.json.signed";
    ASSERT_EQ(Command::DigestTempPath(), String::UTF8ToUTF16(file));
    EXPECT_TRUE(privateFolder());
    const std::pair<std::string, int> asNobody[] = {
        {"test -x " + root_.PathUtf8(), 0},  // the check itself works
        {"cat " + file, 1},
        {"ls " + TempFolder(), 2},
        {"ln -s /etc/passwd " + TempFolder() + "/planted", 1},
        {"cp /etc/hostname " + file, 1},
    };
    for (const auto& [script, exitCode] : asNobody) {
        const auto outcome = VEQ::Test::ChildProcess::RunAsNobody({"sh", "-c", script});
        EXPECT_EQ(outcome.exitCode, exitCode) << script << ": " << outcome.output;
    }
    EXPECT_EQ(ReadFile(file), digest_);

    const std::string elsewhere = root_.BelowUtf8("elsewhere");
    const std::pair<const char*, std::function<int()>> folders[] = {
        {"open to all: tightened",
         [&] { return ::mkdir(TempFolder().c_str(), 0) + ::chmod(TempFolder().c_str(), 0777); }},
        {"nobody's: refused",
         [&] { return ::mkdir(TempFolder().c_str(), 0700) + ::chown(TempFolder().c_str(), 65534, 0); }},
        {"a link to nobody's folder: refused",
         [&] {
             return ::mkdir(elsewhere.c_str(), 0777) + ::chown(elsewhere.c_str(), 65534, 0) +
                    ::symlink(elsewhere.c_str(), TempFolder().c_str());
         }},
    };
    for (const auto& [what, prepare] : folders) {
        std::filesystem::remove_all(TempFolder());
        ASSERT_EQ(prepare(), 0) << what;
        const bool refused = std::string(what).ends_with("refused");
        const size_t before = server_.Requests().size();
        const Result result = Fetch(false);
        EXPECT_EQ(result.isSuccess, !refused) << what << ": " << result.message.statusText;
        EXPECT_EQ(MethodsSince(before), refused ? "" : "GET") << what;
        EXPECT_EQ(privateFolder(), !refused) << what << ": a refused folder is left as it was";
        EXPECT_FALSE(std::filesystem::exists(elsewhere + "/digestv2.json.signed")) << what;
    }
}

}  // namespace
}  // namespace VEQ
