// SHA-256 digests that name stored contents, and random names (record names of accounts, share
// tokens, change tags), both from libcrypto. Functions are safe on any thread; a Sha256 has one
// owner at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "base/bytes.h"

namespace corvane::cloud {

class Sha256 {
  public:
    Sha256();
    ~Sha256();
    Sha256(Sha256&&) noexcept;
    Sha256& operator=(Sha256&&) noexcept;

    void update(ByteView data);
    // 64 lowercase hexadecimal digits; the context is spent afterwards.
    std::string finishHex();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

struct FileDigest {
    std::string hash;  // SHA-256, 64 lowercase hexadecimal digits
    std::uint64_t size = 0;
    // The bytes that were hashed, when kept: storing them then needs no second read of a file
    // that may have changed since.
    std::shared_ptr<const Bytes> contents;
};

// Reads the file once, keeping its bytes when there are at most `keepUpTo` of them. Throws
// CloudError 16 when it cannot be opened or read.
FileDigest digestFile(const std::filesystem::path& file, std::uint64_t keepUpTo = 0);

// True for 64 lowercase hexadecimal digits: the only text used as a content's file name.
bool isContentHash(std::string_view text);

// byteCount random bytes as lowercase hexadecimal digits.
std::string randomHex(std::size_t byteCount);

}  // namespace corvane::cloud
