#pragma once

#include <string>
#include <vector>

namespace VEQ::Test {

struct ChildOutcome {
    int exitCode = -1;  // -1 when it did not exit normally
    std::string output;  // stdout and stderr together
};

// Runs a program to its end and collects what it printed.
class ChildProcess {
public:
    static ChildOutcome Run(const std::vector<std::string>& argv);
    // The same, as the unprivileged user nobody (the test must run as root).
    static ChildOutcome RunAsNobody(const std::vector<std::string>& argv);
    // Path of a helper program built beside the tests.
    static std::string TestProgram(const std::string& name);
    static bool IsRoot();
};

}  // namespace VEQ::Test
