// veq-sign: signs files the way the service checks them (docs/signing.md).
//
//     veq-sign --key K --cert C FILE...          sign in place (a signature it has is replaced)
//     veq-sign --verify --ca CA FILE...          check; exit 1 if any file fails
//     veq-sign --strip FILE...                   remove the signature
//     veq-sign --envelope --key K --cert C IN [OUT]   wrap IN into a signed envelope (PEM), to OUT or stdout

#include "platform/crypto/CodeSigner.h"
#include "platform/crypto/OpenSslCodeTrust.h"

#include <CLI/CLI.hpp>

#include <fstream>
#include <iostream>
#include <sstream>

namespace {

enum ExitCode : int {
    kDone = 0,
    kVerificationFailed = 1,
    kUsage = 2,
    kFailed = 3,
};

int Sign(const std::vector<std::string>& files, const std::string& key, const std::string& cert)
{
    const VEQ::CodeSigner signer(key, cert);
    for (const std::string& file : files) {
        std::string error;
        if (!signer.SignFile(file, error)) {
            std::cerr << "veq-sign: " << error << "\n";
            return kFailed;
        }
    }
    return kDone;
}

int Verify(const std::vector<std::string>& files, const std::string& ca)
{
    if (!std::ifstream(ca)) {
        std::cerr << "veq-sign: cannot read the trust anchors " << ca << "\n";
        return kUsage;
    }
    VEQ::OpenSslCodeTrust trust(ca);
    int exitCode = kDone;
    for (const std::string& file : files) {
        const VEQ::SignatureCheckResult result = trust.VerifyFile(file);
        if (result.isValid) {
            std::cout << file << ": valid\n";
        } else {
            std::cout << "veq-sign: " << result.message << "\n";
            exitCode = result.status == VEQ::SignatureCheckResult::kNoTrustAnchors ? kUsage : kVerificationFailed;
        }
    }
    return exitCode;
}

int Strip(const std::vector<std::string>& files)
{
    for (const std::string& file : files) {
        std::string error;
        if (!VEQ::CodeSigner::StripSignature(file, error)) {
            std::cerr << "veq-sign: " << error << "\n";
            return kFailed;
        }
    }
    return kDone;
}

int Envelope(const std::vector<std::string>& files, const std::string& key, const std::string& cert)
{
    if (files.empty() || files.size() > 2) {
        std::cerr << "veq-sign: --envelope takes IN and, optionally, OUT\n";
        return kUsage;
    }
    std::ifstream input(files[0], std::ios::binary);
    if (!input) {
        std::cerr << "veq-sign: cannot read " << files[0] << "\n";
        return kFailed;
    }
    std::ostringstream content;
    content << input.rdbuf();
    std::string envelope;
    std::string error;
    if (!VEQ::CodeSigner(key, cert).MakeEnvelope(content.str(), envelope, error)) {
        std::cerr << "veq-sign: " << error << "\n";
        return kFailed;
    }
    if (files.size() == 1) {
        std::cout << envelope;
        return kDone;
    }
    std::ofstream output(files[1], std::ios::binary | std::ios::trunc);
    if (!output || !output.write(envelope.data(), static_cast<std::streamsize>(envelope.size()))) {
        std::cerr << "veq-sign: cannot write " << files[1] << "\n";
        return kFailed;
    }
    return kDone;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app("veq-sign: sign programs, libraries and manifests the way the service checks them");
    app.footer("Exit codes: 0 done (every file valid), 1 a file failed verification, 2 usage error or no readable CA,\n"
               "3 a file could not be read, written or signed.");
    std::string key;
    std::string cert;
    std::string ca;
    bool verify = false;
    bool strip = false;
    bool envelope = false;
    std::vector<std::string> files;
    app.add_option("--key", key, "PEM private key of the signer")->check(CLI::ExistingFile);
    app.add_option("--cert", cert, "PEM certificate of the signer")->check(CLI::ExistingFile);
    app.add_option("--ca", ca, "PEM bundle of trusted certificates (with --verify)");
    auto* verifyFlag = app.add_flag("--verify", verify, "Check the files' signatures against --ca");
    auto* stripFlag = app.add_flag("--strip", strip, "Remove the files' signatures");
    auto* envelopeFlag = app.add_flag("--envelope", envelope, "Wrap IN into a signed envelope, written to OUT or stdout");
    verifyFlag->excludes(stripFlag)->excludes(envelopeFlag);
    stripFlag->excludes(envelopeFlag);
    app.add_option("files", files, "Files to act on")->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    if (verify) {
        if (ca.empty()) {
            std::cerr << "veq-sign: --verify needs --ca\n";
            return kUsage;
        }
        return Verify(files, ca);
    }
    if (strip) {
        return Strip(files);
    }
    if (key.empty() || cert.empty()) {
        std::cerr << "veq-sign: signing needs --key and --cert\n";
        return kUsage;
    }
    return envelope ? Envelope(files, key, cert) : Sign(files, key, cert);
}
