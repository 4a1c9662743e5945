#include "platform/transport/WireCodec.h"

#include <memory>

namespace Tavrin::Veq::ClientBroker {
namespace {

// Writers and readers are costly to build and not thread-safe: one per thread.
Json::StreamWriter& ThreadWriter()
{
    thread_local std::unique_ptr<Json::StreamWriter> writer = [] {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        builder["emitUTF8"] = true;
        return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
    }();
    return *writer;
}

Json::CharReader& ThreadReader()
{
    thread_local std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        builder["rejectDupKeys"] = false;
        builder["stackLimit"] = 64;
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    return *reader;
}

bool ReadString(const Json::Value& object, const char* name, std::string& out, std::string& error)
{
    const Json::Value* member = object.find(name, name + std::char_traits<char>::length(name));
    if (member == nullptr || member->isNull()) {
        return true;
    }
    if (!member->isString()) {
        error = std::string("member \"") + name + "\" must be a string";
        return false;
    }
    out = member->asString();
    return true;
}

bool ReadObject(const Json::Value& object, const char* name, const Json::Value*& out, std::string& error)
{
    out = object.find(name, name + std::char_traits<char>::length(name));
    if (out == nullptr || out->isNull()) {
        out = nullptr;
        return true;
    }
    if (!out->isObject()) {
        error = std::string("member \"") + name + "\" must be an object";
        return false;
    }
    return true;
}

// The records go out on every request and reply, so they are written straight into the text, in
// the form the JSON writer gives them (members in name order, no spaces, UTF-8 as it stands), without
// building a document first.
void AppendQuoted(std::string& out, const std::string& text)
{
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    for (const char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\b':
            out += "\\b";
            break;
        case '\f':
            out += "\\f";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                out += "\\u00";
                out += kHex[(c >> 4) & 0xF];
                out += kHex[c & 0xF];
            } else {
                out += c;
            }
        }
    }
    out += '"';
}

void AppendMember(std::string& out, const char* name, const std::string& value)
{
    out += '"';
    out += name;
    out += "\":";
    AppendQuoted(out, value);
    out += ',';
}

void AppendMessage(std::string& out, const Message& message)
{
    out += '{';
    AppendMember(out, "annex", message.annex);
    AppendMember(out, "guid", message.guid);
    out += "\"notification\":{";
    AppendMember(out, "command", message.notification.command);
    AppendMember(out, "payload", message.notification.payload);
    AppendMember(out, "targetId", message.notification.targetId);
    AppendMember(out, "targetName", message.notification.targetName);
    out.back() = '}';
    out += ',';
    AppendMember(out, "senderElevation", message.senderElevation);
    AppendMember(out, "senderId", message.senderId);
    AppendMember(out, "senderKind", message.senderKind);
    AppendMember(out, "senderName", message.senderName);
    AppendMember(out, "senderType", message.senderType);
    out += "\"statusCode\":";
    out += std::to_string(message.statusCode);
    out += ',';
    AppendMember(out, "statusSource", message.statusSource);
    AppendMember(out, "statusText", message.statusText);
    out.back() = '}';
}

size_t EstimatedSize(const Message& message)
{
    return 256 + message.guid.size() + message.annex.size() + message.notification.command.size() +
           message.notification.payload.size() + message.notification.targetId.size() +
           message.notification.targetName.size() + message.senderId.size() + message.senderName.size() +
           message.statusText.size();
}

}  // namespace

Json::Value WireCodec::ToJson(const Notification& notification)
{
    Json::Value value(Json::objectValue);
    value["command"] = notification.command;
    value["payload"] = notification.payload;
    value["targetId"] = notification.targetId;
    value["targetName"] = notification.targetName;
    return value;
}

Json::Value WireCodec::ToJson(const Message& message)
{
    Json::Value value(Json::objectValue);
    value["guid"] = message.guid;
    value["annex"] = message.annex;
    value["senderType"] = message.senderType;
    value["senderId"] = message.senderId;
    value["senderName"] = message.senderName;
    value["senderKind"] = message.senderKind;
    value["senderElevation"] = message.senderElevation;
    value["notification"] = ToJson(message.notification);
    value["statusCode"] = message.statusCode;
    value["statusSource"] = message.statusSource;
    value["statusText"] = message.statusText;
    return value;
}

