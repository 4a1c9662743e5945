#pragma once
// Reading a policy document from a file that an administrator edits by hand. Whatever is wrong
// with the file is logged and nothing is returned, so the caller keeps the policy it has.

#include <json/json.h>

#include <cstddef>
#include <string>

namespace VEQ {

class PolicyFile {
public:
    // Larger files are refused unread: no policy comes near this.
    static constexpr std::size_t kMaxSize = 4 * 1024 * 1024;

    // The file's JSON object in document. False, document untouched and the reason logged, when the
    // file is missing, not a regular file, writable by every user, larger than kMaxSize, unreadable,
    // not strict JSON, or not an object.
    static bool Read(const std::wstring& path, Json::Value& document);
    // text as one strict JSON document (no comments, duplicate names or trailing text; a leading
    // byte order mark is skipped). False with the parser's message in error.
    static bool Parse(const std::string& text, Json::Value& document, std::string& error);
};

}  // namespace VEQ
