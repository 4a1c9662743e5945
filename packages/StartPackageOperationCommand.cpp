#include "packages/StartPackageOperationCommand.h"

#include "broker/ReplyJson.h"
#include "packages/GetPackagelistCommand.h"
#include "packages/PackageStatesHelper.h"
#include "packages/StartPackageOperationCommandResponse.h"
#include "platform/applicability/ApplicabilityEvaluator.h"
#include "platform/bus/VEQNotificationData.h"
#include "platform/bus/VEQPublisherSubscriber.h"
#include "platform/policy/ConfigPolicyAgent.h"
#include "platform/registry/PackageStatusRegistry.h"
#include "platform/registry/PackageUtils.h"
#include "platform/string/String.h"

#include <exception>

namespace VEQ {
namespace {

using Response = StartPackageOperationCommandResponse;

constexpr const wchar_t* kFunction = L"VEQ::StartPackageOperationCommand::GetResponse";
constexpr const char* kGeneralError = "General Error";
constexpr int kMaxForcedInstallRetries = 2;

bool Same(const std::string& text, const wchar_t* word)
{
    return String::CaseInsesitiveEqual(String::UTF8ToUTF16(text), std::wstring(word));
}

bool ParseRequest(const std::string& payload, Json::Value& parsed)
{
    try {
        return ReplyJson::Parse(payload, parsed);
    } catch (const Json::Exception&) {
        return false;  // nested deeper than the reader takes
    }
}

std::string StringMember(const Json::Value& request, const char* name)
{
    if (!request.isObject() || !request.isMember(name) || !request[name].isString()) {
        return {};
    }
    return request[name].asString();
}

void Fail(BaseCommandHandler::Result& result)
{
    result.isSuccess = false;
    result.message.statusCode = -1;
    result.message.statusText = kGeneralError;
}

}  // namespace

StartPackageOperationCommand::StartPackageOperationCommand(Log& log, const std::string& extensionId)
    : BaseCommandHandler(log), commandNames_{kCommandName}, extensionId_(extensionId)
{
    log_->d(L"%s: Received", L"VEQ::StartPackageOperationCommand::StartPackageOperationCommand");
}

bool StartPackageOperationCommand::ValidOperationType(const std::wstring& operationType)
{
    for (const wchar_t* valid : {L"install", L"forcedInstall", L"cancel"}) {
        if (String::CaseInsesitiveEqual(operationType, std::wstring(valid))) {
            return true;
        }
    }
    return false;
}

std::vector<KeyValuePair> StartPackageOperationCommand::ParseAdditionalTags(const std::string& payload, Log* log)
{
    return GetPackagelistCommand::ParseAdditionalTags(payload, log,
                                                      L"VEQ::StartPackageOperationCommand::ParseAdditionalTags");
}

std::vector<Package> StartPackageOperationCommand::GetPackagesFromConfig(UpdatePolicy& policy)
{
    ConfigPolicyAgent::GetInstance()->GetUpdatePolicy(policy);
    return policy.GetPackages();
}

void StartPackageOperationCommand::HandOver(const std::string& payload)
{
    VEQNotificationData data(kHandOverTopic, kHandOverState, String::UTF8ToUTF16(payload));
    VEQPublisherSubscriber::GetInstance()->Notify(data, L"");
}

BaseCommandHandler::Result StartPackageOperationCommand::GetResponse(const ClientRequest& clientRequest,
                                                                     bool& pendingOperation)
{
    Result result;
    try {
        const Message& message = clientRequest.getMessage();
        result.isSuccess = true;
        result.message.guid = message.guid;
        result.message.notification.command = kReplyCommand;
        if (!Same(message.notification.command, L"Start-PackageOperation")) {
            result.isSuccess = false;
            result.message.statusCode = kNotSupportedCode;
            result.message.statusText = kNotSupportedText;
            log_->e(L"%s: Command (%s) not supported for the request", kFunction, message.notification.command);
            return result;
        }
        UpdatePolicy policy;
        const std::vector<Package> packages = GetPackagesFromConfig(policy);
        const std::string& payload = message.notification.payload;
        Json::Value parsed;
        if (!ParseRequest(payload, parsed)) {
            Fail(result);
            log_->e(L"%s: Request format is invalid", kFunction);
            return result;
        }
        Request request;
        request.requestId = StringMember(parsed, "requestId");
        request.packageId = StringMember(parsed, "packageId");
        request.operationType = StringMember(parsed, "operationType");
        request.tags = ParseAdditionalTags(payload, log_);
        log_->i(L"%s: requestID : %s, packageId: %s, operationType: %s", kFunction, request.requestId,
                request.packageId, request.operationType);
        Response response;
        Decide(request, payload, policy, packages, response, result, pendingOperation);
        result.message.notification.payload = Response::Serialize(response);
    } catch (const std::exception& error) {
        log_->e(L"%s: Exception: %s", kFunction, error.what());
    } catch (...) {
        log_->e(L"%s: Unknown exception", kFunction);
    }
    return result;
}

void StartPackageOperationCommand::Decide(const Request& request, const std::string& payload,
                                          const UpdatePolicy& policy, const std::vector<Package>& packages,
                                          Response& response, Result& result, bool& pendingOperation)
{
    const std::wstring packageId = String::UTF8ToUTF16(request.packageId);
    const Package* package = nullptr;
    for (const Package& candidate : packages) {
        if (String::CaseInsesitiveEqual(candidate.packageId(), packageId)) {
            package = &candidate;
            break;
        }
    }
    // The reply echoes the client's spelling of the id, whichever case the configuration uses.
    response.requestId = request.requestId;
    response.packageId = request.packageId;
    std::wstring recordedState;
    std::wstring trigger;
    utility::GetPackageStateInRegistry(packageId, package ? package->packageVersion() : std::wstring(), recordedState,
                                       trigger);
    if (!ValidOperationType(String::UTF8ToUTF16(request.operationType))) {
        // Not the end: the steps below still fill the reply, which keeps the failure marks.
        Fail(result);
        log_->e(L"%s: invalid operation : %s", kFunction, request.operationType);
    }
    if (package == nullptr) {
        response.result = Response::PO_PACKAGE_NOT_FOUND;
        return;
    }
    if (String::CaseInsesitiveEqual(policy.GetUpdateScope(), std::wstring(L"none"))) {
        HandOver(payload);
        response.result = Response::PO_DENIED_BY_UPDATE_SCOPE;
        return;
    }
    std::vector<ApplicabilityFilter> filters;
    for (const Json::Value& rule : package->filter()) {
        filters.push_back(ApplicabilityFilter::FromJson(rule));
    }
    // A reason of its own per request: handlers run on several threads at once.
    std::wstring reason;
    const auto evaluator = ApplicabilityEvaluator::GetInstance();
    if (!evaluator || !evaluator->EvaluateFilters(filters, L"", request.tags, reason)) {
        log_->i(L"%s: not applicable: %s", kFunction, reason);
        HandOver(payload);
        response.result = Response::PO_NOT_APPLICABLE;
        return;
    }
    response.result = DecideByState(request, *package, recordedState, trigger);
    if (!response.result.empty()) {
        return;
    }
    if (Same(request.operationType, L"cancel")) {
        if (!PackageStatesHelper::PackageDownloadInProcess(recordedState)) {
            response.result = Response::PO_CANCEL_ERROR;
            return;
        }
        log_->e(L"%s: package state : %s", kFunction, recordedState);
        HandOver(payload);
        response.result = Response::PO_CANCELLED;
        return;
    }
    pendingOperation = true;
    HandOver(payload);
    response.result = Response::PO_OTA_PENDING;
}

std::string StartPackageOperationCommand::DecideByState(const Request& request, const Package& package,
                                                        const std::wstring& recordedState, const std::wstring& trigger)
{
    const std::wstring installed = utility::GetInstalledVersion(package.packageId());
    if (!installed.empty() && installed == package.packageVersion() && Same(request.operationType, L"install")) {
        return Response::PO_INSTALLED;
    }
    PackageUtils values(package.packageId(), package.packageVersion());
    values.SetRegPath(utility::kPackageStatusKey);
    if (recordedState == PackageStatesHelper::INSTALL_FAIL) {
        if (Same(request.operationType, L"install")) {
            return Response::PO_INSTALL_FAIL;
        }
        if (Same(request.operationType, L"forcedInstall")) {
            values.SetKeyName(utility::kFailedInstallRetryCountValue);
            if (values.GetIntValueFromReg(true) > kMaxForcedInstallRetries) {
                return Response::PO_INSTALL_FAILED_LIMIT_REACHED;
            }
        }
    }
    values.SetKeyName(utility::kPackageStateValue);
    const std::wstring currentState = values.GetStringValueFromRegistry(false);
    log_->e(L"%s: installation trigger : %s, package state : %s", kFunction, trigger, currentState);
    // Only work that something other than a client's request started holds a new request back.
    const bool startedElsewhere = !trigger.empty() && !String::CaseInsesitiveEqual(trigger, std::wstring(L"manual"));
    if (PackageStatesHelper::PackageProcessingInProgress(currentState)) {
        if (!Same(request.operationType, L"cancel")) {
            values.SetKeyName(utility::kPackageSuspendedValue);
            if (values.GetIntValueFromReg(false) != 1 && startedElsewhere) {
                return Response::PO_OPERATION_DENIED;
            }
        } else {
            log_->e(L"%s: package processing with installation trigger : %s", kFunction, trigger);
            if (startedElsewhere) {
                return Response::PO_CANCEL_ERROR;
            }
        }
    }
    return {};
}

const std::vector<std::string>& StartPackageOperationCommand::GetSupportedCommandNames()
{
    return commandNames_;
}

ElevationType StartPackageOperationCommand::GetSupportedContext()
{
    return ElevationType::Both;
}

BaseCommandHandler::ExtensionType StartPackageOperationCommand::GetSupportedExtensionType()
{
    return ExtensionType::Both;
}

}  // namespace VEQ
