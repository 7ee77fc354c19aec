// Records: a type, an id, typed fields, an optional parent, and what the store stamps on a
// saved record (dates and change tag). Plain values; a record with `share` set is a share record.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cloud/record_id.h"
#include "cloud/share.h"

namespace corvane::cloud {

using Date = std::chrono::system_clock::time_point;

inline constexpr std::string_view kShareRecordType = "cloud.share";

// Where an asset's bytes lie in a file that holds several things back to back.
struct ByteRange {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;

    bool operator==(const ByteRange&) const = default;
};

// A file attached to a record. When saving, the file whose bytes are stored (only `range` of it,
// when set); when fetched, a readable local copy of the stored bytes, whole (absent only on
// records built without one).
struct Asset {
    Asset() = default;
    Asset(std::filesystem::path file, std::optional<ByteRange> part = std::nullopt)
        : fileURL(std::move(file)), range(part) {}

    std::optional<std::filesystem::path> fileURL;
    std::optional<ByteRange> range;

    bool operator==(const Asset&) const = default;
};

enum class ReferenceAction { none = 0, deleteSelf = 1 };

// A link to another record of the same zone.
struct Reference {
    RecordId recordId;
    ReferenceAction action = ReferenceAction::none;

    bool operator==(const Reference&) const = default;
};

using FieldValue = std::variant<std::string, std::int64_t, Asset, std::vector<std::string>,
                                std::vector<Asset>, Reference>;

struct Record {
    Record() = default;
    Record(std::string type, RecordId id) : recordType(std::move(type)), recordId(std::move(id)) {}

    std::string recordType;
    RecordId recordId;
    std::map<std::string, FieldValue, std::less<>> fields;
    std::optional<Reference> parent;
    std::optional<Share> share;

    // Stamped by the store; a fetched record's change tag is what save policy 0 compares.
    std::optional<Date> creationDate;
    std::optional<Date> modificationDate;
    std::optional<std::string> recordChangeTag;

    // The field's value when it is present and of type T.
    template <typename T>
    const T* get(std::string_view key) const {
        auto it = fields.find(key);
        return it == fields.end() ? nullptr : std::get_if<T>(&it->second);
    }
    void set(std::string key, FieldValue value) { fields[std::move(key)] = std::move(value); }
    void remove(std::string_view key);
    void setParent(const RecordId& id) { parent = Reference{id, ReferenceAction::none}; }
    bool isShare() const { return share.has_value(); }
};

// A new share record named shareRecordName, in the root record's zone and rooted at it.
Record makeShare(const Record& rootRecord, std::string shareRecordName);

}  // namespace corvane::cloud
