// The stored form of a record's fields (the records.fields column): an encoder from the typed
// fields to bytes and a decoder that treats the bytes as untrusted. Pure functions.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "base/bytes.h"
#include "cloud/record.h"

namespace corvane::cloud {

using Fields = std::map<std::string, FieldValue, std::less<>>;

// A content as a record refers to it.
struct StoredAsset {
    std::string hash;  // SHA-256, 64 lowercase hexadecimal digits
    std::uint64_t size = 0;
};

// Saving: the stored content of an asset the caller attached (already hashed).
using AssetLookup = std::function<StoredAsset(const Asset&)>;
// Fetching: the asset handed to the caller for a stored content.
using AssetPlacer = std::function<Asset(const StoredAsset&)>;

// Layout, integers little-endian:
//   u8 format (1), u32 field count, then per field in key order:
//   str key, u8 kind, value by kind:
//     1 string: str            2 integer: i64          3 asset: asset
//     4 string list: u32 count, str...                  5 asset list: u32 count, asset...
//     6 reference: str record name (same zone), u8 action
//   str = u32 byte count + UTF-8 bytes; asset = 32-byte SHA-256 + u64 size.
Bytes encodeFields(const Fields& fields, const AssetLookup& lookup);

// References are placed in `zone`. Throws Error naming what is wrong on malformed bytes; never
// allocates more than the input could describe.
Fields decodeFields(ByteView bytes, const ZoneId& zone, const AssetPlacer& placer);

}  // namespace corvane::cloud
