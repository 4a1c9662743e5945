#pragma once
// The immediate reply of "Start-PackageOperation": which request and package it is about, and a
// result word. These words go on the wire; the stored states are PackageStatesHelper's.

#include <string>

namespace VEQ {

class StartPackageOperationCommandResponse {
public:
    static constexpr const char* PO_PACKAGE_NOT_FOUND = "package_not_found";
    static constexpr const char* PO_DENIED_BY_UPDATE_SCOPE = "denied_by_update_scope";
    static constexpr const char* PO_NOT_APPLICABLE = "not_applicable";
    static constexpr const char* PO_INSTALLED = "installed";
    static constexpr const char* PO_INSTALL_FAIL = "install_fail";
    static constexpr const char* PO_OPERATION_DENIED = "operation_denied";
    static constexpr const char* PO_OTA_PENDING = "OTA_pending";
    static constexpr const char* PO_INSTALL_FAILED_LIMIT_REACHED = "install_fail_limit_reached";
    static constexpr const char* PO_CANCELLED = "cancelled";
    static constexpr const char* PO_CANCEL_ERROR = "cancel_error";
    static constexpr const char* PO_GENERAL_ERROR = "General Error";

    std::string requestId;
    std::string packageId;
    std::string result;

    // One line of JSON with the three texts.
    static std::string Serialize(const StartPackageOperationCommandResponse& response);
};

}  // namespace VEQ
