#pragma once
// Device-level services of the host. For now: who this device is.

#include "platform/crypto/SignatureCheckResult.h"
#include "platform/http/HttpMethodCode.h"
#include "platform/http/InvokeHttpResponse.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace VEQ {

class IConfigAgent;

// The device as the management back end knows it.
struct DeviceIdentity {
    // The machine id as "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX" (upper-case hex): stable across
    // restarts and updates of the service, new only when the system is reinstalled.
    std::wstring deviceId;
};

class CoreUtility {
public:
    static CoreUtility* GetInstance();

    CoreUtility(const CoreUtility&) = delete;
    CoreUtility& operator=(const CoreUtility&) = delete;
    virtual ~CoreUtility() = default;

    // Reads the first machine-id file that holds a valid id (32 hex digits, not all zero).
    // False, with an empty deviceId, when none does. An id once read is kept: the system writes
    // it once, and every status request asks for it.
    virtual bool GetDeviceIdentity(DeviceIdentity& identity);

    // Where the machine id is looked for, in order: /etc/machine-id, then D-Bus's copy for
    // systems without systemd. Replaceable for tests and for systems that keep it elsewhere.
    static std::vector<std::wstring> DefaultMachineIdFiles();

    // One HTTPS exchange with the back end, with the host's HTTP settings (docs/http.md). Status 0
    // in the reply when no exchange took place.
    virtual VEQCore::InvokeHttpResponse SendHttpRequest(const std::string& url,
                                                        const std::map<std::string, std::string>& headers,
                                                        VEQCore::HttpMethodCode method, const std::string& payload,
                                                        int32_t authType, bool flag, const std::string& responseFile);
    // A reply's body bytes as they are.
    static std::string ConvertBytesToString(const std::vector<uint8_t>& bytes);

    // The SHA-256 of a digest address, as 64 lower-case hex digits: what tells a changed address.
    virtual std::string ComputeUrlHash(const std::string& url);
    // Content signed by the back end (docs/digest.md), checked with these keys, or with those the
    // agent's policy lists.
    virtual SignatureCheckResult VerifyContentWithKeys(const std::string& text, const std::vector<std::wstring>& keys,
                                                       bool enforce);
    virtual SignatureCheckResult VerifyContentWithAgent(const std::string& text, std::shared_ptr<IConfigAgent> agent,
                                                        bool enforce);

    // Opens a signed envelope (docs/signing.md) and gives its content in decoded. strict: only
    // an envelope whose signer chains to the trust anchors is opened; otherwise the content is
    // taken unverified, and a plain document is taken as it is. The agent is not consulted: the
    // trust anchors are the host's. False, with the reason logged, when nothing is given.
    virtual bool decodeSignedContent(const std::string& encoded, std::string& decoded, IConfigAgent* agent,
                                     bool strict);
    void SetMachineIdFiles(std::vector<std::wstring> files);

    // Whether the device is registered with the management back end, as the host's registration
    // agent last wrote it: the DWORD kRegistrationValue under kRegistrationKey of the local-machine
    // hive, 1 for registered (docs/registry.md). Absent, or any other number: not registered.
    static constexpr const wchar_t* kRegistrationKey = L"Software\\Tavrin\\VEQ\\Registration";
    static constexpr const wchar_t* kRegistrationValue = L"DeviceRegistered";
    virtual bool IsDeviceRegistered();
    // Writes that value, as the registration agent does (and veqd for tests and demos). Announcing
    // the change on the bus (topic 2, state 11 or 12) is the writer's part.
    virtual bool SetDeviceRegistered(bool registered);

protected:
    CoreUtility();

private:
    std::mutex mutex_;  // guards machineIdFiles_ and knownId_
    std::vector<std::wstring> machineIdFiles_;
    std::wstring knownId_;
};

}  // namespace VEQ
