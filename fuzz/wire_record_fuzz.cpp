// Feeds bytes to the reader of the socket protocol's records, as a client's request frame would
// reach it: parsed as one object, read as a message, a result and a notification, and as the
// members that carry them in the notification channel's frames. Nothing may crash, leak or hang,
// a refused record must say why, and whatever is read must come back unchanged through the
// encoder, the way the service answers with a copy of the request.

#include "platform/transport/WireCodec.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace {

using Tavrin::Veq::ClientBroker::Message;
using Tavrin::Veq::ClientBroker::Notification;
using Tavrin::Veq::ClientBroker::Result;
using Tavrin::Veq::ClientBroker::WireCodec;

[[noreturn]] void Fail(const char* what, const std::string& detail)
{
    std::fprintf(stderr, "wire record: %s\n%s\n", what, detail.c_str());
    std::abort();
}

// Names the first member that differs, so that a finding says what was lost.
const char* FirstDifference(const Notification& a, const Notification& b)
{
    if (a.command != b.command) {
        return "notification.command";
    }
    if (a.payload != b.payload) {
        return "notification.payload";
    }
    if (a.targetId != b.targetId) {
        return "notification.targetId";
    }
    if (a.targetName != b.targetName) {
        return "notification.targetName";
    }
    return nullptr;
}

const char* FirstDifference(const Message& a, const Message& b)
{
    const std::pair<const char*, bool> members[] = {
        {"guid", a.guid == b.guid},
        {"annex", a.annex == b.annex},
        {"senderType", a.senderType == b.senderType},
        {"senderId", a.senderId == b.senderId},
        {"senderName", a.senderName == b.senderName},
        {"senderKind", a.senderKind == b.senderKind},
        {"senderElevation", a.senderElevation == b.senderElevation},
        {"statusCode", a.statusCode == b.statusCode},
        {"statusSource", a.statusSource == b.statusSource},
        {"statusText", a.statusText == b.statusText},
    };
    for (const auto& [name, same] : members) {
        if (!same) {
            return name;
        }
    }
    return FirstDifference(a.notification, b.notification);
}

const char* FirstDifference(const Result& a, const Result& b)
{
    return a.isSuccess != b.isSuccess ? "isSuccess" : FirstDifference(a.message, b.message);
}

// The encoder writes the text by hand in the JSON writer's form; both must read back as the record.
void CheckMessage(const Message& message)
{
    const std::string text = WireCodec::EncodeMessage(message);
    Message decoded;
    std::string error;
    if (!WireCodec::DecodeMessage(text, decoded, error)) {
        Fail("an encoded message does not decode", error + "\n" + text);
    }
    if (const char* member = FirstDifference(message, decoded)) {
        Fail("a message changed through Encode and Decode", member + std::string("\n") + text);
    }
    if (WireCodec::Write(WireCodec::ToJson(message)) != text) {
        Fail("EncodeMessage and the JSON writer disagree", text);
    }
}

void CheckResult(const Result& result)
{
    const std::string text = WireCodec::EncodeResult(result);
    Result decoded;
    std::string error;
    if (!WireCodec::DecodeResult(text, decoded, error)) {
        Fail("an encoded result does not decode", error + "\n" + text);
    }
    if (const char* member = FirstDifference(result, decoded)) {
        Fail("a result changed through Encode and Decode", member + std::string("\n") + text);
    }
    if (WireCodec::Write(WireCodec::ToJson(result)) != text) {
        Fail("EncodeResult and the JSON writer disagree", text);
    }
}

// A pushed notification goes out through the JSON writer, not the encoder.
void CheckNotification(const Notification& notification)
{
    const std::string text = WireCodec::Write(WireCodec::ToJson(notification));
    std::string error;
    const auto value = WireCodec::ParseObject(text, error);
    Notification decoded;
    if (!value || !WireCodec::FromJson(*value, decoded, error)) {
        Fail("a written notification does not read back", error + "\n" + text);
    }
    if (const char* member = FirstDifference(notification, decoded)) {
        Fail("a notification changed through Write and FromJson", member + std::string("\n") + text);
    }
    Message carrier;
    carrier.notification = notification;
    CheckMessage(carrier);
}

void RequireReason(const std::string& error, const char* reader)
{
    if (error.empty()) {
        Fail("a record was refused without a reason", reader);
    }
}

void ReadAsRecords(const Json::Value& value)
{
    std::string error;
    Notification notification;
    if (WireCodec::FromJson(value, notification, error)) {
        CheckNotification(notification);
    } else {
        RequireReason(error, "FromJson(Notification)");
    }
    error.clear();
    Message message;
    if (WireCodec::FromJson(value, message, error)) {
        CheckMessage(message);
    } else {
        RequireReason(error, "FromJson(Message)");
    }
    error.clear();
    Result result;
    if (WireCodec::FromJson(value, result, error)) {
        CheckResult(result);
    } else {
        RequireReason(error, "FromJson(Result)");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string error;
    Message message;
    if (WireCodec::DecodeMessage(text, message, error)) {
        CheckMessage(message);
    } else {
        RequireReason(error, "DecodeMessage");
    }
    error.clear();
    Result result;
    if (WireCodec::DecodeResult(text, result, error)) {
        CheckResult(result);
    } else {
        RequireReason(error, "DecodeResult");
    }

    error.clear();
    const auto object = WireCodec::ParseObject(text, error);
    if (!object) {
        RequireReason(error, "ParseObject");
        return 0;
    }
    Notification notification;
    error.clear();
    if (WireCodec::FromJson(*object, notification, error)) {
        CheckNotification(notification);
    } else {
        RequireReason(error, "FromJson(Notification)");
    }
    // The notification channel's frames carry the records in these members.
    for (const char* member : {"notification", "message", "result"}) {
        if (const Json::Value* inner = object->find(member, member + std::char_traits<char>::length(member))) {
            ReadAsRecords(*inner);
        }
    }
    return 0;
}
