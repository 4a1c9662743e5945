#pragma once
// One event on the in-process bus: a numbered topic and state with a payload, or a message from
// the MQTT connection (an extension notification) with its text topic.

#include <map>
#include <string>

namespace VEQ {

class VEQNotificationData {
public:
    VEQNotificationData();
    VEQNotificationData(int topicId, int eventState, const std::wstring& payload);
    // A message from the cloud connection: topic is its MQTT topic; topic id and state are 0.
    VEQNotificationData(const std::wstring& topic, const std::wstring& payload, bool isExtensionNotification);

    int getTopicId() const { return topicId_; }
    int getEventState() const { return eventState_; }
    std::wstring getTopic() const { return topic_; }
    std::wstring getPayload() const { return payload_; }
    std::wstring getMessageType() const { return messageType_; }
    std::wstring getActionType() const { return actionType_; }
    bool isExtensionNotification() const { return isExtensionNotification_; }
    int getPublishFlag() const { return publishFlag_; }

    void setTopic(const std::wstring& topic) { topic_ = topic; }
    void setPayload(const std::wstring& payload) { payload_ = payload; }
    void setMessageType(const std::wstring& messageType) { messageType_ = messageType; }
    void setActionType(const std::wstring& actionType) { actionType_ = actionType; }
    void setExtensionNotification(bool isExtensionNotification) { isExtensionNotification_ = isExtensionNotification; }
    void setPublishFlag(int publishFlag) { publishFlag_ = publishFlag; }

    // The payload's top-level member name when the payload is a JSON object and the member is a
    // string, a number or a bool (numbers and bools as their JSON text); otherwise empty.
    std::wstring getFieldValue(const std::wstring& name) const;

    // Reads "packageId", "packageType", "packageName", "packageVersion" and "installationTrigger"
    // as getFieldValue does: absent members read as empty. False, with every output emptied, when
    // the payload is not a JSON object.
    bool deserializePayloadForPackageEvent(std::wstring& packageId, std::wstring& packageType,
                                           std::wstring& packageName, std::wstring& packageVersion,
                                           std::wstring& installationTrigger) const;

    // Reads "status" and "message" as above. True only when the payload is a JSON object with a
    // non-empty "status": a registration result without a status says nothing.
    bool deserializePayloadForDeviceRegistration(std::wstring& status, std::wstring& message) const;

    // A one-line JSON object of string members, e.g. {"isAsync":"false","requestId":"42"}.
    static std::wstring constructPayloadForInvokeCommand(const std::map<std::string, std::string>& fields);

private:
    int topicId_ = 0;
    int eventState_ = 0;
    std::wstring topic_;
    std::wstring payload_;
    std::wstring messageType_;
    std::wstring actionType_;
    bool isExtensionNotification_ = false;
    int publishFlag_ = 0;
};

}  // namespace VEQ
