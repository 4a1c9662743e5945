// The HTTP client against a real HTTPS server on loopback: what a back end receives, the two
// kinds of TLS, redirects, slow servers, size limits and the response file.

#include "platform/http/HttpClient.h"
#include "tests/support/HttpsTestServer.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/TestCa.h"

#include <gtest/gtest.h>

#include <curl/curl.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <thread>

namespace VEQ {
namespace {

using namespace std::chrono_literals;
using Test::HttpsTestServer;
using Test::TestCa;
using Headers = std::map<std::string, std::string>;

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

class HttpClientTest : public ::testing::Test {
protected:
    HttpClientSettings Settings() const
    {
        HttpClientSettings settings;
        settings.publicCaFile = ca_.CaFile();
        settings.caFile = ca_.CaFile();
        settings.clientCert = device_.certFile;
        settings.clientKey = device_.keyFile;
        settings.connectTimeout = 3s;
        settings.totalTimeout = 5s;
        return settings;
    }

    VEQCore::InvokeHttpResponse Send(const HttpClient& client, const std::string& url,
                                     VEQCore::HttpMethodCode method = VEQCore::HttpGet, const Headers& headers = {},
                                     const std::string& payload = "", int32_t authType = HttpClient::kAuthServerOnly,
                                     const std::string& responseFile = "")
    {
        return client.SendHttpRequest(url, headers, method, payload, authType, true, responseFile);
    }

    // Files of the scratch directory that the client might have left behind.
    size_t FilesIn(const std::string& directory) const
    {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
    }

