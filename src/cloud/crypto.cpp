#include "cloud/crypto.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "base/error.h"
#include "cloud/error_codes.h"

namespace corvane::cloud {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

std::string toHex(const std::uint8_t* bytes, std::size_t count) {
    std::string text(count * 2, '0');
    for (std::size_t i = 0; i < count; ++i) {
        text[2 * i] = kHexDigits[bytes[i] >> 4];
        text[2 * i + 1] = kHexDigits[bytes[i] & 0x0f];
    }
    return text;
}

}  // namespace

struct Sha256::State {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    ~State() { EVP_MD_CTX_free(context); }
};

Sha256::Sha256() : state_(std::make_unique<State>()) {
    // Without a working digest libcrypto itself is broken: not a condition of the input.
    if (!state_->context || EVP_DigestInit_ex(state_->context, EVP_sha256(), nullptr) != 1)
        throw std::logic_error("SHA-256 unavailable");
}

Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::update(ByteView data) {
    if (!data.empty()) EVP_DigestUpdate(state_->context, data.data(), data.size());
}

std::string Sha256::finishHex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(state_->context, digest, &length);
    return toHex(digest, length);
}

bool isContentHash(std::string_view text) {
    if (text.size() != 64) return false;
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

std::string randomHex(std::size_t byteCount) {
    std::vector<std::uint8_t> bytes(byteCount);
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        throw std::logic_error("random bytes unavailable");
    return toHex(bytes.data(), bytes.size());
}

}  // namespace corvane::cloud
