#pragma once

#include "broker/BaseCommandHandler.h"
#include "commands/GetDeviceConfigResponse.h"

#include <cstdint>
#include <string>
#include <vector>

namespace VEQ {

// "Get-DeviceConfig": the configuration policy in force. With "refreshConfig" true the handler
// first asks the configuration agent for a fresh copy (topic 4, state 24 on the bus), polls the
// agent until the refresh ends or the time limit passes, and reports the outcome beside the text.
// It is the one command whose reply waits for background work, so its limits are fixed values.
class GetDeviceConfigCommand : public BaseCommandHandler {
public:
    static constexpr const char* kCommandName = "Get-DeviceConfig";
    static constexpr const char* kReplyCommand = "Receive-DeviceConfig";
    static constexpr int32_t kDefaultPollIntervalMs = 500;
    // Below the broker's 58 s wait for a handler, so that a client hears "timeout" and not the
    // broker's own timeout reply.
    static constexpr int32_t kDefaultFetchTimeoutMs = 55000;

    explicit GetDeviceConfigCommand(Log& log);
    // Other timings, for tests of the poll loop.
    GetDeviceConfigCommand(Log& log, int32_t pollIntervalMs, int32_t fetchTimeoutMs);

    Result GetResponse(const ClientRequest& request, bool& pendingOperation) override;
    const std::vector<std::string>& GetSupportedCommandNames() override;
    ElevationType GetSupportedContext() override;
    ExtensionType GetSupportedExtensionType() override;

    // The policy text, after a refresh when refresh is true and the device is registered.
    GetDeviceConfigResponse ProcessConfigPolicyFetch(bool refresh);

    int32_t PollIntervalMs() const { return m_pollIntervalMs; }
    int32_t FetchTimeoutMs() const { return m_fetchTimeoutMs; }

private:
    const std::string m_timeoutDescription = "timeout";
    const std::string m_timeoutCode = "15";
    const int32_t m_pollIntervalMs;
    // Counted as the sum of the intervals of polls that found the refresh still running.
    const int32_t m_fetchTimeoutMs;
    std::vector<std::string> commandNames_;
};

}  // namespace VEQ
