#pragma once
// Starting the plugin host programs, as the module calls it by name (docs/plugins.md).

#include <cstdint>
#include <string>

namespace VEQ {

class ProcessWrap {
public:
    // Starts a command line (split at blanks, nothing quoted; the first word an absolute path, in
    // the service's spelling or on disk: PathMapper maps it) in
    // the service's own context. workingDirectory empty: "/". With waitForExit the call waits up
    // to waitMs for the program to end and gives its code in exitCode (if not null). pid (if not
    // null) gets the child's id, 0 on failure. False when the program could not be started.
    static bool LaunchApplication(const std::wstring& commandLine, const std::wstring& workingDirectory,
                                  bool waitForExit, uint32_t waitMs, uint32_t* pid, uint32_t* exitCode);

    // Starts a command line as the user of the active session (GetCurrentSessionId), with that
    // user's groups and a clean environment. hideWindow means nothing here. Non-zero when it
    // started; pid gets its id. Zero when nobody is logged in or the start failed.
    static int CreateProcessAsUserMode(const std::wstring& commandLine, const std::wstring& workingDirectory,
                                       bool hideWindow, uint32_t* pid);

    // The active session's id, or 0xFFFFFFFF when nobody is logged in.
    static uint32_t GetCurrentSessionId();

    // Whether this process is the service rather than a user's: it runs as root, or as the user
    // that owns the service's registry store.
    static bool IsSystemProcess();

    // The owner of a program started here no longer asks after it by its id: once it has ended,
    // its id may name another process. Until then its id stays bound to it (ChildProcesses).
    static void ForgetProcess(uint32_t pid);
};

}  // namespace VEQ
