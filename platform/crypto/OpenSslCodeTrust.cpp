#include "platform/crypto/OpenSslCodeTrust.h"

#include "platform/Platform.h"
#include "platform/crypto/OpenSslObjects.h"
#include "platform/crypto/SignatureTrailer.h"
#include "platform/fs/ReadAt.h"
#include "platform/string/String.h"

#include <openssl/pem.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VEQ {
namespace {

SignatureCheckResult Failed(int status, std::string message)
{
    return {status, std::move(message), false};
}

SignatureCheckResult Valid()
{
    return {SignatureCheckResult::kValid, "valid", true};
}

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// The first bytes of a file as an OpenSSL source, read with pread as CMS_verify digests them, so
// a large program is never held in memory. A file that ends early (someone truncated it while it
// was checked) is marked, so that it cannot pass for shorter content or for tampering.
class FileRange {
public:
    FileRange(int fd, uint64_t length) : fd_(fd), length_(length) {}

    // A BIO over the range; the range must outlive it.
    OpenSsl::Bio NewBio()
    {
        OpenSsl::Bio bio(BIO_new(Method()));
        if (bio) {
            BIO_set_data(bio.get(), this);
            BIO_set_init(bio.get(), 1);
        }
        return bio;
    }
    bool Truncated() const { return truncated_; }

private:
    static const BIO_METHOD* Method()
    {
        static const std::unique_ptr<BIO_METHOD, OpenSsl::Deleter<BIO_meth_free>> method = [] {
            std::unique_ptr<BIO_METHOD, OpenSsl::Deleter<BIO_meth_free>> made(
                BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "veq file range"));
            if (made) {
                BIO_meth_set_read_ex(made.get(), &FileRange::Read);
                BIO_meth_set_ctrl(made.get(), &FileRange::Control);
            }
            return made;
        }();
        return method.get();
    }

    static int Read(BIO* bio, char* buffer, size_t size, size_t* got)
    {
        auto* range = static_cast<FileRange*>(BIO_get_data(bio));
        *got = 0;
        const uint64_t wanted = std::min<uint64_t>(size, range->length_ - range->offset_);
        if (wanted == 0) {
            return 0;
        }
        ssize_t read = 0;
        do {
            read = pread(range->fd_, buffer, wanted, static_cast<off_t>(range->offset_));
        } while (read < 0 && errno == EINTR);
        if (read <= 0) {
            range->truncated_ = true;
            return 0;
        }
        range->offset_ += static_cast<uint64_t>(read);
        *got = static_cast<size_t>(read);
        return 1;
    }

    static long Control(BIO* bio, int command, long /*number*/, void* /*pointer*/)
    {
        const auto* range = static_cast<const FileRange*>(BIO_get_data(bio));
        switch (command) {
        case BIO_CTRL_EOF:
            return range->offset_ >= range->length_ ? 1 : 0;
        case BIO_CTRL_FLUSH:
            return 1;
        default:
            return 0;
        }
    }

    int fd_;
    uint64_t length_;
    uint64_t offset_ = 0;
    bool truncated_ = false;
};

// Verifies the signature's chain to the anchors; the certificate purpose is not narrowed to
// e-mail, as CMS would by default, so code-signing certificates pass.
bool LoadStore(const std::string& caFile, OpenSsl::Store& store, std::string& reason)
{
    if (caFile.empty()) {
        reason = "no trust anchors are configured (trust.caFile)";
        return false;
    }
    store.reset(X509_STORE_new());
    if (!store || X509_STORE_load_file(store.get(), caFile.c_str()) != 1) {
        reason = "cannot read the trust anchors " + caFile + ": " + OpenSsl::TakeError("unreadable");
        return false;
    }
    X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);
    return true;
}

// What a failed CMS_verify means: the signer is not trusted, or the signed bytes differ.
SignatureCheckResult VerificationFailure()
{
    const unsigned long code = ERR_peek_error();
    const std::string text = OpenSsl::TakeError("verification failed");
    if (ERR_GET_LIB(code) == ERR_LIB_CMS &&
        (ERR_GET_REASON(code) == CMS_R_CERTIFICATE_VERIFY_ERROR || ERR_GET_REASON(code) == CMS_R_SIGNER_CERTIFICATE_NOT_FOUND)) {
        return Failed(SignatureCheckResult::kUntrusted, "the signer is not trusted: " + text);
    }
    return Failed(SignatureCheckResult::kContentMismatch, "the signature does not match the content: " + text);
}

}  // namespace

OpenSslCodeTrust::OpenSslCodeTrust(std::optional<std::string> caFile) : caFile_(std::move(caFile)) {}

std::string OpenSslCodeTrust::CaFile() const
{
    return caFile_ ? *caFile_ : String::UTF16ToUTF8(Platform::Settings().trustCaFile);
}

