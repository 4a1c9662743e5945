#pragma once
// veqctl's exit codes, the same for every subcommand, so that scripts can tell an absent service
// from a refusal and from a slow one.

#include "sdk/Error.h"

namespace Veq::Tools {

enum ExitCode : int {
    kDone = 0,         // a result arrived (whatever its isSuccess), the pushes came, the event was accepted
    kFailed = 1,       // anything else: an answer that breaks the protocol, an internal failure
    kUsage = 2,        // the command line is wrong
    kUnreachable = 3,  // the service cannot be reached: not running, side closed, no permission, no answer
    kRefused = 4,      // the service refused the connection
    kTimedOut = 5,     // connected, but the result or the pushes did not come within the timeout
    kRejected = 6,     // publish: the service did not accept the event
    kNotReached = 7,   // diagnostics: a running plugin was not reached
};

class ExitCodes {
public:
    static ExitCode For(Sdk::ErrorCode code);
    // The table for --help.
    static const char* Help();
};

}  // namespace Veq::Tools