Json::Value WireCodec::ToJson(const Result& result)
{
    Json::Value value(Json::objectValue);
    value["isSuccess"] = result.isSuccess;
    value["message"] = ToJson(result.message);
    return value;
}

bool WireCodec::FromJson(const Json::Value& value, Notification& out, std::string& error)
{
    if (!value.isObject()) {
        error = "notification must be an object";
        return false;
    }
    return ReadString(value, "command", out.command, error) && ReadString(value, "payload", out.payload, error) &&
           ReadString(value, "targetId", out.targetId, error) &&
           ReadString(value, "targetName", out.targetName, error);
}

bool WireCodec::FromJson(const Json::Value& value, Message& out, std::string& error)
{
    if (!value.isObject()) {
        error = "message must be an object";
        return false;
    }
    if (!(ReadString(value, "guid", out.guid, error) && ReadString(value, "annex", out.annex, error) &&
          ReadString(value, "senderType", out.senderType, error) &&
          ReadString(value, "senderId", out.senderId, error) &&
          ReadString(value, "senderName", out.senderName, error) &&
          ReadString(value, "senderKind", out.senderKind, error) &&
          ReadString(value, "senderElevation", out.senderElevation, error) &&
          ReadString(value, "statusSource", out.statusSource, error) &&
          ReadString(value, "statusText", out.statusText, error))) {
        return false;
    }
    const Json::Value* notification = nullptr;
    if (!ReadObject(value, "notification", notification, error)) {
        return false;
    }
    if (notification != nullptr && !FromJson(*notification, out.notification, error)) {
        return false;
    }
    const Json::Value& statusCode = value["statusCode"];
    if (!statusCode.isNull()) {
        if (!statusCode.isInt()) {
            error = "member \"statusCode\" must be a 32-bit integer";
            return false;
        }
        out.statusCode = statusCode.asInt();
    }
    return true;
}

bool WireCodec::FromJson(const Json::Value& value, Result& out, std::string& error)
{
    if (!value.isObject()) {
        error = "result must be an object";
        return false;
    }
    const Json::Value& isSuccess = value["isSuccess"];
    if (!isSuccess.isNull()) {
        if (!isSuccess.isBool()) {
            error = "member \"isSuccess\" must be a boolean";
            return false;
        }
        out.isSuccess = isSuccess.asBool();
    }
    const Json::Value* message = nullptr;
    if (!ReadObject(value, "message", message, error)) {
        return false;
    }
    return message == nullptr || FromJson(*message, out.message, error);
}

std::string WireCodec::Write(const Json::Value& value)
{
    std::ostringstream out;
    ThreadWriter().write(value, &out);
    return out.str();
}

std::optional<Json::Value> WireCodec::ParseObject(const std::string& text, std::string& error)
{
    Json::Value value;
    std::string parseErrors;
    try {
        if (!ThreadReader().parse(text.data(), text.data() + text.size(), &value, &parseErrors)) {
            error = "not JSON";
            return std::nullopt;
        }
    } catch (const Json::Exception&) {
        error = "JSON nested too deeply";  // the reader throws past its stack limit
        return std::nullopt;
    }
    if (!value.isObject()) {
        error = "not a JSON object";
        return std::nullopt;
    }
    return value;
}

std::string WireCodec::EncodeMessage(const Message& message)
{
    std::string out;
    out.reserve(EstimatedSize(message));
    AppendMessage(out, message);
    return out;
}

std::string WireCodec::EncodeResult(const Result& result)
{
    std::string out;
    out.reserve(EstimatedSize(result.message) + 32);
    out += result.isSuccess ? "{\"isSuccess\":true,\"message\":" : "{\"isSuccess\":false,\"message\":";
    AppendMessage(out, result.message);
    out += '}';
    return out;
}

bool WireCodec::DecodeMessage(const std::string& text, Message& out, std::string& error)
{
    auto value = ParseObject(text, error);
    return value && FromJson(*value, out, error);
}

bool WireCodec::DecodeResult(const std::string& text, Result& out, std::string& error)
{
    auto value = ParseObject(text, error);
    return value && FromJson(*value, out, error);
}

}  // namespace Tavrin::Veq::ClientBroker
