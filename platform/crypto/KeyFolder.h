#pragma once
// The folder that holds the service's own keys, <data root>/keys by default: mode 0700, owned by
// the service's user. Secret files in it are 0600 and are read only when nobody else could have
// read or placed them. A secret is created once: two processes starting at the same moment end up
// using the same file, whichever wrote it.

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace VEQ {

class KeyFolder {
public:
    explicit KeyFolder(std::wstring path);
    // <data root>/keys of the platform as installed now.
    static std::wstring DefaultPath();

    const std::wstring& Path() const { return path_; }

    // Creates the folder (and the data root) when missing. False when it exists but is not a
    // directory of this process's user, or when others may write to it.
    bool Prepare(std::string& error) const;

    // The content of a secret file, creating it from make() when there is none yet. nullopt, with
    // the reason, when the file is refused or cannot be made. maxSize bounds what is read.
    std::optional<std::string> LoadOrCreateSecret(const std::string& name, size_t maxSize,
                                                  const std::function<std::string()>& make, std::string& error) const;
    // A secret file that must already exist.
    std::optional<std::string> ReadSecret(const std::string& name, size_t maxSize, std::string& error) const;

    // Files anyone may read (mode 0644), replaced in one step.
    bool WritePublic(const std::string& name, const std::string& content, std::string& error) const;
    // A regular file (no link followed), at most maxSize bytes. errnoOut: why it could not be opened.
    std::optional<std::string> ReadPublic(const std::string& name, size_t maxSize, std::string& error,
                                          int* errnoOut = nullptr) const;

private:
    std::string FilePath(const std::string& name) const;
    // Writes content to a new file beside name and links it to name; false when name then
    // exists, whoever made it, so that the caller reads what is there.
    bool CreateOnce(const std::string& name, const std::string& content, std::string& error) const;

    std::wstring path_;
    std::string pathUtf8_;
};

}  // namespace VEQ
