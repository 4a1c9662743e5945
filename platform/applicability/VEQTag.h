#pragma once

#include <string>
#include <utility>

namespace VEQ {

// One applicability tag: a name that applicability rules test, and its value.
class VEQTag {
public:
    VEQTag() = default;
    VEQTag(std::wstring key, std::wstring value) : key_(std::move(key)), value_(std::move(value)) {}

    const std::wstring& getKey() const { return key_; }
    void setKey(const std::wstring& key) { key_ = key; }
    const std::wstring& getValue() const { return value_; }
    void setValue(const std::wstring& value) { value_ = value; }

    bool operator==(const VEQTag&) const = default;

private:
    std::wstring key_;
    std::wstring value_;
};

}  // namespace VEQ
