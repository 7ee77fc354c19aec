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

// True for 64 lowercase hexadecimal digits: the only text used as a content's file name.
bool isContentHash(std::string_view text);

// byteCount random bytes as lowercase hexadecimal digits.
std::string randomHex(std::size_t byteCount);

}  // namespace corvane::cloud
