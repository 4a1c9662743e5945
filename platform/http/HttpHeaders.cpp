#include "platform/http/HttpHeaders.h"

#include <strings.h>

namespace VEQCore {
namespace {

const std::string kEmpty;

}  // namespace

void HttpHeaders::Add(std::string name, std::string value)
{
    fields_.emplace_back(std::move(name), std::move(value));
}

void HttpHeaders::AppendToLast(const std::string& text)
{
    if (fields_.empty() || text.empty()) {
        return;
    }
    std::string& value = fields_.back().second;
    if (!value.empty()) {
        value += ' ';
    }
    value += text;
}

size_t HttpHeaders::FindKey(size_t start, const char* name, size_t length) const
{
    if (name == nullptr) {
        return npos;
    }
    for (size_t index = start; index < fields_.size(); ++index) {
        const std::string& key = fields_[index].first;
        if (key.size() == length && ::strncasecmp(key.data(), name, length) == 0) {
            return index;
        }
    }
    return npos;
}

const std::string& HttpHeaders::GetKeyAt(size_t index) const
{
    return index < fields_.size() ? fields_[index].first : kEmpty;
}

const std::string& HttpHeaders::GetValueAt(size_t index) const
{
    return index < fields_.size() ? fields_[index].second : kEmpty;
}

}  // namespace VEQCore
