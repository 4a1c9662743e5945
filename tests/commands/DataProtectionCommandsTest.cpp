// The data protection commands as a plugin uses them, against real keys on a temporary root.
// What the service produces is checked with OpenSSL directly, not with the service's own code.

#include "commands/GetDecryptedDataCommand.h"
#include "commands/GetDeviceAccessStampCommand.h"
#include "commands/GetEncryptedDataCommand.h"
#include "platform/Platform.h"
#include "platform/crypto/BinaryText.h"
#include "platform/crypto/CipherUtility.h"
#include "platform/crypto/DeviceCrypto.h"
#include "platform/crypto/DeviceKey.h"
#include "platform/crypto/OpenSslObjects.h"
#include "platform/fs/utility.h"
#include "platform/registry/CRegUtil.h"
#include "platform/registry/SqliteRegistryStore.h"
#include "platform/string/String.h"
#include "platform/util/CoreUtility.h"
#include "tests/support/TempRoot.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace VEQ {
namespace {

using Tavrin::Veq::ClientBroker::ExtensionType;
using Tavrin::Veq::ClientBroker::Result;
using PkeyContext = std::unique_ptr<EVP_PKEY_CTX, OpenSsl::Deleter<EVP_PKEY_CTX_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, OpenSsl::Deleter<EVP_MD_CTX_free>>;

constexpr const char* kGuid = "0B7E3C55-2A61-4F0E-8D2C-9A1E5F3B7C44";
constexpr const char* kPluginId = "com.example.vault";
constexpr const char* kDeviceId = "4C4C4544-003A-4E10-804A-B7C04F4D3432";
const std::wstring kPluginKey = std::wstring(GetDecryptedDataCommand::kPluginsKey) + L"com.example.vault";

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

Result Ask(BaseCommandHandler& handler, const std::string& command, const std::string& payload)
{
    bool pending = false;
    Result result = handler.GetResponse(Request(command, payload), pending);
    EXPECT_FALSE(pending) << command;
    return result;
}

std::string Json(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

Json::Value Parsed(const std::string& text)
{
    Json::Value value;
    std::istringstream stream(text);
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &errors)) << text;
    return value;
}

std::vector<unsigned char> FromBase64(const std::string& text)
{
    std::vector<unsigned char> bytes;
    EXPECT_TRUE(BinaryText::Base64ToBin(text, bytes)) << text;
    return bytes;
}

OpenSsl::Key KeyFromPem(const std::string& pem)
{
    const OpenSsl::Bio bio = OpenSsl::MemoryOf(pem.data(), pem.size());
    return OpenSsl::Key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
}

std::string PublicPem(EVP_PKEY* key)
{
    return DeviceKey::PemOfPublicKey(key);
}

bool UseOaep(EVP_PKEY_CTX* context)
{
    return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING) > 0 &&
           EVP_PKEY_CTX_set_rsa_oaep_md(context, EVP_sha256()) > 0 &&
           EVP_PKEY_CTX_set_rsa_mgf1_md(context, EVP_sha256()) > 0;
}

std::optional<std::string> OaepDecrypt(EVP_PKEY* key, const std::string& base64)
{
    const std::vector<unsigned char> cipher = FromBase64(base64);
    const PkeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    size_t size = 0;
    if (EVP_PKEY_decrypt_init(context.get()) <= 0 || !UseOaep(context.get()) ||
        EVP_PKEY_decrypt(context.get(), nullptr, &size, cipher.data(), cipher.size()) <= 0) {
        return std::nullopt;
    }
    std::string plain(size, '\0');
    if (EVP_PKEY_decrypt(context.get(), reinterpret_cast<unsigned char*>(plain.data()), &size, cipher.data(),
                         cipher.size()) <= 0) {
        return std::nullopt;
    }
    plain.resize(size);
    return plain;
}

