#pragma once

#include <optional>
#include <string>

namespace VEQ {

// The device's topic layout (docs/mqtt.md). Everything the device sends or receives lies below
// one root, by default "devices/<clientId>":
//   <root>/app/<extensionId>/...   what apps publish ("Publish-MqttMessage")
//   <root>/alert                   alerts of the service and its plugins
//   <root>/status                  "online" / "offline", retained
//   <root>/inbox/app/<extensionId>/...  what the back end sends to one app
class MqttTopics {
public:
    static constexpr const char* kInbox = "inbox";
    static constexpr const char* kStatus = "status";

    // root: the configured topic root (trailing '/' dropped), or empty for the default.
    MqttTopics(const std::string& root, const std::string& clientId);

    const std::string& Root() const { return root_; }
    // topic, as the module names it ("app/<id>/...", "alert"), placed below the root.
    std::string Outbound(const std::string& topic) const;
    std::string Status() const;
    // The one subscription: every app's inbox.
    std::string InboxFilter() const;
    // The topic an inbound message carries on the bus: its path below "<root>/inbox/", which
    // starts with "app/<extensionId>" so that the app's broker finds its id in it. Nothing for
    // a topic outside the inbox.
    std::optional<std::string> BusTopic(const std::string& topic) const;

private:
    std::string root_;
    std::string inboxPrefix_;  // "<root>/inbox/"
};

}  // namespace VEQ
