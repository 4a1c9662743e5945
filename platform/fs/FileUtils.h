#pragma once

#include <string>

namespace VEQ {

class FileUtils {
public:
    // Removes a file given by a UTF-8 path; true when it is gone, also when it never existed.
    // Directories are refused.
    static bool removeFile(const std::string& utf8Path);
};

}  // namespace VEQ
