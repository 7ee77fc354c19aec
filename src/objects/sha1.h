// Object ids and SHA-1. An object id is 40 lowercase hexadecimal characters; it is the only form
// in which ids travel through the system. Pure functions, safe on any thread; a SHA1Context has
// one owner at a time.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/bytes.h"
#include "objects/object_type.h"

namespace corvane {

using Digest = std::array<std::uint8_t, 20>;

// Hashes a digest for unordered containers: its first bytes, already uniformly spread.
struct DigestHash {
    std::size_t operator()(const Digest& id) const {
        std::size_t hash;
        std::memcpy(&hash, id.data(), sizeof hash);
        return hash;
    }
};

bool isObjectId(std::string_view text);

// Two lowercase hexadecimal digits per byte, no separators.
std::string hexString(ByteView bytes);

// The 20 bytes an object id spells; the text must be an object id (isObjectId).
Digest digestOfId(std::string_view id);
// The digest an object id names, or none when the text is not one (isObjectId), in one pass.
std::optional<Digest> parseObjectId(std::string_view text);

Digest sha1(ByteView data);

// Incremental SHA-1: update any number of times, then finish once. Copies carry the state.
class SHA1Context {
  public:
    SHA1Context();
    SHA1Context(const SHA1Context& other);
    SHA1Context& operator=(const SHA1Context& other);
    SHA1Context(SHA1Context&&) noexcept = default;
    SHA1Context& operator=(SHA1Context&&) noexcept = default;
    ~SHA1Context();

    void update(ByteView data);
    Digest finish();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

// git's object id: SHA-1 of "<type name> <size>\0" followed by the contents.
std::string objectId(ObjectType type, ByteView data);

}  // namespace corvane
