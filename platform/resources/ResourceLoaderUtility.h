#pragma once
// Resources that come with the product (docs/plugins.md). The product's own resources are files
// <system root>/resources/<type>/<id>.json; those of an add-on's resourceloader.dll are ELF
// sections ".veq.res.<type>.<id>" of that file.

#include <string>

namespace VEQ {

class ResourceLoaderUtility {
public:
    static ResourceLoaderUtility* GetInstance();

    ResourceLoaderUtility(const ResourceLoaderUtility&) = delete;
    ResourceLoaderUtility& operator=(const ResourceLoaderUtility&) = delete;
    virtual ~ResourceLoaderUtility() = default;

    // The product's resource of this id and type as text (UTF-8 on disk). False, with text
    // empty, when there is none or it cannot be read.
    virtual bool LoadCustomResource(std::wstring& text, int id, const std::wstring& type);

    // The resource of this id and type in the ELF file at path (as the module builds it).
    static bool LoadCustomResourceFromFile(std::wstring& text, const std::wstring& path, int id,
                                           const std::wstring& type);

    // A resource larger than this is refused: resources are manifests, not payloads.
    static constexpr size_t kMaxResourceBytes = 4 * 1024 * 1024;

protected:
    ResourceLoaderUtility() = default;
};

}  // namespace VEQ
