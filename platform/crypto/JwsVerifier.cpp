#include "platform/crypto/JwsVerifier.h"

#include "platform/crypto/OpenSslObjects.h"
#include "platform/string/String.h"

#include <json/json.h>
#include <openssl/ecdsa.h>

#include <optional>
#include <sstream>

namespace VEQ {
namespace {

using Result = SignatureCheckResult;

Result Outcome(int status, std::string message)
{
    Result result;
    result.status = status;
    result.message = std::move(message);
    result.isValid = status == Result::kValid;
    return result;
}

std::optional<std::string> DecodeBase64(std::string text, bool url)
{
    if (url) {
        // base64url has no padding and none of the two characters it replaces.
        if (text.find_first_of("+/=") != std::string::npos || text.size() % 4 == 1) {
            return std::nullopt;
        }
        for (char& c : text) {
            c = c == '-' ? '+' : c == '_' ? '/' : c;
        }
        text.append((4 - text.size() % 4) % 4, '=');
    }
    if (text.size() % 4 != 0 || text.find_first_not_of(
                                    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") !=
                                    std::string::npos) {
        return std::nullopt;
    }
    const size_t pad = text.find('=');
    if (pad != std::string::npos && (pad + 2 < text.size() || text.find_first_not_of('=', pad) != std::string::npos)) {
        return std::nullopt;
    }
    std::string decoded(text.size() / 4 * 3, '\0');
    const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(decoded.data()),
                                       reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    if (length < 0) {
        return std::nullopt;
    }
    const size_t padding = pad == std::string::npos ? 0 : text.size() - pad;
    decoded.resize(static_cast<size_t>(length) - padding);
    return decoded;
}

OpenSsl::Key ReadKey(const std::wstring& wide)
{
    std::string text = String::UTF16ToUTF8(wide);
    if (text.find("-----BEGIN") != std::string::npos) {
        auto bio = OpenSsl::MemoryOf(text.data(), text.size());
        return OpenSsl::Key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    }
    std::erase_if(text, [](char c) { return c == '\n' || c == '\r' || c == ' '; });
    const auto der = DecodeBase64(text, false);
    if (!der) {
        return nullptr;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(der->data());
    return OpenSsl::Key(d2i_PUBKEY(nullptr, &bytes, static_cast<long>(der->size())));
}

// ES256 signs R || S, 32 bytes each; OpenSSL verifies their DER form.
std::optional<std::string> EcdsaDer(const std::string& raw)
{
    if (raw.size() != 64) {
        return std::nullopt;
    }
    ECDSA_SIG* signature = ECDSA_SIG_new();
    BIGNUM* r = BN_bin2bn(reinterpret_cast<const unsigned char*>(raw.data()), 32, nullptr);
    BIGNUM* s = BN_bin2bn(reinterpret_cast<const unsigned char*>(raw.data()) + 32, 32, nullptr);
    if (signature == nullptr || r == nullptr || s == nullptr || ECDSA_SIG_set0(signature, r, s) != 1) {
        BN_free(r);
        BN_free(s);
        ECDSA_SIG_free(signature);
        return std::nullopt;
    }
    unsigned char* der = nullptr;
    const int length = i2d_ECDSA_SIG(signature, &der);
    ECDSA_SIG_free(signature);
    if (length <= 0) {
        return std::nullopt;
    }
    std::string out(reinterpret_cast<char*>(der), static_cast<size_t>(length));
    OPENSSL_free(der);
    return out;
}

bool Verifies(EVP_PKEY* key, const std::string& signed_, const std::string& signature)
{
    std::unique_ptr<EVP_MD_CTX, OpenSsl::Deleter<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
    if (!context || EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key) != 1) {
        ERR_clear_error();
        return false;
    }
    const int verdict = EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                                         signature.size(), reinterpret_cast<const unsigned char*>(signed_.data()),
                                         signed_.size());
    ERR_clear_error();
    return verdict == 1;
}

}  // namespace

SignatureCheckResult JwsVerifier::VerifyContentWithKeys(const std::string& text, const std::vector<std::wstring>& keys,
                                                        bool enforce)
{
    Result result = Check(text, keys);
    if (!enforce && !result.isValid) {
        result.message += " (not enforced)";
        result.isValid = true;
    }
    return result;
}

SignatureCheckResult JwsVerifier::Check(const std::string& text, const std::vector<std::wstring>& keys)
{
    if (text.size() > kMaxTextSize) {
        return Outcome(Result::kMalformed, "the signed text is larger than allowed");
    }
    const size_t first = text.find('.');
    const size_t second = first == std::string::npos ? first : text.find('.', first + 1);
    if (second == std::string::npos || text.find('.', second + 1) != std::string::npos) {
        return Outcome(Result::kNotSigned, "the text is no JWS in compact form");
    }
    const auto header = DecodeBase64(text.substr(0, first), true);
    const auto signature = DecodeBase64(text.substr(second + 1), true);
    Json::Value fields;
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = 20;
    std::istringstream stream(header ? *header : std::string());
    std::string errors;
    bool parsed = false;
    try {
        parsed = header && signature && Json::parseFromStream(builder, stream, &fields, &errors) && fields.isObject();
    } catch (const Json::Exception&) {
        parsed = false;
    }
    if (!parsed || !fields["alg"].isString()) {
        return Outcome(Result::kMalformed, "the JWS header or signature does not decode");
    }
    const std::string algorithm = fields["alg"].asString();
    if (algorithm != "RS256" && algorithm != "ES256") {
        return Outcome(Result::kMalformed, "the JWS algorithm \"" + algorithm + "\" is not accepted");
    }
    if (keys.empty()) {
        return Outcome(Result::kNoTrustAnchors, "no public keys to check the signature with");
    }
    const std::string signedPart = text.substr(0, second);
    const int wanted = algorithm == "RS256" ? EVP_PKEY_RSA : EVP_PKEY_EC;
    std::string bytes = *signature;
    if (wanted == EVP_PKEY_EC) {
        const auto der = EcdsaDer(bytes);
        if (!der) {
            return Outcome(Result::kMalformed, "an ES256 signature must be 64 bytes");
        }
        bytes = *der;
    }
    bool anyKey = false;
    for (const std::wstring& written : keys) {
        const OpenSsl::Key key = ReadKey(written);
        ERR_clear_error();
        if (!key || EVP_PKEY_base_id(key.get()) != wanted) {
            continue;
        }
        anyKey = true;
        if (Verifies(key.get(), signedPart, bytes)) {
            return Outcome(Result::kValid, "the signature holds");
        }
    }
    return anyKey ? Outcome(Result::kContentMismatch, "no key verifies the signature")
                  : Outcome(Result::kNoTrustAnchors, "no usable " + algorithm + " key among the keys given");
}

std::vector<std::wstring> JwsVerifier::KeysFromPolicy(const std::string& policyText)
{
    std::vector<std::wstring> keys;
    Json::Value policy;
    Json::CharReaderBuilder builder;
    std::istringstream stream(policyText);
    std::string errors;
    try {
        if (!Json::parseFromStream(builder, stream, &policy, &errors) || !policy.isObject()) {
            return keys;
        }
    } catch (const Json::Exception&) {
        return keys;
    }
    const Json::Value& list = policy[kPolicyKeysMember];
    if (list.isArray()) {
        for (const Json::Value& key : list) {
            if (key.isString()) {
                keys.push_back(String::UTF8ToUTF16(key.asString()));
            }
        }
    }
    return keys;
}

std::string JwsVerifier::Payload(const std::string& text)
{
    const size_t first = text.find('.');
    const size_t second = first == std::string::npos ? first : text.find('.', first + 1);
    if (second == std::string::npos) {
        return {};
    }
    return DecodeBase64(text.substr(first + 1, second - first - 1), true).value_or(std::string());
}

}  // namespace VEQ
