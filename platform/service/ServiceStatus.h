#pragma once
// Whether a companion service of the host runs. On Linux a service is a systemd unit, asked
// over the system bus for its ActiveState.

#include <mutex>
#include <string>

namespace VEQ {

class ServiceStatus {
public:
    // Settings of the unit names. Machines without systemd, and tests, name the answer instead.
    static constexpr const char* kAlways = "always";
    static constexpr const char* kNever = "never";

    // The host configuration's word on the gated service (http.serviceGateUnit, docs/http.md):
    // a unit name ("velmardesk.service"), kAlways or kNever; empty: the service's name followed
    // by ".service".
    struct Settings {
        std::string unit;
    };

    static ServiceStatus* GetInstance();

    ServiceStatus(const ServiceStatus&) = delete;
    ServiceStatus& operator=(const ServiceStatus&) = delete;

    void SetSettings(const Settings& settings);
    Settings GetSettings();

    // True when the unit behind serviceName is "active" or "reloading". False on any failure: no
    // system bus, no such unit, a bus that does not answer within two seconds. activeState, when
    // given, receives what was learnt ("active", "inactive", ..., kAlways, kNever; empty: nothing).
    bool IsServiceRunning(const std::wstring& serviceName, std::string* activeState = nullptr);

    // The unit's ActiveState over the system bus; empty when it cannot be learnt.
    static std::string UnitActiveState(const std::string& unit);

private:
    ServiceStatus() = default;
    ~ServiceStatus() = default;

    std::mutex mutex_;  // guards settings_
    Settings settings_;
};

}  // namespace VEQ
