#pragma once
// Where the messaging plugin's message digest is cached: a file below the data root, an ETag and
// the hash of the digest's address in the machine's registry, and a status key in the signed-in
// user's registry. This class removes them and keeps the hash; it holds no state.

#include <string>

namespace VEQ::SmartMessageV2 {

class SmartMessageV2Utility {
public:
    static constexpr const wchar_t* kEtagValueName = L"Etag";
    static constexpr const wchar_t* kDigestDataDirectory = L"\\plugin-data\\46C44A27-EAAD-4593-9AA0-8FA0F87BF955";
    static constexpr const wchar_t* kDigestFileName = L"digestv2.json.signed";
    static constexpr const wchar_t* kHashValueName = L"DigestUrlHash";
    // The registry ignores letter case, so this and the digest commands' "...\VEQ\..." name one key.
    static constexpr const wchar_t* kMessagingPluginKey = L"SOFTWARE\\Tavrin\\veq\\Plugins\\MessagingPlugin";
    static constexpr const wchar_t* kStatusKey =
        L"SOFTWARE\\Tavrin\\veq\\Plugins\\MessagingPlugin\\MessageDigestStatus";
    static constexpr const wchar_t* kTimestampSuffix = L"\\LastMessageDigestTimeStamp";

    // True when the cached digest is gone, including when there was none.
    static bool DeleteCachedMessageDigest();
    // True only when an ETag was there and is deleted: a missing one counts as a failure.
    static bool DeleteEtag();
    // Deletes the status key of the signed-in user.
    static bool DeletePreviousDownloadDigestTimestamp();
    // Fills hash only when one is stored.
    static bool ReadPreviousHash(std::string& hash);
    static void UpdateHashInRegistry(std::string hash);
};

}  // namespace VEQ::SmartMessageV2
