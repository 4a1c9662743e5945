#include "platform/crypto/CertificateValidationWrapper.h"
#include "platform/crypto/CodeSigner.h"
#include "platform/crypto/OpenSslCodeTrust.h"
#include "platform/crypto/SignatureTrailer.h"
#include "platform/string/String.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestCa.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

namespace VEQ {
namespace {

std::string Read(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void Write(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

class CodeTrustTest : public ::testing::Test {
protected:
    std::string Path(const std::string& name) const { return root_.BelowUtf8(name); }

    // A fresh file signed by the trusted signer.
    std::string Signed(const std::string& name, const std::string& content = std::string("\x7f" "ELF program bytes", 17))
    {
        Write(Path(name), content);
        ca_.SignFile(Path(name));
        return Path(name);
    }

    VEQ::Test::TempRoot root_;
    VEQ::Test::TestCa ca_{root_.BelowUtf8("ca"), "Trusted CA"};
    VEQ::Test::TestCa other_{root_.BelowUtf8("other"), "Other CA"};
    OpenSslCodeTrust trust_{ca_.CaFile()};
};

TEST(SignatureTrailerTest, ReadsOnlyATrailerThatTheFileCanHold)
{
    const std::string good = SignatureTrailer::Make(100);
    struct Row {
        const char* name;
        uint64_t fileSize;
        std::string tail;
        SignatureTrailer::Parse parse;
    };
    std::string badMagic = good;
    badMagic.back() = 'x';
    const Row rows[] = {
        {"fits", 1000, good, SignatureTrailer::Parse::Valid},
        {"signature and trailer only", 100 + SignatureTrailer::kSize, good, SignatureTrailer::Parse::Valid},
        {"one byte short", 99 + SignatureTrailer::kSize, good, SignatureTrailer::Parse::Malformed},
        {"zero length", 1000, SignatureTrailer::Make(0), SignatureTrailer::Parse::Malformed},
        {"absurd length", 1ull << 40, SignatureTrailer::Make(1ull << 30), SignatureTrailer::Parse::Malformed},
        {"wrapping length", 1000, SignatureTrailer::Make(~0ull), SignatureTrailer::Parse::Malformed},
        {"other magic", 1000, badMagic, SignatureTrailer::Parse::NotSigned},
        {"file shorter than a trailer", SignatureTrailer::kSize - 1, good, SignatureTrailer::Parse::NotSigned},
        {"short tail", 1000, good.substr(1), SignatureTrailer::Parse::NotSigned},
    };
    for (const Row& row : rows) {
        uint64_t content = 0;
        uint64_t signature = 0;
        std::string reason;
        EXPECT_EQ(SignatureTrailer::Read(row.fileSize, row.tail, content, signature, reason), row.parse) << row.name;
        if (row.parse == SignatureTrailer::Parse::Valid) {
            EXPECT_EQ(signature, 100u) << row.name;
            EXPECT_EQ(content + signature + SignatureTrailer::kSize, row.fileSize) << row.name;
        }
    }
}

TEST_F(CodeTrustTest, AcceptsOnlyFilesATrustedSignerSignedAsTheyAre)
{
    const std::function<std::string()> cases[] = {
        [&] { return Signed("valid"); },
        [&] {
            Write(Path("unsigned"), "plain bytes, no signature at all");
            return Path("unsigned");
        },
        [&] {
            const std::string path = Signed("tampered");
            std::string bytes = Read(path);
            bytes[3] ^= 0x01;
            Write(path, bytes);
            return path;
        },
        [&] {
            Write(Path("foreign"), "code");
            other_.SignFile(Path("foreign"));
            return Path("foreign");
        },
        [&] {
            Write(Path("expired"), "code");
            ca_.SignFileExpired(Path("expired"));
            return Path("expired");
        },
        [&] {
            const std::string path = Signed("truncated");
            const std::string bytes = Read(path);
            Write(path, bytes.substr(0, bytes.size() - 5));
            return path;
        },
        [&] {
            const std::string path = Signed("lying");
            std::string bytes = Read(path);
            const std::string lie = SignatureTrailer::Make(bytes.size());
            bytes.replace(bytes.size() - lie.size(), lie.size(), lie);
            Write(path, bytes);
            return path;
        },
        [&] {
            Write(Path("garbage-signature"), "code" + std::string(64, '\x30') + SignatureTrailer::Make(64));
            return Path("garbage-signature");
        },
        [&] {
            Write(Path("empty"), "");
            return Path("empty");
        },
        [&] { return Path("missing"); },
        [&] { return root_.PathUtf8(); },
    };
    const int expected[] = {
        SignatureCheckResult::kValid,           SignatureCheckResult::kNotSigned, SignatureCheckResult::kContentMismatch,
        SignatureCheckResult::kUntrusted,       SignatureCheckResult::kUntrusted, SignatureCheckResult::kNotSigned,
        SignatureCheckResult::kMalformed,       SignatureCheckResult::kMalformed, SignatureCheckResult::kNotSigned,
        SignatureCheckResult::kUnreadable,      SignatureCheckResult::kUnreadable,
    };
    for (size_t row = 0; row < std::size(cases); ++row) {
        const std::string path = cases[row]();
        const SignatureCheckResult result = trust_.VerifyFile(path);
        EXPECT_EQ(result.status, expected[row]) << path << ": " << result.message;
        EXPECT_EQ(result.isValid, expected[row] == SignatureCheckResult::kValid) << path;
        EXPECT_FALSE(result.message.empty()) << path;
    }
}

TEST_F(CodeTrustTest, NothingIsTrustedWithoutReadableAnchors)
{
    const std::string path = Signed("valid");
    for (const std::string& anchors : {std::string(), Path("no-such-ca.pem"), path}) {
        const SignatureCheckResult result = OpenSslCodeTrust(anchors).VerifyFile(path);
        EXPECT_EQ(result.status, SignatureCheckResult::kNoTrustAnchors) << "anchors: " << anchors;
    }
}

TEST_F(CodeTrustTest, TheGateFollowsTheConfiguredAnchorsAndTheModulesPaths)
{
    const std::string path = Signed("host.exe");
    PlatformSettings settings;
    settings.trustCaFile = String::UTF8ToUTF16(ca_.CaFile());
    root_.Reinstall({}, settings);
    EXPECT_TRUE(CertificateValidationWrapper::IsFileValid(String::UTF8ToUTF16(path)));
    std::filesystem::create_directories(root_.BelowUtf8("system/Service/Hosts/x64"));
    std::filesystem::copy_file(path, root_.BelowUtf8("system/Service/Hosts/x64/VEQPluginHost.exe"));
    EXPECT_TRUE(CertificateValidationWrapper::IsFileValid(root_.SystemRoot() +
                                                          L"\\drivers\\Tavrin\\VEQ\\Service\\Hosts\\x64\\VEQPluginHost.exe"))
        << "a copy stays signed, and the module's spelling of the path reaches it";
    settings.trustCaFile = String::UTF8ToUTF16(other_.CaFile());
    root_.Reinstall({}, settings);
    EXPECT_FALSE(CertificateValidationWrapper::IsFileValid(String::UTF8ToUTF16(path)));
}

TEST_F(CodeTrustTest, SigningAgainReplacesTheSignatureAndStrippingGivesTheContentBack)
{
    const std::string content(5000, 'c');
    const std::string path = Signed("twice", content);
    const size_t onceSize = Read(path).size();
    ca_.SignFile(path);
    EXPECT_EQ(trust_.VerifyFile(path).status, SignatureCheckResult::kValid);
    EXPECT_LT(Read(path).size(), onceSize + 100) << "signatures are not stacked";
    std::string error;
    ASSERT_TRUE(CodeSigner::StripSignature(path, error)) << error;
    EXPECT_EQ(Read(path), content);
    ASSERT_TRUE(CodeSigner::StripSignature(path, error)) << "stripping an unsigned file changes nothing";
    EXPECT_EQ(Read(path), content);
}

TEST_F(CodeTrustTest, EnvelopesOpenStrictlyOnlyForATrustedSigner)
{
    const std::string document = R"({"plugins": [{"pluginId": "A"}]})";
    const std::string envelope = ca_.Envelope(document);
    std::string tampered = envelope;
    tampered[tampered.size() / 2] = tampered[tampered.size() / 2] == 'A' ? 'B' : 'A';
    struct Row {
        const char* name;
        std::string encoded;
        int strict;
        int lenient;
        std::string lenientContent;
    };
    const Row rows[] = {
        {"trusted", envelope, SignatureCheckResult::kValid, SignatureCheckResult::kValid, document},
        {"other CA", other_.Envelope(document), SignatureCheckResult::kUntrusted, SignatureCheckResult::kValid, document},
        {"plain JSON", document, SignatureCheckResult::kNotSigned, SignatureCheckResult::kValid, document},
        {"truncated", envelope.substr(0, envelope.size() / 2), SignatureCheckResult::kNotSigned,
         SignatureCheckResult::kValid, envelope.substr(0, envelope.size() / 2)},
        {"garbage", std::string("\x30\x82\xff\xff garbage", 12), SignatureCheckResult::kNotSigned,
         SignatureCheckResult::kValid, std::string("\x30\x82\xff\xff garbage", 12)},
        {"too large", std::string(OpenSslCodeTrust::kMaxEnvelopeBytes + 1, '{'), SignatureCheckResult::kMalformed,
         SignatureCheckResult::kMalformed, ""},
    };
    for (const Row& row : rows) {
        std::string decoded;
        const SignatureCheckResult strict = trust_.DecodeSignedContent(row.encoded, decoded, true);
        EXPECT_EQ(strict.status, row.strict) << row.name << ": " << strict.message;
        if (strict.isValid) {
            EXPECT_EQ(decoded, document) << row.name;
        }
        decoded.clear();
        const SignatureCheckResult lenient = trust_.DecodeSignedContent(row.encoded, decoded, false);
        EXPECT_EQ(lenient.status, row.lenient) << row.name << " (not strict): " << lenient.message;
        EXPECT_EQ(decoded, row.lenientContent) << row.name << " (not strict)";
    }
    std::string decoded;
    EXPECT_FALSE(trust_.DecodeSignedContent(tampered, decoded, true).isValid) << "a changed envelope";
}

}  // namespace
}  // namespace VEQ
