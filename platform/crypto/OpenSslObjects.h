#pragma once
// OpenSSL objects owned the C++ way, and OpenSSL's error queue as text.

#include <openssl/bio.h>
#include <openssl/pem.h>  // before cms.h, which declares its PEM functions only when pem.h came first
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace VEQ::OpenSsl {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* object) const
    {
        Free(object);
    }
};

using Bio = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using Cms = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Store = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;

// The oldest error of the queue as text, and the queue emptied; fallback when it is empty. The
// error's data goes along: that is where CMS says why a chain failed ("certificate has expired").
inline std::string TakeError(const std::string& fallback)
{
    const char* data = nullptr;
    int flags = 0;
    const unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags);
    std::string text;
    if (code != 0) {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof buffer);
        text = buffer;
        if (data != nullptr && (flags & ERR_TXT_STRING) != 0 && *data != '\0') {
            text += std::string(" (") + data + ")";
        }
    }
    ERR_clear_error();
    return code != 0 ? text : fallback;
}

inline Bio MemoryOf(const void* data, size_t size)
{
    return Bio(BIO_new_mem_buf(data, static_cast<int>(size)));
}

}  // namespace VEQ::OpenSsl