bool VerifyStamp(EVP_PKEY* key, const std::string& text, const std::string& hexStamp)
{
    std::vector<unsigned char> signature;
    for (size_t n = 0; n + 1 < hexStamp.size(); n += 2) {
        signature.push_back(static_cast<unsigned char>(std::stoi(hexStamp.substr(n, 2), nullptr, 16)));
    }
    const DigestContext context(EVP_MD_CTX_new());
    return !signature.empty() && EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(),
                            reinterpret_cast<const unsigned char*>(text.data()), text.size()) == 1;
}

// The registry of the root, except that writing one value name fails.
class RegistryFailingOneValue : public IRegistryStore {
public:
    RegistryFailingOneValue(std::wstring root, std::wstring failing)
        : store_(std::move(root)), failing_(std::move(failing))
    {
    }
    bool CreateKey(Hive h, const std::wstring& k) override { return store_.CreateKey(h, k); }
    bool KeyExists(Hive h, const std::wstring& k) override { return store_.KeyExists(h, k); }
    bool SetString(Hive h, const std::wstring& k, const std::wstring& n, const std::wstring& v) override
    {
        return n != failing_ && store_.SetString(h, k, n, v);
    }
    bool SetDword(Hive h, const std::wstring& k, const std::wstring& n, uint32_t v) override
    {
        return store_.SetDword(h, k, n, v);
    }
    std::optional<std::wstring> GetString(Hive h, const std::wstring& k, const std::wstring& n) override
    {
        return store_.GetString(h, k, n);
    }
    std::optional<uint32_t> GetDword(Hive h, const std::wstring& k, const std::wstring& n) override
    {
        return store_.GetDword(h, k, n);
    }
    bool DeleteValue(Hive h, const std::wstring& k, const std::wstring& n) override { return store_.DeleteValue(h, k, n); }
    bool DeleteKey(Hive h, const std::wstring& k) override { return store_.DeleteKey(h, k); }
    bool DeleteUserKey(const std::wstring& u, const std::wstring& k) override { return store_.DeleteUserKey(u, k); }
    std::vector<std::wstring> ValueNames(Hive h, const std::wstring& k) override { return store_.ValueNames(h, k); }
    std::vector<std::wstring> SubKeys(Hive h, const std::wstring& k) override { return store_.SubKeys(h, k); }

private:
    SqliteRegistryStore store_;
    std::wstring failing_;
};

class DataProtectionCommandsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(utility::InitLog(log_, L"DataProtection.log", Log::kDebug));
        const std::wstring machineId = root_.Below(L"machine-id");
        std::ofstream(String::UTF16ToUTF8(machineId)) << "4c4c4544003a4e10804ab7c04f4d3432\n";
        CoreUtility::GetInstance()->SetMachineIdFiles({machineId});
    }
    void TearDown() override { CoreUtility::GetInstance()->SetMachineIdFiles(CoreUtility::DefaultMachineIdFiles()); }

    static OpenSsl::Key NewRsaKey(size_t bits = 2048)
    {
        return OpenSsl::Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", bits));
    }

    std::string DevicePublicPem()
    {
        std::string error;
        const std::string pem = DeviceKey(root_.Below(L"keys")).PublicKeyPem(error);
        EXPECT_FALSE(pem.empty()) << error;
        return pem;
    }

    // Data for the device as a back end makes it (EncryptValueWithKey is checked against OpenSSL above).
    std::string ForTheDevice(const std::string& plain) { return DeviceCrypto::EncryptValueWithKey(plain, DevicePublicPem()); }

    std::string Stored(const wchar_t* value)
    {
        std::wstring text;
        EXPECT_TRUE(CRegUtil::GetRegValueOfStringType(HKEY_LOCAL_MACHINE, kPluginKey, value, text)) << value;
        return String::UTF16ToUTF8(text);
    }

    // The stored key after the machine-bound unprotect, and the stored vector and tag.
    void ReadStored(std::vector<unsigned char>& key, std::vector<unsigned char>& iv, std::vector<unsigned char>& tag)
    {
        EXPECT_TRUE(CipherUtility::DPAPIDecrypt(FromBase64(Stored(L"dataKey")), key));
        const std::string ivTag = Stored(L"dataIvTag");
        ASSERT_EQ(ivTag.size(), 16u + 24u) << ivTag;  // base64 of 12 bytes, then of 16
        iv = FromBase64(ivTag.substr(0, 16));
        tag = FromBase64(ivTag.substr(16));
    }

    // Every log file of the root, one text.
    std::string AllLogs() const
    {
        std::string text;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root_.BelowUtf8("log"))) {
            std::ifstream file(entry.path(), std::ios::binary);
            text += std::string(std::istreambuf_iterator<char>(file), {});
        }
        return text;
    }

    static void ExpectFailedDecryption(const Result& result, const std::string& row)
    {
        EXPECT_TRUE(result.isSuccess) << row;
        EXPECT_EQ(result.message.statusCode, -1) << row;
        EXPECT_EQ(result.message.guid, kGuid) << row;
        EXPECT_EQ(result.message.notification.command, "Receive-DecryptedData") << row;
        EXPECT_EQ(result.message.notification.payload,
                  R"({"dataBase64":"","responseCode":"-1","responseDescription":"Failed"})")
            << row;
    }

    VEQ::Test::TempRoot root_;
    Log log_;
};

