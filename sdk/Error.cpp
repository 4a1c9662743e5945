#include "sdk/Error.h"

namespace Veq::Sdk {

const char* Error::Name(ErrorCode code)
{
    switch (code) {
    case ErrorCode::None:
        return "None";
    case ErrorCode::NotPublished:
        return "NotPublished";
    case ErrorCode::Unreachable:
        return "Unreachable";
    case ErrorCode::PermissionDenied:
        return "PermissionDenied";
    case ErrorCode::NoHandshakeReply:
        return "NoHandshakeReply";
    case ErrorCode::Refused:
        return "Refused";
    case ErrorCode::BadReply:
        return "BadReply";
    case ErrorCode::NoReply:
        return "NoReply";
    case ErrorCode::ConnectionLost:
        return "ConnectionLost";
    case ErrorCode::Closed:
        return "Closed";
    case ErrorCode::InvalidCall:
        return "InvalidCall";
    }
    return "Unknown";
}

}  // namespace Veq::Sdk
