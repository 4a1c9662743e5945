#pragma once
// Paths as the module builds them, the way the service's design writes them
// (GetSystemFolderPath() + L"\\drivers\\Tavrin\\VEQ\\Service\\Hosts\\"), turned into paths on disk:
// - backslashes become slashes, and runs of separators one;
// - the product folder below each root is the root itself: the system root stands for
//   "<system folder>\drivers\Tavrin\VEQ", the common data root for "<common data>\Tavrin\Veq";
// - the fixed folder names the design spells in several letter cases below a root are folded to
//   one spelling, so "tavrin"/"Tavrin" and "veq"/"VEQ" meet in one folder. Names that come from
//   outside (plugin ids, file names) are left as they are.
// docs/plugins.md shows the resulting tree.

#include <string>

namespace VEQ {

class PathMapper {
public:
    // With the roots Platform installed.
    static std::wstring ToNative(const std::wstring& path);
    static std::wstring ToNative(const std::wstring& path, const std::wstring& systemRoot,
                                 const std::wstring& commonDataRoot);
    static std::string ToNativeUtf8(const std::wstring& path);
};

}  // namespace VEQ