TEST_F(DataProtectionCommandsTest, EncryptedTextOpensWithTheNamedKeysPrivateKeyAndDiffersEveryTime)
{
    const OpenSsl::Key testKey = NewRsaKey();
    Json::Value request;
    request["textToEncrypt"] = "pairing code 0417";
    request["pubKey"] = PublicPem(testKey.get());
    GetEncryptedDataCommand command(log_);
    const Result first = Ask(command, "GetEncryptedDataCommand", Json(request));
    const Result second = Ask(command, "GetEncryptedDataCommand", Json(request));
    for (const Result* result : {&first, &second}) {
        EXPECT_TRUE(result->isSuccess);
        EXPECT_EQ(result->message.statusCode, 0);
        EXPECT_EQ(result->message.guid, kGuid);
        EXPECT_EQ(result->message.notification.command, "Receive-EncryptedData");
        EXPECT_EQ(OaepDecrypt(testKey.get(), result->message.notification.payload), "pairing code 0417");
    }
    EXPECT_NE(first.message.notification.payload, second.message.notification.payload);
}

TEST_F(DataProtectionCommandsTest, TextsThatCannotBeEncryptedToTheKeyGiveAnEmptySuccess)
{
    const OpenSsl::Key testKey = NewRsaKey();
    const std::string pem = PublicPem(testKey.get());
    const OpenSsl::Key smallKey = NewRsaKey(1024);
    const OpenSsl::Key ecKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    const std::string oneMiB(1024 * 1024, 'a');
    const auto payload = [](const Json::Value& text, const Json::Value& key) {
        Json::Value request;
        request["textToEncrypt"] = text;
        request["pubKey"] = key;
        return Json(request);
    };
    struct Row {
        const char* name;
        std::string payload;
    };
    const std::vector<Row> rows = {
        {"payload not JSON", "textToEncrypt=x"},
        {"key not a key", payload("x", "hello")},
        {"key a PEM block of garbage", payload("x", "-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n")},
        {"key an EC key", payload("x", PublicPem(ecKey.get()))},
        {"key of 1024 bits", payload("x", PublicPem(smallKey.get()))},
        {"key not a string", payload("x", Json::Value(Json::arrayValue))},
        {"text one byte longer than the key carries", payload(std::string(2048 / 8 - 66 + 1, 't'), pem)},
        {"text of 1 MiB", payload(oneMiB, pem)},
        {"key of 1 MiB", payload("x", oneMiB)},
    };
    GetEncryptedDataCommand command(log_);
    for (const Row& row : rows) {
        const Result result = Ask(command, "GetEncryptedDataCommand", row.payload);
        EXPECT_TRUE(result.isSuccess) << row.name;
        EXPECT_EQ(result.message.statusCode, 0) << row.name;
        EXPECT_EQ(result.message.notification.command, "Receive-EncryptedData") << row.name;
        EXPECT_EQ(result.message.notification.payload, "") << row.name;
    }
    // The longest text that fits does go through.
    const Result longest = Ask(command, "GetEncryptedDataCommand", payload(std::string(2048 / 8 - 66, 't'), pem));
    EXPECT_EQ(OaepDecrypt(testKey.get(), longest.message.notification.payload), std::string(2048 / 8 - 66, 't'));
}

