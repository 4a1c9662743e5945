#pragma once
// A certificate authority made at run time for one test: a CA, a code signer it issued, and a
// signer whose certificate has expired, as PEM files in a directory of the test's own; on demand
// also TLS server and client certificates. Nothing secret is committed anywhere.

#include <string>

namespace VEQ::Test {

class TestCa {
public:
    struct TlsIdentity {
        std::string certFile;
        std::string keyFile;
    };

    // Makes directory (and its parents) and the keys and certificates in it. Throws on failure.
    TestCa(const std::string& directory, const std::string& commonName);

    const std::string& CaFile() const { return caFile_; }
    const std::string& SignerKey() const { return signerKey_; }
    const std::string& SignerCert() const { return signerCert_; }
    const std::string& ExpiredKey() const { return expiredKey_; }
    const std::string& ExpiredCert() const { return expiredCert_; }

    // Signs the file in place as the signer, or as the expired signer. Throws on failure.
    void SignFile(const std::string& path) const;
    void SignFileExpired(const std::string& path) const;
    // The content in a signed envelope (PEM), as repository manifests are.
    std::string Envelope(const std::string& content) const;

    // A TLS server certificate for 127.0.0.1 and localhost, and a TLS client certificate with
    // commonName, issued now by this CA into <directory>/<name>.pem and .key. Throws on failure.
    TlsIdentity IssueServer(const std::string& name) const;
    TlsIdentity IssueClient(const std::string& name, const std::string& commonName) const;

private:
    std::string directory_;
    std::string caKey_;
    std::string caFile_;
    std::string signerKey_;
    std::string signerCert_;
    std::string expiredKey_;
    std::string expiredCert_;
};

}  // namespace VEQ::Test
