#include "tests/support/ChildProcess.h"
#include "tests/support/TempRoot.h"
#include "tests/support/TestCa.h"

#include <gtest/gtest.h>

#include <fstream>

namespace VEQ {
namespace {

using VEQ::Test::ChildOutcome;
using VEQ::Test::ChildProcess;

class VeqSignTest : public ::testing::Test {
protected:
    ChildOutcome Run(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), VEQ_SIGN_PROGRAM);
        return ChildProcess::Run(arguments);
    }
    std::string Path(const std::string& name) const { return root_.BelowUtf8(name); }
    std::string Read(const std::string& name) const
    {
        std::ifstream file(Path(name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    VEQ::Test::TempRoot root_;
    VEQ::Test::TestCa ca_{root_.BelowUtf8("ca"), "Signing CA"};
};

TEST_F(VeqSignTest, SignVerifyTamperAndStripRoundTrip)
{
    const std::string original = "\x7f" "ELF pretend program";
    std::ofstream(Path("plugin.dll"), std::ios::binary) << original;
    const std::string file = Path("plugin.dll");

    EXPECT_EQ(Run({"--key", ca_.SignerKey(), "--cert", ca_.SignerCert(), file}).exitCode, 0);
    ChildOutcome verified = Run({"--verify", "--ca", ca_.CaFile(), file});
    EXPECT_EQ(verified.exitCode, 0) << verified.output;
    EXPECT_NE(verified.output.find("valid"), std::string::npos);

    std::string bytes = Read("plugin.dll");
    bytes[1] ^= 0x20;
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
    ChildOutcome tampered = Run({"--verify", "--ca", ca_.CaFile(), file});
    EXPECT_EQ(tampered.exitCode, 1) << tampered.output;
    EXPECT_NE(tampered.output.find("does not match"), std::string::npos) << tampered.output;

    bytes[1] ^= 0x20;
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
    EXPECT_EQ(Run({"--strip", file}).exitCode, 0);
    EXPECT_EQ(Read("plugin.dll"), original);
    ChildOutcome stripped = Run({"--verify", "--ca", ca_.CaFile(), file});
    EXPECT_EQ(stripped.exitCode, 1) << stripped.output;
    EXPECT_NE(stripped.output.find("no signature"), std::string::npos) << stripped.output;
}

TEST_F(VeqSignTest, WrapsADocumentIntoAnEnvelope)
{
    std::ofstream(Path("manifest.json")) << R"({"plugins": []})";
    const ChildOutcome wrapped =
        Run({"--envelope", "--key", ca_.SignerKey(), "--cert", ca_.SignerCert(), Path("manifest.json"), Path("out.json")});
    EXPECT_EQ(wrapped.exitCode, 0) << wrapped.output;
    EXPECT_EQ(Read("out.json").rfind("-----BEGIN CMS-----", 0), 0u) << Read("out.json");
}

TEST_F(VeqSignTest, UsageErrorsSayWhatIsMissing)
{
    std::ofstream(Path("file")) << "x";
    struct Row {
        std::vector<std::string> arguments;
        int exitCode;
        const char* says;
    };
    const Row rows[] = {
        {{}, 2, "files"},
        {{"--verify", Path("file")}, 2, "--ca"},
        {{Path("file")}, 2, "--key"},
        {{"--verify", "--strip", "--ca", ca_.CaFile(), Path("file")}, 2, "excludes"},
        {{"--verify", "--ca", Path("no-ca.pem"), Path("file")}, 2, "trust anchors"},
        {{"--key", ca_.SignerKey(), "--cert", ca_.SignerCert(), Path("absent")}, 3, "absent"},
        {{"--key", ca_.SignerKey(), "--cert", ca_.ExpiredCert(), Path("file")}, 3, "is not the key of"},
    };
    for (const Row& row : rows) {
        const ChildOutcome outcome = Run(row.arguments);
        EXPECT_EQ(outcome.exitCode, row.exitCode) << row.says << ": " << outcome.output;
        EXPECT_NE(outcome.output.find(row.says), std::string::npos) << outcome.output;
    }
}

}  // namespace
}  // namespace VEQ