TEST_F(DataProtectionCommandsTest, DecryptedDataComesBackUnderTheStoredKeyAndFreshEveryTime)
{
    Json::Value request;
    request["dataBase64"] = ForTheDevice("the plugin's secret");
    GetDecryptedDataCommand command(log_, kPluginId);
    std::vector<std::string> answers;
    std::vector<std::string> storedKeys;
    for (int n = 0; n < 2; ++n) {
        const Result result = Ask(command, "Get-DecryptedData", Json(request));
        EXPECT_TRUE(result.isSuccess);
        EXPECT_EQ(result.message.statusCode, 0);
        EXPECT_EQ(result.message.guid, kGuid);
        EXPECT_EQ(result.message.notification.command, "Receive-DecryptedData");
        const Json::Value reply = Parsed(result.message.notification.payload);
        EXPECT_EQ(reply["responseCode"], "0");
        EXPECT_EQ(reply["responseDescription"], "Success");

        std::vector<unsigned char> key;
        std::vector<unsigned char> iv;
        std::vector<unsigned char> tag;
        ReadStored(key, iv, tag);
        std::string opened;
        EXPECT_TRUE(CipherUtility::EVP_GCM_Decrypt(FromBase64(reply["dataBase64"].asString()), key, iv, tag, opened));
        EXPECT_EQ(opened, "the plugin's secret");
        EXPECT_EQ(key.size(), 16u);
        EXPECT_EQ(iv.size(), 12u);
        answers.push_back(reply["dataBase64"].asString());
        storedKeys.push_back(Stored(L"dataKey"));
    }
    EXPECT_NE(answers[0], answers[1]);
    EXPECT_NE(storedKeys[0], storedKeys[1]);
}

TEST_F(DataProtectionCommandsTest, DataThatDoesNotOpenGivesFailedWithSuccessAtTheProtocolLevel)
{
    const OpenSsl::Key otherKey = NewRsaKey(3072);
    std::string oneMiB(1024 * 1024 * 3 / 4, '\0');
    RAND_bytes(reinterpret_cast<unsigned char*>(oneMiB.data()), static_cast<int>(oneMiB.size()));
    const std::string valid = ForTheDevice("secret");
    struct Row {
        const char* name;
        std::string dataBase64;
    };
    const std::vector<Row> rows = {
        {"not base64", "this is not base64!"},
        {"base64 with a line break", valid.substr(0, 64) + "\n" + valid.substr(64)},
        {"encrypted to another key", DeviceCrypto::EncryptValueWithKey("secret", PublicPem(otherKey.get()))},
        {"encrypted to the device, one byte changed", valid.substr(0, 10) + (valid[10] == 'A' ? "B" : "A") + valid.substr(11)},
        {"1 MiB of base64", BinaryText::binToBase64String(reinterpret_cast<const unsigned char*>(oneMiB.data()),
                                                          oneMiB.size())},
        {"empty", ""},
    };
    GetDecryptedDataCommand command(log_, kPluginId);
    for (const Row& row : rows) {
        Json::Value request;
        request["dataBase64"] = row.dataBase64;
        ExpectFailedDecryption(Ask(command, "Get-DecryptedData", Json(request)), row.name);
    }
    ExpectFailedDecryption(Ask(command, "Get-DecryptedData", "{not json"), "payload not JSON");
    EXPECT_NE(AllLogs().find("VEQ::GetDecryptedDataCommand::GetResponse: Encrypted data is empty"), std::string::npos);
}

