#include "tests/support/TestCa.h"

#include "platform/crypto/CodeSigner.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace VEQ::Test {
namespace {

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertificateFree {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using Certificate = std::unique_ptr<X509, CertificateFree>;

void Check(bool done, const char* what)
{
    if (!done) {
        throw std::runtime_error(std::string("test CA: ") + what + " failed");
    }
}

Key NewKey()
{
    Key key(EVP_EC_gen("P-256"));
    Check(key != nullptr, "key generation");
    return key;
}

void AddExtension(X509* certificate, X509* issuer, int nid, const char* value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    Check(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, "certificate extension");
    X509_EXTENSION_free(extension);
}

enum class Use { Authority, CodeSigning, TlsServer, TlsClient };

// A certificate for key, issued by issuer (itself when null), valid from notBefore to notAfter
// seconds from now.
Certificate Issue(EVP_PKEY* key, const std::string& commonName, X509* issuer, EVP_PKEY* issuerKey, Use use,
                  long notBefore, long notAfter)
{
    static std::atomic<long> serial{1};
    Certificate certificate(X509_new());
    X509* raw = certificate.get();
    Check(raw != nullptr && X509_set_version(raw, 2) == 1, "certificate");
    ASN1_INTEGER_set(X509_get_serialNumber(raw), serial++);
    X509_gmtime_adj(X509_getm_notBefore(raw), notBefore);
    X509_gmtime_adj(X509_getm_notAfter(raw), notAfter);
    X509_NAME* name = X509_get_subject_name(raw);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(commonName.c_str()),
                               -1, -1, 0);
    X509_set_issuer_name(raw, issuer != nullptr ? X509_get_subject_name(issuer) : name);
    Check(X509_set_pubkey(raw, key) == 1, "public key");
    X509* signer = issuer != nullptr ? issuer : raw;
    if (use == Use::Authority) {
        AddExtension(raw, signer, NID_basic_constraints, "critical,CA:TRUE");
        AddExtension(raw, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        AddExtension(raw, signer, NID_basic_constraints, "critical,CA:FALSE");
        AddExtension(raw, signer, NID_key_usage, "critical,digitalSignature");
        AddExtension(raw, signer, NID_ext_key_usage,
                     use == Use::CodeSigning ? "codeSigning" : use == Use::TlsServer ? "serverAuth" : "clientAuth");
    }
    if (use == Use::TlsServer) {
        AddExtension(raw, signer, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    }
    Check(X509_sign(raw, issuerKey != nullptr ? issuerKey : key, EVP_sha256()) > 0, "certificate signing");
    return certificate;
}

void WriteKey(const std::string& path, EVP_PKEY* key)
{
    FILE* file = std::fopen(path.c_str(), "w");
    Check(file != nullptr, "writing a key");
    const bool done = PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    std::fclose(file);
    Check(done, "writing a key");
}

void WriteCertificate(const std::string& path, X509* certificate)
{
    FILE* file = std::fopen(path.c_str(), "w");
    Check(file != nullptr, "writing a certificate");
    const bool done = PEM_write_X509(file, certificate) == 1;
    std::fclose(file);
    Check(done, "writing a certificate");
}

Key ReadKey(const std::string& path)
{
    FILE* file = std::fopen(path.c_str(), "r");
    Check(file != nullptr, "reading a key");
    Key key(PEM_read_PrivateKey(file, nullptr, nullptr, nullptr));
    std::fclose(file);
    Check(key != nullptr, "reading a key");
    return key;
}

Certificate ReadCertificate(const std::string& path)
{
    FILE* file = std::fopen(path.c_str(), "r");
    Check(file != nullptr, "reading a certificate");
    Certificate certificate(PEM_read_X509(file, nullptr, nullptr, nullptr));
    std::fclose(file);
    Check(certificate != nullptr, "reading a certificate");
    return certificate;
}

constexpr long kDay = 24 * 60 * 60;

}  // namespace

TestCa::TestCa(const std::string& directory, const std::string& commonName)
    : directory_(directory),
      caKey_(directory + "/ca.key"),
      caFile_(directory + "/ca.pem"),
      signerKey_(directory + "/signer.key"),
      signerCert_(directory + "/signer.pem"),
      expiredKey_(directory + "/expired.key"),
      expiredCert_(directory + "/expired.pem")
{
    std::filesystem::create_directories(directory);
    const Key caKey = NewKey();
    const Certificate ca = Issue(caKey.get(), commonName, nullptr, nullptr, Use::Authority, -kDay, 365 * kDay);
    const Key signerKey = NewKey();
    const Certificate signer = Issue(signerKey.get(), commonName + " code signer", ca.get(), caKey.get(), Use::CodeSigning, -kDay, 30 * kDay);
    const Key expiredKey = NewKey();
    const Certificate expired =
        Issue(expiredKey.get(), commonName + " expired signer", ca.get(), caKey.get(), Use::CodeSigning, -30 * kDay, -kDay);
    WriteCertificate(caFile_, ca.get());
    WriteKey(caKey_, caKey.get());
    WriteKey(signerKey_, signerKey.get());
    WriteCertificate(signerCert_, signer.get());
    WriteKey(expiredKey_, expiredKey.get());
    WriteCertificate(expiredCert_, expired.get());
}

void TestCa::SignFile(const std::string& path) const
{
    std::string error;
    if (!CodeSigner(signerKey_, signerCert_).SignFile(path, error)) {
        throw std::runtime_error("test CA: " + error);
    }
}

void TestCa::SignFileExpired(const std::string& path) const
{
    std::string error;
    if (!CodeSigner(expiredKey_, expiredCert_).SignFile(path, error)) {
        throw std::runtime_error("test CA: " + error);
    }
}

std::string TestCa::Envelope(const std::string& content) const
{
    std::string envelope;
    std::string error;
    if (!CodeSigner(signerKey_, signerCert_).MakeEnvelope(content, envelope, error)) {
        throw std::runtime_error("test CA: " + error);
    }
    return envelope;
}

TestCa::TlsIdentity TestCa::IssueServer(const std::string& name) const
{
    const Key caKey = ReadKey(caKey_);
    const Certificate ca = ReadCertificate(caFile_);
    const Key key = NewKey();
    const Certificate certificate = Issue(key.get(), "localhost", ca.get(), caKey.get(), Use::TlsServer, -kDay, 30 * kDay);
    TlsIdentity identity{directory_ + "/" + name + ".pem", directory_ + "/" + name + ".key"};
    WriteCertificate(identity.certFile, certificate.get());
    WriteKey(identity.keyFile, key.get());
    return identity;
}

TestCa::TlsIdentity TestCa::IssueClient(const std::string& name, const std::string& commonName) const
{
    const Key caKey = ReadKey(caKey_);
    const Certificate ca = ReadCertificate(caFile_);
    const Key key = NewKey();
    const Certificate certificate = Issue(key.get(), commonName, ca.get(), caKey.get(), Use::TlsClient, -kDay, 30 * kDay);
    TlsIdentity identity{directory_ + "/" + name + ".pem", directory_ + "/" + name + ".key"};
    WriteCertificate(identity.certFile, certificate.get());
    WriteKey(identity.keyFile, key.get());
    return identity;
}

}  // namespace VEQ::Test