    VEQ::Test::ScratchRoot root_{"veq-http"};
    TestCa ca_{root_.Path() + "/ca", "Back-end CA"};
    TestCa other_{root_.Path() + "/other", "Other CA"};
    TestCa::TlsIdentity device_ = ca_.IssueClient("device", "device-1");
    HttpsTestServer server_{ca_.IssueServer("server")};
};

TEST_F(HttpClientTest, EachMethodCarriesItsBodyAndFieldsToTheServer)
{
    HttpsTestServer::Reply reply;
    reply.status = 201;
    reply.headers = {{"Etag", "\"v7\""}, {"X-Part", "one"}, {"x-part", "two"}};
    reply.body = std::string("re\0ply", 6);
    server_.Script("/api/items", reply);
    const HttpClient client(Settings());
    struct Row {
        VEQCore::HttpMethodCode code;
        const char* method;
        bool carriesBody;
    };
    const Row rows[] = {{VEQCore::HttpGet, "GET", false},
                        {VEQCore::HttpHead, "HEAD", false},
                        {VEQCore::HttpPost, "POST", true},
                        {VEQCore::HttpPut, "PUT", true},
                        {VEQCore::HttpDelete, "DELETE", true}};
    const Headers headers = {{"Content-Type", "application/json"}, {"clientid", "key-1"}, {"X-Empty", ""}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.method);
        const size_t before = server_.Requests().size();
        const auto response = Send(client, server_.Url("/api/items?lang=en&geo=us"), row.code, headers, "{\"a\":1}");

        EXPECT_EQ(response.httpStatus, 201) << response.errorMessage;
        EXPECT_EQ(response.errorCode, 0);
        const size_t etag = response.headers.FindKey(0, "ETAG", 4);
        EXPECT_EQ(response.headers.GetValueAt(etag), "\"v7\"");
        const size_t first = response.headers.FindKey(0, "X-Part", 6);
        EXPECT_EQ(response.headers.GetValueAt(first), "one");
        EXPECT_EQ(response.headers.GetValueAt(response.headers.FindKey(first + 1, "X-Part", 6)), "two");
        EXPECT_EQ(response.headers.FindKey(0, "X-Absent", 8), VEQCore::HttpHeaders::npos);
        EXPECT_EQ(HttpClient::ConvertBytesToString(response.body), row.code == VEQCore::HttpHead ? "" : reply.body);

        const auto requests = server_.Requests();
        ASSERT_EQ(requests.size(), before + 1);
        const auto& seen = requests.back();
        EXPECT_EQ(seen.method, row.method);
        EXPECT_EQ(seen.path, "/api/items");
        EXPECT_EQ(seen.query, "lang=en&geo=us");
        EXPECT_EQ(seen.body, row.carriesBody ? "{\"a\":1}" : "");
        EXPECT_EQ(seen.Header("clientid"), "key-1");
        EXPECT_EQ(seen.HeaderCount("X-Empty"), 1u);
        EXPECT_EQ(seen.HeaderCount("Content-Type"), 1u);
        EXPECT_EQ(seen.Header("Content-Type"), "application/json");
        EXPECT_EQ(seen.Header("User-Agent").rfind("veq/", 0), 0u);
    }
}

TEST_F(HttpClientTest, RefusedArgumentsNeverReachTheServer)
{
    HttpClientSettings noCertificate = Settings();
    noCertificate.clientCert.clear();
    struct Row {
        const char* name;
        HttpClientSettings settings;
        std::string url;
        Headers headers;
        int32_t method;
        int32_t authType;
    };
    const std::string url = server_.Url("/x");
    const Row rows[] = {
        {"CR LF in a value", Settings(), url, {{"X-A", "a\r\nX-Injected: 1"}}, VEQCore::HttpGet, 0},
        {"LF in a value", Settings(), url, {{"X-A", "a\nb"}}, VEQCore::HttpGet, 0},
        {"CR in a name", Settings(), url, {{"X-A\r", "a"}}, VEQCore::HttpGet, 0},
        {"colon in a name", Settings(), url, {{"X-A: b", "a"}}, VEQCore::HttpGet, 0},
        {"empty name", Settings(), url, {{"", "a"}}, VEQCore::HttpGet, 0},
        {"unknown method", Settings(), url, {}, 7, 0},
        {"unknown authType", Settings(), url, {}, VEQCore::HttpGet, 2},
        {"plain http", Settings(), "http://127.0.0.1:" + std::to_string(server_.Port()) + "/x", {}, VEQCore::HttpGet, 0},
        {"mutual TLS without a certificate", noCertificate, url, {}, VEQCore::HttpGet, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const HttpClient client(row.settings);
        const auto response =
            Send(client, row.url, static_cast<VEQCore::HttpMethodCode>(row.method), row.headers, "", row.authType);
        EXPECT_EQ(response.httpStatus, 0);
        EXPECT_NE(response.errorCode, 0);
        EXPECT_FALSE(response.errorMessage.empty());
    }
    EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(HttpClientTest, MutualTlsNeedsTheDeviceCertificateOfTheServersCa)
{
    HttpsTestServer mtls(ca_.IssueServer("mtls-server"), ca_.CaFile());
    mtls.Script("/device", {});
    HttpClientSettings foreign = Settings();
    const auto stranger = other_.IssueClient("stranger", "device-1");
    foreign.clientCert = stranger.certFile;
    foreign.clientKey = stranger.keyFile;
    struct Row {
        const char* name;
        HttpClientSettings settings;
        int32_t authType;
        bool accepted;
    };
    const Row rows[] = {{"device certificate", Settings(), HttpClient::kAuthMutualTls, true},
                        {"no certificate (authType 0)", Settings(), HttpClient::kAuthServerOnly, false},
                        {"certificate of another CA", foreign, HttpClient::kAuthMutualTls, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const size_t before = mtls.Requests().size();
        const auto response = Send(HttpClient(row.settings), mtls.Url("/device"), VEQCore::HttpGet, {}, "", row.authType);
        if (row.accepted) {
            EXPECT_EQ(response.httpStatus, 200) << response.errorMessage;
            ASSERT_EQ(mtls.Requests().size(), before + 1);
            EXPECT_EQ(mtls.Requests().back().clientCommonName, "device-1");
        } else {
            EXPECT_EQ(response.httpStatus, 0);
            EXPECT_NE(response.errorCode, 0) << response.errorMessage;
            EXPECT_EQ(mtls.Requests().size(), before);
        }
    }
}

TEST_F(HttpClientTest, AServerOfAnotherCaIsRefusedForBothKindsOfTls)
{
    server_.Script("/x", {});
    HttpClientSettings settings = Settings();
    settings.caFile = other_.CaFile();
    settings.publicCaFile = other_.CaFile();
    const HttpClient client(settings);
    for (int32_t authType : {HttpClient::kAuthServerOnly, HttpClient::kAuthMutualTls}) {
        SCOPED_TRACE(authType);
        const auto response = Send(client, server_.Url("/x"), VEQCore::HttpGet, {}, "", authType);
        EXPECT_EQ(response.httpStatus, 0);
        EXPECT_EQ(response.errorCode, CURLE_PEER_FAILED_VERIFICATION) << response.errorMessage;
    }
    EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(HttpClientTest, ARedirectReachesTheCallerAndIsNotFollowed)
{
    HttpsTestServer elsewhere(ca_.IssueServer("elsewhere"));
    HttpsTestServer::Reply redirect;
    redirect.status = 302;
    redirect.headers = {{"Location", elsewhere.Url("/landing")}};
    server_.Script("/go", redirect);

    const auto response = Send(HttpClient(Settings()), server_.Url("/go"), VEQCore::HttpPost, {}, "secret");

    EXPECT_EQ(response.httpStatus, 302);
    EXPECT_EQ(response.headers.GetValueAt(response.headers.FindKey(0, "location", 8)), elsewhere.Url("/landing"));
    EXPECT_TRUE(elsewhere.Requests().empty());
}

TEST_F(HttpClientTest, SlowServersAreGivenUpWithinTheLimits)
{
    HttpsTestServer::Reply hang;
    hang.hang = true;
    HttpsTestServer::Reply late;
    late.delay = 30s;
    HttpsTestServer::Reply trickle;
    trickle.body = std::string(4096, 't');
    trickle.trickleBytesPerSecond = 20;
    server_.Script("/hang", hang);
    server_.Script("/late", late);
    server_.Script("/trickle", trickle);

    HttpClientSettings shortTotal = Settings();
    shortTotal.totalTimeout = 500ms;
    HttpClientSettings slowLimit = Settings();
    slowLimit.totalTimeout = 30s;
    slowLimit.lowSpeedBytesPerSecond = 200;
    slowLimit.lowSpeedTime = 1s;
    struct Row {
        const char* path;
        HttpClientSettings settings;
        const char* reason;
    };
    const Row rows[] = {{"/hang", shortTotal, "timed out"},
                        {"/late", shortTotal, "timed out"},
                        {"/hang", slowLimit, "too slow"},
                        {"/trickle", slowLimit, "too slow"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path);
        const auto response = Send(HttpClient(row.settings), server_.Url(row.path));
        EXPECT_EQ(response.httpStatus, 0);
        EXPECT_EQ(response.errorCode, CURLE_OPERATION_TIMEDOUT);
        EXPECT_NE(response.errorMessage.find(row.reason), std::string::npos) << response.errorMessage;
        EXPECT_TRUE(response.body.empty());
    }
}

TEST_F(HttpClientTest, DefaultsEndEveryExchangeInsideTheBrokersWait)
{
    const HttpClientSettings defaults;
    EXPECT_EQ(defaults.connectTimeout, 10s);
    EXPECT_EQ(defaults.totalTimeout, 50s);
    EXPECT_EQ(defaults.lowSpeedBytesPerSecond, 1024);
    EXPECT_EQ(defaults.lowSpeedTime, 20s);
    EXPECT_EQ(defaults.maxBodyBytes, 16 * 1024 * 1024);
    EXPECT_EQ(defaults.maxFileBytes, 64 * 1024 * 1024);
    EXPECT_LT(HttpClientSettings::kMaxTotalTimeout, 58s);

    HttpClientSettings tooLong;
    tooLong.connectTimeout = 120s;
    tooLong.totalTimeout = 120s;
    const HttpClient client(tooLong);
    EXPECT_EQ(client.Settings().totalTimeout, HttpClientSettings::kMaxTotalTimeout);
    EXPECT_EQ(client.Settings().connectTimeout, HttpClientSettings::kMaxTotalTimeout);
}

TEST_F(HttpClientTest, ABodyOverTheLimitEndsTheExchangeAndLeavesNoFile)
{
    const std::string target = root_.Path() + "/out/body";
    std::filesystem::create_directories(root_.Path() + "/out");
    HttpClientSettings settings = Settings();
    settings.maxBodyBytes = 64 * 1024;
    settings.maxFileBytes = 128 * 1024;
    const HttpClient client(settings);
    for (bool chunked : {false, true}) {
        for (const std::string& file : {std::string(), target}) {
            SCOPED_TRACE(std::string(chunked ? "chunked" : "with a length") + (file.empty() ? " to memory" : " to a file"));
            HttpsTestServer::Reply big;
            big.body = std::string(file.empty() ? 64 * 1024 + 1 : 128 * 1024 + 1, 'b');
            big.chunked = chunked;
            server_.Script("/big", big);
            const auto response = Send(client, server_.Url("/big"), VEQCore::HttpGet, {}, "", 0, file);
            EXPECT_EQ(response.httpStatus, 0);
            EXPECT_EQ(response.errorCode, CURLE_FILESIZE_EXCEEDED) << response.errorMessage;
            EXPECT_TRUE(response.body.empty());
            EXPECT_EQ(FilesIn(root_.Path() + "/out"), 0u);
        }
    }
    HttpsTestServer::Reply fits;
    fits.body = std::string(64 * 1024, 'f');
    server_.Script("/fits", fits);
    EXPECT_EQ(Send(client, server_.Url("/fits")).body.size(), fits.body.size());
}

TEST_F(HttpClientTest, AResponseFileGetsOnlyTheBodyOfACompleteSuccess)
{
    const std::string directory = root_.Path() + "/out";
    std::filesystem::create_directories(directory);
    const std::string target = directory + "/digest.json.signed";
    HttpsTestServer::Reply digest;
    digest.body = "signed digest";
    digest.headers = {{"Etag", "\"d1\""}};
    server_.Script("/digest", digest);
    HttpsTestServer::Reply missing;
    missing.status = 404;
    missing.body = "gone";
    server_.Script("/missing", missing);
    HttpsTestServer::Reply stalled;
    stalled.hang = true;
    server_.Script("/stalled", stalled);
    HttpClientSettings settings = Settings();
    settings.totalTimeout = 500ms;
    const HttpClient client(settings);

    const auto ok = Send(client, server_.Url("/digest"), VEQCore::HttpGet, {}, "", 0, target);
    EXPECT_EQ(ok.httpStatus, 200);
    EXPECT_TRUE(ok.body.empty());
    EXPECT_EQ(ReadFile(target), "signed digest");
    struct stat status {};
    ASSERT_EQ(::lstat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);

    struct Row {
        const char* path;
        int32_t status;
        std::string body;
    };
    const Row rows[] = {{"/missing", 404, "gone"}, {"/stalled", 0, ""}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path);
        const auto response = Send(client, server_.Url(row.path), VEQCore::HttpGet, {}, "", 0, target);
        EXPECT_EQ(response.httpStatus, row.status);
        EXPECT_EQ(HttpClient::ConvertBytesToString(response.body), row.body);
        EXPECT_EQ(ReadFile(target), "signed digest");
        EXPECT_EQ(FilesIn(directory), 1u);
    }

    // A link planted at the target is replaced, and what it points to is not written.
    const std::string victim = root_.Path() + "/victim";
    WriteFile(victim, "keep");
    std::filesystem::remove(target);
    std::filesystem::create_symlink(victim, target);
    EXPECT_EQ(Send(client, server_.Url("/digest"), VEQCore::HttpGet, {}, "", 0, target).httpStatus, 200);
    EXPECT_FALSE(std::filesystem::is_symlink(target));
    EXPECT_EQ(ReadFile(target), "signed digest");
    EXPECT_EQ(ReadFile(victim), "keep");
}

TEST_F(HttpClientTest, ThreadsSendAtTheSameTime)
{
    server_.Script("/ping", {});
    const HttpClient client(Settings());
    std::vector<std::thread> threads;
    std::atomic<int> answered{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 3; ++i) {
                answered += client.SendHttpRequest(server_.Url("/ping"), {}, VEQCore::HttpGet, "", 0, true, "").httpStatus == 200;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(answered, 12);
}

TEST(HttpClientBaseTest, OnlyURLsBelowTheBaseAreWithinIt)
{
    const std::string base = "https://api.example.com/v1";
    const struct {
        std::string url;
        bool within;
    } rows[] = {
        {"https://api.example.com/v1", true},
        {"https://api.example.com/v1/devices?x=1", true},
        {"https://API.example.com:443/v1/devices", true},
        {"https://api.example.com/v1/../admin", false},
        {"https://api.example.com/v10", false},
        {"https://api.example.com.evil.net/v1/x", false},
        {"https://api.example.com@evil.net/v1/x", false},
        {"https://user@api.example.com/v1/x", false},
        {"https://api.example.com:8443/v1/x", false},
        {"http://api.example.com/v1/x", false},
        {"https://other.example.com/v1/x", false},
        {"not a url", false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(HttpClient::IsWithinBase(row.url, base), row.within) << row.url;
    }
    EXPECT_TRUE(HttpClient::IsWithinBase("https://api.example.com/x", "https://api.example.com"));
    EXPECT_TRUE(HttpClient::IsWithinBase("https://api.example.com/v1/x", "https://api.example.com/v1/"));
}

}  // namespace
}  // namespace VEQ