TEST_F(DataProtectionCommandsTest, AFailedIvAndTagWriteFailsTheReplyWhileTheNewKeyStaysStored)
{
    root_.Reinstall({.registry = std::make_shared<RegistryFailingOneValue>(root_.Below(L"registry"), L"dataIvTag")},
                    {});
    ASSERT_TRUE(CRegUtil::SetKeyValue(HKEY_LOCAL_MACHINE, kPluginKey, L"dataKey", std::wstring(L"earlier")));
    Json::Value request;
    request["dataBase64"] = ForTheDevice("secret");
    GetDecryptedDataCommand command(log_, kPluginId);
    ExpectFailedDecryption(Ask(command, "Get-DecryptedData", Json(request)), "dataIvTag not written");
    std::vector<unsigned char> key;
    EXPECT_TRUE(CipherUtility::DPAPIDecrypt(FromBase64(Stored(L"dataKey")), key));
    EXPECT_EQ(key.size(), 16u) << "dataKey holds the new, protected key";
    EXPECT_NE(AllLogs().find("VEQ::GetDecryptedDataCommand::EncryptDataAndStoreRegValues: Failed"), std::string::npos);
}

TEST_F(DataProtectionCommandsTest, TheStampSignsDeviceIdAndTimestampAsSentWithTheDeviceKey)
{
    struct Row {
        const char* name;
        std::string payload;
        std::string timestamp;
    };
    const std::string long_(1024 * 1024, '9');
    const std::vector<Row> rows = {
        {"a timestamp", R"({"timestamp":"2026-11-23T14:05:00Z"})", "2026-11-23T14:05:00Z"},
        {"a timestamp with line feeds", R"({"timestamp":"2026-11-23\n\nT14:05:00Z\n"})", "2026-11-23\n\nT14:05:00Z\n"},
        {"no timestamp", "{}", ""},
        {"a timestamp that is no string", R"({"timestamp":20261123})", ""},
        {"a payload that is no JSON", "timestamp=now", ""},
        {"a timestamp of 1 MiB", R"({"timestamp":")" + long_ + R"("})", long_},
    };
    const OpenSsl::Key deviceKey = KeyFromPem(DevicePublicPem());
    GetDeviceAccessStampCommand command(log_);
    for (const Row& row : rows) {
        const Result result = Ask(command, "Get-DeviceAccessStamp", row.payload);
        EXPECT_TRUE(result.isSuccess) << row.name;
        EXPECT_EQ(result.message.statusCode, 0) << row.name;
        EXPECT_EQ(result.message.guid, kGuid) << row.name;
        EXPECT_EQ(result.message.notification.command, "Receive-DeviceAccessStamp") << row.name;
        const Json::Value reply = Parsed(result.message.notification.payload);
        EXPECT_EQ(reply["deviceId"], kDeviceId) << row.name;
        EXPECT_EQ(reply["timestamp"], row.timestamp) << row.name;
        const std::string stamp = reply["stamp"].asString();
        EXPECT_EQ(stamp.size(), 3072u / 8 * 2) << row.name;
        EXPECT_TRUE(VerifyStamp(deviceKey.get(), std::string("device\n") + kDeviceId + "\n" + row.timestamp, stamp))
            << row.name;
        EXPECT_FALSE(VerifyStamp(deviceKey.get(), std::string("device\n") + kDeviceId + "\n" + row.timestamp + "0",
                                 stamp))
            << row.name << ": another timestamp";
    }
    EXPECT_NE(AllLogs().find("VEQ::GetDeviceAccessStampCommand::GetResponse: ProcessMessageData error, errs = "),
              std::string::npos);
}

