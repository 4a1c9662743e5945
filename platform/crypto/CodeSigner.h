#pragma once
// Signs files and documents the way the service checks them (docs/signing.md). Used by
// veq-sign and by tests; the service itself only verifies.

#include <string>

struct evp_pkey_st;
struct x509_st;

namespace VEQ {

class CodeSigner {
public:
    // keyFile and certFile are PEM files of the signer's private key and certificate.
    CodeSigner(std::string keyFile, std::string certFile);

    // Appends a detached signature and its trailer to the file; a signature it already has is
    // replaced, not stacked. The file is replaced in one step and keeps its mode.
    bool SignFile(const std::string& path, std::string& error) const;
    // The content wrapped in a CMS signed-data envelope, as PEM text.
    bool MakeEnvelope(const std::string& content, std::string& envelope, std::string& error) const;

    // Removes a signature and its trailer; true also when the file had none.
    static bool StripSignature(const std::string& path, std::string& error);

private:
    bool Load(evp_pkey_st*& key, x509_st*& certificate, std::string& error) const;
    // The CMS signed data of content in DER (flags: CMS_DETACHED or not) or PEM.
    bool Sign(const std::string& content, unsigned int flags, bool pem, std::string& output, std::string& error) const;

    std::string keyFile_;
    std::string certFile_;
};

}  // namespace VEQ
