#pragma once
// Where a program started by the service keeps its own logs. The service exports its data root
// to the programs it starts in its own context; a program started in a user's session gets a
// clean environment and uses that user's state folder, or a private folder below /tmp for users
// without a home (such as nobody).

#include <string>

namespace VEQ {

class ProcessDataRoot {
public:
    static constexpr const char* kVariable = "VEQ_ROOT";

    // For the service: its data root, to be inherited by the programs it starts.
    static void ExportForChildren(const std::string& dataRoot);
    // For such a program: the data root to install; empty when none can be had.
    static std::wstring ForThisProcess();
};

}  // namespace VEQ
