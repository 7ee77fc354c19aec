#include "cloud/share_json.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "base/error.h"
#include "cloud/error_codes.h"
#include "cloud/share_store.h"
#include "cloud/share_url.h"

namespace corvane::cloud {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void writeText(Writer& writer, const char* key, const std::optional<std::string>& value) {
    writer.Key(key);
    if (value) {
        writer.String(value->data(), static_cast<rapidjson::SizeType>(value->size()));
    } else {
        writer.Null();
    }
}

std::string hex(const Bytes& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (auto byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::optional<Bytes> fromHex(std::string_view text) {
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    if (text.size() % 2) return std::nullopt;
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        int high = digit(text[i]), low = digit(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return bytes;
}

[[noreturn]] void damaged(const std::string& reason) {
    std::string message = "The team store sent a damaged share: " + reason;
    throw CloudError(kInternalError, message, message);
}

std::optional<std::string> optionalText(const rapidjson::Value& object, const char* key) {
    auto it = object.FindMember(key);
    if (it == object.MemberEnd() || it->value.IsNull()) return std::nullopt;
    if (!it->value.IsString()) damaged(std::string(key) + " is not text");
    return std::string(it->value.GetString(), it->value.GetStringLength());
}

std::int64_t number(const rapidjson::Value& object, const char* key) {
    auto it = object.FindMember(key);
    if (it == object.MemberEnd() || !it->value.IsInt64()) damaged(std::string(key) + " is missing");
    return it->value.GetInt64();
}

}  // namespace

std::string sharesToJson(const std::vector<const Record*>& shareRecords) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    writer.StartObject();
    for (const auto* record : shareRecords) {
        const auto& share = *record->share;
        const auto& name = record->recordId.recordName;
        writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
        writer.StartObject();
        writeText(writer, "root", share.rootRecordName);
        writeText(writer, "title", share.title);
        writeText(writer, "fragment", shareUrlFragment(share.title));
        writeText(writer, "thumbnail",
                  share.thumbnailImageData ? std::optional(hex(*share.thumbnailImageData))
                                           : std::nullopt);
        writer.Key("participants");
        writer.StartArray();
        for (const auto& participant : share.participants) {
            writer.StartObject();
            writer.Key("type");
            writer.Int(static_cast<int>(participant.type));
            writeText(writer, "recordName", participant.userIdentity.userRecordName);
            writeText(writer, "email", participant.userIdentity.emailAddress);
            writer.Key("permission");
            writer.Int(static_cast<int>(participant.permission));
            writer.Key("status");
            writer.Int(static_cast<int>(participant.acceptanceStatus));
            writer.EndObject();
        }
        writer.EndArray();
        writer.EndObject();
    }
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

Share shareFromJson(std::string_view json) {
    rapidjson::Document document;
    document.Parse(json.data(), json.size());
    if (document.HasParseError() || !document.IsObject()) damaged("not a JSON object");
    auto url = optionalText(document, "url");
    auto root = optionalText(document, "root");
    if (!url || !root) damaged("no URL or root record");
    Share share;
    share.rootRecordName = *root;
    share.title = optionalText(document, "title");
    share.url = *url;
    if (auto thumbnail = optionalText(document, "thumbnail")) {
        share.thumbnailImageData = fromHex(*thumbnail);
        if (!share.thumbnailImageData) damaged("the thumbnail is not hex");
    }
    auto participants = document.FindMember("participants");
    if (participants == document.MemberEnd() || !participants->value.IsArray())
        damaged("no participants");
    for (const auto& entry : participants->value.GetArray()) {
        if (!entry.IsObject()) damaged("a participant is not an object");
        ShareParticipant participant;
        participant.type = participantTypeFrom(number(entry, "type"));
        participant.acceptanceStatus = acceptanceStatusFrom(number(entry, "status"));
        participant.permission = permissionFrom(number(entry, "permission"));
        auto& identity = participant.userIdentity;
        identity.emailAddress = optionalText(entry, "email");
        identity.userRecordName = optionalText(entry, "recordName");
        if (identity.userRecordName) {
            NameComponents name{optionalText(entry, "givenName"),
                                optionalText(entry, "familyName")};
            if (name.givenName || name.familyName) identity.nameComponents = name;
            identity.hasAccount = true;
        }
        share.participants.push_back(std::move(participant));
    }
    return share;
}

}  // namespace corvane::cloud
