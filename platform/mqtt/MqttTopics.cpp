#include "platform/mqtt/MqttTopics.h"

namespace VEQ {

MqttTopics::MqttTopics(const std::string& root, const std::string& clientId)
    : root_(root.empty() ? "devices/" + clientId : root)
{
    while (root_.size() > 1 && root_.back() == '/') {
        root_.pop_back();
    }
    inboxPrefix_ = root_ + "/" + kInbox + "/";
}

std::string MqttTopics::Outbound(const std::string& topic) const
{
    return root_ + "/" + topic;
}

std::string MqttTopics::Status() const
{
    return root_ + "/" + kStatus;
}

std::string MqttTopics::InboxFilter() const
{
    return inboxPrefix_ + "app/+/#";
}

std::optional<std::string> MqttTopics::BusTopic(const std::string& topic) const
{
    if (topic.size() <= inboxPrefix_.size() || topic.compare(0, inboxPrefix_.size(), inboxPrefix_) != 0) {
        return std::nullopt;
    }
    return topic.substr(inboxPrefix_.size());
}

}  // namespace VEQ
