#include "tools/veqctl/ExitCode.h"

namespace Veq::Tools {

ExitCode ExitCodes::For(Sdk::ErrorCode code)
{
    switch (code) {
    case Sdk::ErrorCode::None:
        return kDone;
    case Sdk::ErrorCode::NotPublished:
    case Sdk::ErrorCode::Unreachable:
    case Sdk::ErrorCode::PermissionDenied:
    case Sdk::ErrorCode::NoHandshakeReply:
    case Sdk::ErrorCode::ConnectionLost:
        return kUnreachable;
    case Sdk::ErrorCode::Refused:
        return kRefused;
    case Sdk::ErrorCode::NoReply:
        return kTimedOut;
    case Sdk::ErrorCode::BadReply:
    case Sdk::ErrorCode::Closed:
    case Sdk::ErrorCode::InvalidCall:
        return kFailed;
    }
    return kFailed;
}

const char* ExitCodes::Help()
{
    return "The common options (--root, --side, --id, --name, --timeout) may also follow the subcommand;\n"
           "after listen or monitor, --timeout is their own.\n\n"
           "Exit codes:\n"
           "  0  done: a result arrived (whatever its isSuccess), the pushes came, or the event was accepted\n"
           "  1  unexpected failure (an answer that breaks the protocol)\n"
           "  2  bad command line\n"
           "  3  the service cannot be reached: not running, side not open, permission denied, no answer to the\n"
           "     handshake, or the service went away\n"
           "  4  the service refused the connection (e.g. too many connections from one process)\n"
           "  5  connected, but no result (send), not all pushes (listen --count, send --until) or events (monitor --count) within the timeout\n"
           "  6  publish, plugins, diagnostics: the service did not accept the request\n"
           "  7  diagnostics: a running plugin was not reached\n";
}

}  // namespace Veq::Tools
