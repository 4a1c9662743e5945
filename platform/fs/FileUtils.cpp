#include "platform/fs/FileUtils.h"

#include "platform/Platform.h"
#include "platform/fs/IFileSystem.h"
#include "platform/fs/PathMapper.h"
#include "platform/string/String.h"

namespace VEQ {

bool FileUtils::removeFile(const std::string& utf8Path)
{
    return Platform::FileSystem()->removeFile(PathMapper::ToNative(String::UTF8ToUTF16(utf8Path)));
}

}  // namespace VEQ