TEST_F(DataProtectionCommandsTest, DataCommandsServeElevatedPluginsOnlyAndTheStampEveryClient)
{
    GetEncryptedDataCommand encrypt(log_);
    GetDecryptedDataCommand decrypt(log_, kPluginId);
    GetDeviceAccessStampCommand stamp(log_);
    struct Row {
        ElevationType side;
        ExtensionType kind;
        bool dataCommands;
        bool stampCommand;
    };
    const std::vector<Row> rows = {
        {ElevationType::Elevated, ExtensionType::Plugin, true, true},
        {ElevationType::User, ExtensionType::Plugin, false, true},
        {ElevationType::Elevated, ExtensionType::App, false, true},
        {ElevationType::User, ExtensionType::App, false, true},
        {ElevationType::None, ExtensionType::Plugin, false, false},
    };
    for (const Row& row : rows) {
        BrokerContext context;
        context.setElevationType(row.side);
        context.setExtensionType(row.kind);
        const std::string name = "side " + std::to_string(static_cast<int>(row.side)) + ", type " +
                                 std::to_string(static_cast<int>(row.kind));
        EXPECT_EQ(encrypt.IsApplicable(context), row.dataCommands) << name;
        EXPECT_EQ(decrypt.IsApplicable(context), row.dataCommands) << name;
        EXPECT_EQ(stamp.IsApplicable(context), row.stampCommand) << name;
    }
    for (BaseCommandHandler* handler : std::initializer_list<BaseCommandHandler*>{&encrypt, &decrypt, &stamp}) {
        const Result refused = Ask(*handler, "Get-VeqStatus", "{}");
        EXPECT_FALSE(refused.isSuccess) << handler->GetSupportedCommandNames()[0];
        EXPECT_EQ(refused.message.statusCode, -1) << handler->GetSupportedCommandNames()[0];
        EXPECT_EQ(refused.message.statusText, "Command not Supported") << handler->GetSupportedCommandNames()[0];
    }
}

TEST_F(DataProtectionCommandsTest, NoKeyMaterialReachesTheLogsOrTheReplies)
{
    const std::string secret = "the plugin's secret 5b1f";
    std::string replies;
    GetDecryptedDataCommand decrypt(log_, kPluginId);
    GetEncryptedDataCommand encrypt(log_);
    GetDeviceAccessStampCommand stamp(log_);
    Json::Value request;
    request["dataBase64"] = ForTheDevice(secret);
    replies += Ask(decrypt, "Get-DecryptedData", Json(request)).message.notification.payload;
    replies += Ask(decrypt, "Get-DecryptedData", R"({"dataBase64":"@@@@"})").message.notification.payload;
    Json::Value toEncrypt;
    toEncrypt["textToEncrypt"] = secret;
    toEncrypt["pubKey"] = "not a key";
    replies += Ask(encrypt, "GetEncryptedDataCommand", Json(toEncrypt)).message.notification.payload;
    replies += Ask(stamp, "Get-DeviceAccessStamp", R"({"timestamp":"now"})").message.notification.payload;

    std::vector<unsigned char> dataKey;
    std::vector<unsigned char> iv;
    std::vector<unsigned char> tag;
    ReadStored(dataKey, iv, tag);
    std::ifstream machineFile(root_.BelowUtf8("keys/machine.key"), std::ios::binary);
    const std::string machineKey{std::istreambuf_iterator<char>(machineFile), {}};
    ASSERT_EQ(machineKey.size(), 32u);
    const auto* machineBytes = reinterpret_cast<const unsigned char*>(machineKey.data());
    std::vector<std::string> material = {
        secret,
        BinaryText::binToBase64String(dataKey),
        BinaryText::BinToHexString(dataKey.data(), dataKey.size()),
        BinaryText::binToBase64String(machineBytes, machineKey.size()),
        BinaryText::BinToHexString(machineBytes, machineKey.size()),
        machineKey,
        "PRIVATE KEY",
    };
    std::ifstream privateFile(root_.BelowUtf8("keys/device-key.pem"));
    std::string line;
    std::getline(privateFile, line);  // the PEM header
    for (int n = 0; n < 3 && std::getline(privateFile, line);) {
        material.push_back(line);  // lines of the private key's body
        ++n;
    }
    const std::string logs = AllLogs();
    ASSERT_NE(logs.find("Encrypted data is empty"), std::string::npos) << "the logs were captured";
    for (const std::string& piece : material) {
        EXPECT_EQ(logs.find(piece), std::string::npos) << "in the logs: " << piece;
        EXPECT_EQ(replies.find(piece), std::string::npos) << "in a reply: " << piece;
    }
}

}  // namespace
}  // namespace VEQ
