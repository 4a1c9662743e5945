#pragma once

#include "broker/BaseCommandHandler.h"

#include <string>
#include <vector>

namespace VEQ {

// "Notify-ZCP": a plugin's alert to the back end, sent straight to the notification agent on the
// topic "alert". Request data: {"notify": "<name>", "param": "<the text of a JSON value>"}. The
// reply's payload {"result": "..."} tells what the agent did with it.
class NotifyZCPCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Notify-ZCP";
    static constexpr const char* kReplyCommand = "Receive-NotifyZCP";
    static constexpr const wchar_t* kTopic = L"alert";

    explicit NotifyZCPCommand(Log& log);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

private:
    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