SignatureCheckResult OpenSslCodeTrust::VerifyFile(const std::string& path)
{
    ERR_clear_error();
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) {
        return Failed(SignatureCheckResult::kUnreadable, path + ": " + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return Failed(SignatureCheckResult::kUnreadable, path + " is not a regular file");
    }
    const uint64_t size = static_cast<uint64_t>(status.st_size);
    std::string tail;
    if (size >= SignatureTrailer::kSize &&
        !ReadAt::Exactly(file.get(), size - SignatureTrailer::kSize, SignatureTrailer::kSize, tail)) {
        return Failed(SignatureCheckResult::kUnreadable, path + ": the file changed while it was read");
    }
    uint64_t contentLength = 0;
    uint64_t signatureLength = 0;
    std::string reason;
    switch (SignatureTrailer::Read(size, tail, contentLength, signatureLength, reason)) {
    case SignatureTrailer::Parse::NotSigned:
        return Failed(SignatureCheckResult::kNotSigned, path + ": " + reason);
    case SignatureTrailer::Parse::Malformed:
        return Failed(SignatureCheckResult::kMalformed, path + ": " + reason);
    case SignatureTrailer::Parse::Valid:
        break;
    }
    if (contentLength > kMaxSignedFileBytes) {
        return Failed(SignatureCheckResult::kMalformed, path + " is too large to be checked");
    }
    std::string signature;
    if (!ReadAt::Exactly(file.get(), contentLength, signatureLength, signature)) {
        return Failed(SignatureCheckResult::kUnreadable, path + ": the file changed while it was read");
    }
    OpenSsl::Store store;
    if (!LoadStore(CaFile(), store, reason)) {
        return Failed(SignatureCheckResult::kNoTrustAnchors, reason);
    }
    const OpenSsl::Bio signatureBio = OpenSsl::MemoryOf(signature.data(), signature.size());
    const OpenSsl::Cms cms(d2i_CMS_bio(signatureBio.get(), nullptr));
    if (!cms || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) {
        return Failed(SignatureCheckResult::kMalformed, path + ": the signature is no CMS signed data: " +
                                                            OpenSsl::TakeError("unreadable"));
    }
    FileRange content(file.get(), contentLength);
    const OpenSsl::Bio contentBio = content.NewBio();
    if (!contentBio) {
        return Failed(SignatureCheckResult::kUnreadable, path + ": " + OpenSsl::TakeError("out of memory"));
    }
    const bool verified = CMS_verify(cms.get(), nullptr, store.get(), contentBio.get(), nullptr, CMS_BINARY) == 1;
    if (content.Truncated()) {
        ERR_clear_error();
        return Failed(SignatureCheckResult::kUnreadable, path + ": the file changed while it was read");
    }
    if (!verified) {
        SignatureCheckResult failure = VerificationFailure();
        failure.message = path + ": " + failure.message;
        return failure;
    }
    return Valid();
}

SignatureCheckResult OpenSslCodeTrust::DecodeSignedContent(const std::string& encoded, std::string& decoded,
                                                           bool strict)
{
    ERR_clear_error();
    if (encoded.size() > kMaxEnvelopeBytes) {
        return Failed(SignatureCheckResult::kMalformed, "the signed document is too large");
    }
    const OpenSsl::Bio input = OpenSsl::MemoryOf(encoded.data(), encoded.size());
    OpenSsl::Cms cms;
    if (encoded.find("-----BEGIN") != std::string::npos) {
        cms.reset(PEM_read_bio_CMS(input.get(), nullptr, nullptr, nullptr));
    } else {
        cms.reset(d2i_CMS_bio(input.get(), nullptr));
    }
    ERR_clear_error();
    if (!cms || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) {
        if (!strict) {
            decoded = encoded;  // a plain document, taken as it is where signatures are not required
            return Valid();
        }
        return Failed(SignatureCheckResult::kNotSigned, "the document is not in a signed envelope");
    }
    // A detached signature is no envelope of a document, however well it verifies.
    ASN1_OCTET_STRING** content = CMS_get0_content(cms.get());
    if (content == nullptr || *content == nullptr) {
        return Failed(SignatureCheckResult::kMalformed, "the envelope holds no content");
    }
    if (!strict) {
        decoded.assign(reinterpret_cast<const char*>(ASN1_STRING_get0_data(*content)),
                       static_cast<size_t>(ASN1_STRING_length(*content)));
        return Valid();
    }
    OpenSsl::Store store;
    std::string reason;
    if (!LoadStore(CaFile(), store, reason)) {
        return Failed(SignatureCheckResult::kNoTrustAnchors, reason);
    }
    const OpenSsl::Bio output(BIO_new(BIO_s_mem()));
    if (CMS_verify(cms.get(), nullptr, store.get(), nullptr, output.get(), CMS_BINARY) != 1) {
        return VerificationFailure();
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(output.get(), &data);
    decoded.assign(data != nullptr ? data : "", length > 0 ? static_cast<size_t>(length) : 0);
    return Valid();
}

}  // namespace VEQ
