#pragma once
// Starts programs as children of the service: by a command line split at blanks, in the
// service's own context or as a given user, each held by its pidfd from the start and reaped by
// ChildProcesses when it ends.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VEQ {

class ProcessLauncher {
public:
    // The words of a command line: split at blanks, nothing quoted, empty words dropped.
    static std::vector<std::string> SplitCommandLine(const std::string& commandLine);

    // Starts argv[0] (an absolute path) with argv. With asUser, the child runs as that user with
    // the user's groups and a clean environment (HOME, USER, LOGNAME, PATH, XDG_RUNTIME_DIR, LANG);
    // otherwise it inherits the service's identity and environment. workingDirectory empty: the
    // user's home ("/" when it does not exist), or "/" for the service. The child's standard input
    // is /dev/null. pid is set and true returned once the program runs; false with error when it
    // could not be started (the exec's failure included).
    static bool Launch(const std::vector<std::string>& argv, const std::string& workingDirectory,
                       std::optional<uint32_t> asUser, uint32_t& pid, std::string& error);
};

}  // namespace VEQ
