#include "platform/crypto/CodeSigner.h"

#include "platform/crypto/OpenSslObjects.h"
#include "platform/crypto/SignatureTrailer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

bool ReadWhole(const std::string& path, std::string& content, std::string& error)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    std::ostringstream bytes;
    bytes << file.rdbuf();
    content = bytes.str();
    return true;
}

// Writes beside the file and renames over it, so nobody ever sees half a file.
bool ReplaceWhole(const std::string& path, const std::string& content, std::string& error)
{
    struct stat status {};
    const mode_t mode = stat(path.c_str(), &status) == 0 ? (status.st_mode & 07777) : 0644;
    const std::string temporary = path + ".veq-sign-tmp";
    {
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        if (!file || !file.write(content.data(), static_cast<std::streamsize>(content.size())) || !file.flush()) {
            error = temporary + ": " + std::strerror(errno);
            std::remove(temporary.c_str());
            return false;
        }
    }
    if (chmod(temporary.c_str(), mode) != 0 || std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = path + ": " + std::strerror(errno);
        std::remove(temporary.c_str());
        return false;
    }
    return true;
}

// The content of a file without its signature, if it has one.
std::string Unsigned(const std::string& bytes)
{
    if (bytes.size() < SignatureTrailer::kSize) {
        return bytes;
    }
    uint64_t contentLength = 0;
    uint64_t signatureLength = 0;
    std::string reason;
    const auto parse = SignatureTrailer::Read(bytes.size(), std::string_view(bytes).substr(bytes.size() - SignatureTrailer::kSize),
                                              contentLength, signatureLength, reason);
    return parse == SignatureTrailer::Parse::Valid ? bytes.substr(0, contentLength) : bytes;
}

}  // namespace

CodeSigner::CodeSigner(std::string keyFile, std::string certFile)
    : keyFile_(std::move(keyFile)), certFile_(std::move(certFile))
{
}

bool CodeSigner::Load(EVP_PKEY*& key, X509*& certificate, std::string& error) const
{
    OpenSsl::Bio keyBio(BIO_new_file(keyFile_.c_str(), "r"));
    OpenSsl::Bio certBio(BIO_new_file(certFile_.c_str(), "r"));
    if (!keyBio || !certBio) {
        error = "cannot open " + (keyBio ? certFile_ : keyFile_) + ": " + std::strerror(errno);
        ERR_clear_error();
        return false;
    }
    key = PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr);
    certificate = PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr);
    if (key == nullptr || certificate == nullptr) {
        error = (key == nullptr ? keyFile_ + " holds no PEM private key" : certFile_ + " holds no PEM certificate");
        EVP_PKEY_free(key);
        X509_free(certificate);
        ERR_clear_error();
        return false;
    }
    if (X509_check_private_key(certificate, key) != 1) {
        error = keyFile_ + " is not the key of " + certFile_;
        EVP_PKEY_free(key);
        X509_free(certificate);
        ERR_clear_error();
        return false;
    }
    return true;
}

bool CodeSigner::Sign(const std::string& content, unsigned int flags, bool pem, std::string& output,
                      std::string& error) const
{
    EVP_PKEY* rawKey = nullptr;
    X509* rawCertificate = nullptr;
    if (!Load(rawKey, rawCertificate, error)) {
        return false;
    }
    const OpenSsl::Key key(rawKey);
    const OpenSsl::Certificate certificate(rawCertificate);
    const OpenSsl::Bio contentBio = OpenSsl::MemoryOf(content.data(), content.size());
    const OpenSsl::Cms cms(
        CMS_sign(certificate.get(), key.get(), nullptr, contentBio.get(), flags | CMS_BINARY | CMS_NOSMIMECAP));
    const OpenSsl::Bio encoded(BIO_new(BIO_s_mem()));
    const bool written =
        cms && (pem ? PEM_write_bio_CMS(encoded.get(), cms.get()) : i2d_CMS_bio(encoded.get(), cms.get())) == 1;
    if (!written) {
        error = "signing failed: " + OpenSsl::TakeError("unknown error");
        return false;
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(encoded.get(), &data);
    output.assign(data, static_cast<size_t>(length));
    return true;
}

bool CodeSigner::SignFile(const std::string& path, std::string& error) const
{
    std::string bytes;
    if (!ReadWhole(path, bytes, error)) {
        return false;
    }
    const std::string content = Unsigned(bytes);
    std::string signature;
    if (!Sign(content, CMS_DETACHED, false, signature, error)) {
        return false;
    }
    return ReplaceWhole(path, content + signature + SignatureTrailer::Make(signature.size()), error);
}

bool CodeSigner::MakeEnvelope(const std::string& content, std::string& envelope, std::string& error) const
{
    return Sign(content, 0, true, envelope, error);
}

bool CodeSigner::StripSignature(const std::string& path, std::string& error)
{
    std::string bytes;
    if (!ReadWhole(path, bytes, error)) {
        return false;
    }
    const std::string content = Unsigned(bytes);
    return content.size() == bytes.size() || ReplaceWhole(path, content, error);
}

}  // namespace VEQ
