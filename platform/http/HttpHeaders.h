#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace VEQCore {

// The header fields of one HTTP reply, in the order the server sent them. Names keep the
// server's spelling; lookups ignore letter case, as HTTP field names do (HTTP/2 servers send
// them in lower case). A name may occur more than once.
class HttpHeaders {
public:
    static constexpr size_t npos = static_cast<size_t>(-1);

    void Add(std::string name, std::string value);
    // Appends text to the last field's value (a folded continuation line).
    void AppendToLast(const std::string& text);
    void Clear() { fields_.clear(); }
    size_t Size() const { return fields_.size(); }
    bool Empty() const { return fields_.empty(); }

    // The index of the first field at or after start whose name is the length bytes at name,
    // letter case ignored; npos when there is none.
    size_t FindKey(size_t start, const char* name, size_t length) const;
    // The name and the value at index; empty for an index out of range, npos included, so that
    // GetValueAt(FindKey(...)) gives the empty text for a field that is absent.
    const std::string& GetKeyAt(size_t index) const;
    const std::string& GetValueAt(size_t index) const;

private:
    std::vector<std::pair<std::string, std::string>> fields_;
};

}  // namespace VEQCore
