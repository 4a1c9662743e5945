#include "platform/policy/Client.h"

#include "platform/policy/PolicyText.h"

namespace VEQ {

Client Client::FromJson(const Json::Value& entry)
{
    Client client;
    client.clientId_ = PolicyText::Member(entry, "clientId");
    client.clientPermissions_ = PolicyText::Texts(entry, "clientPermissions");
    client.clientRules_ = PolicyText::Objects(entry, "clientRules");
    client.clientOs_ = PolicyText::Member(entry, "clientOs");
    client.clientElevation_ = PolicyText::Member(entry, "clientElevation");
    return client;
}

}  // namespace VEQ
