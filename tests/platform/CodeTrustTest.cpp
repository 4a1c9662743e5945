#include "platform/crypto/CertificateValidationWrapper.h"
#include "platform/crypto/CodeSigner.h"
#include "platform/crypto/OpenSslCodeTrust.h"
#include "platform/crypto/OpenSslObjects.h"
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

// A PEM envelope as DER, the other form a repository may serve.
std::string Der(const std::string& pem)
{
    const OpenSsl::Bio input = OpenSsl::MemoryOf(pem.data(), pem.size());
    const OpenSsl::Cms cms(PEM_read_bio_CMS(input.get(), nullptr, nullptr, nullptr));
    const OpenSsl::Bio output(BIO_new(BIO_s_mem()));
    if (!cms || i2d_CMS_bio(output.get(), cms.get()) != 1) {
        ADD_FAILURE() << "cannot convert the envelope to DER";
        return {};
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(output.get(), &data);
    return std::string(data, static_cast<size_t>(length));
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
    // Large enough that verification reads it in many pieces.
    const std::string large = [] {
        std::string bytes(3 * 1024 * 1024 + 7, '\0');
        for (size_t n = 0; n < bytes.size(); ++n) {
            bytes[n] = static_cast<char>(n * 31 % 251);
        }
        return bytes;
    }();
    struct Row {
        const char* name;
        std::function<std::string()> make;
        int status;
        const char* says;  // part of the reason, where the reason matters
    };
    const Row rows[] = {
        {"valid", [&] { return Signed("valid"); }, SignatureCheckResult::kValid, "valid"},
        {"large and valid", [&] { return Signed("large", large); }, SignatureCheckResult::kValid, "valid"},
        {"unsigned",
         [&] {
             Write(Path("unsigned"), "plain bytes, no signature at all");
             return Path("unsigned");
         },
         SignatureCheckResult::kNotSigned, "no signature"},
        {"one byte flipped",
         [&] {
             const std::string path = Signed("tampered");
             std::string bytes = Read(path);
             bytes[3] ^= 0x01;
             Write(path, bytes);
             return path;
         },
         SignatureCheckResult::kContentMismatch, "does not match"},
        {"large, its last content byte flipped",
         [&] {
             const std::string path = Signed("large-tampered", large);
             std::string bytes = Read(path);
             bytes[large.size() - 1] ^= 0x01;
             Write(path, bytes);
             return path;
         },
         SignatureCheckResult::kContentMismatch, "does not match"},
        {"signed under another CA",
         [&] {
             Write(Path("foreign"), "code");
             other_.SignFile(Path("foreign"));
             return Path("foreign");
         },
         SignatureCheckResult::kUntrusted, "not trusted"},
        {"expired signer",
         [&] {
             Write(Path("old-signer"), "code");
             ca_.SignFileExpired(Path("old-signer"));
             return Path("old-signer");
         },
         SignatureCheckResult::kUntrusted, "expired"},
        {"trailer truncated",
         [&] {
             const std::string path = Signed("truncated");
             const std::string bytes = Read(path);
             Write(path, bytes.substr(0, bytes.size() - 5));
             return path;
         },
         SignatureCheckResult::kNotSigned, "no signature"},
        {"trailer lying about its length",
         [&] {
             const std::string path = Signed("lying");
             std::string bytes = Read(path);
             const std::string lie = SignatureTrailer::Make(bytes.size());
             bytes.replace(bytes.size() - lie.size(), lie.size(), lie);
             Write(path, bytes);
             return path;
         },
         SignatureCheckResult::kMalformed, "cannot hold"},
        {"garbage where the signature belongs",
         [&] {
             Write(Path("garbage-signature"), "code" + std::string(64, '\x30') + SignatureTrailer::Make(64));
             return Path("garbage-signature");
         },
         SignatureCheckResult::kMalformed, "no CMS signed data"},
        {"empty file",
         [&] {
             Write(Path("empty"), "");
             return Path("empty");
         },
         SignatureCheckResult::kNotSigned, "no signature"},
        {"missing file", [&] { return Path("missing"); }, SignatureCheckResult::kUnreadable, "No such file"},
        {"a directory", [&] { return root_.PathUtf8(); }, SignatureCheckResult::kUnreadable, "not a regular file"},
    };
    for (const Row& row : rows) {
        const std::string path = row.make();
        const SignatureCheckResult result = trust_.VerifyFile(path);
        EXPECT_EQ(result.status, row.status) << row.name << ": " << result.message;
        EXPECT_EQ(result.isValid, row.status == SignatureCheckResult::kValid) << row.name;
        EXPECT_NE(result.message.find(row.says), std::string::npos) << row.name << ": " << result.message;
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
    std::string pkcs7 = envelope;
    pkcs7.replace(pkcs7.find("BEGIN CMS"), 9, "BEGIN PKCS7");
    pkcs7.replace(pkcs7.find("END CMS"), 7, "END PKCS7");
    const std::string program = "program";
    const std::string signedProgram = Read(Signed("detached", program));
    const std::string detached =
        signedProgram.substr(program.size(), signedProgram.size() - program.size() - SignatureTrailer::kSize);
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
        {"DER", Der(envelope), SignatureCheckResult::kValid, SignatureCheckResult::kValid, document},
        {"labelled PKCS7", pkcs7, SignatureCheckResult::kValid, SignatureCheckResult::kValid, document},
        {"detached signature", detached, SignatureCheckResult::kMalformed, SignatureCheckResult::kMalformed, ""},
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
