#include "objects/sha1.h"

#include <array>

#include <openssl/evp.h>

#include <stdexcept>

namespace corvane {

bool isObjectId(std::string_view text) {
    return parseObjectId(text).has_value();
}

std::string hexString(ByteView bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text(bytes.size() * 2, '0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4];
        text[2 * i + 1] = kDigits[bytes[i] & 0x0f];
    }
    return text;
}

Digest digestOfId(std::string_view id) {
    auto value = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
    Digest digest{};
    for (std::size_t i = 0; i < digest.size(); ++i)
        digest[i] = static_cast<std::uint8_t>(value(id[2 * i]) << 4 | value(id[2 * i + 1]));
    return digest;
}

std::optional<Digest> parseObjectId(std::string_view text) {
    if (text.size() != 40) return std::nullopt;
    // Lower-case hexadecimal digits only, as git writes ids; anything else is not a digit.
    static constexpr auto kValues = [] {
        std::array<std::int8_t, 256> values{};
        values.fill(-1);
        for (int c = '0'; c <= '9'; ++c)
            values[static_cast<std::size_t>(c)] = static_cast<std::int8_t>(c - '0');
        for (int c = 'a'; c <= 'f'; ++c)
            values[static_cast<std::size_t>(c)] = static_cast<std::int8_t>(c - 'a' + 10);
        return values;
    }();
    Digest digest{};
    for (std::size_t i = 0; i < digest.size(); ++i) {
        auto high = kValues[static_cast<unsigned char>(text[2 * i])];
        auto low = kValues[static_cast<unsigned char>(text[2 * i + 1])];
        if ((high | low) < 0) return std::nullopt;
        digest[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return digest;
}

Digest sha1(ByteView data) {
    SHA1Context context;
    context.update(data);
    return context.finish();
}

// The libcrypto digest state; EVP picks the CPU's SHA instructions where it has them.
struct SHA1Context::State {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    ~State() { EVP_MD_CTX_free(ctx); }
};

SHA1Context::SHA1Context() : state_(std::make_unique<State>()) {
    // Failing to set up a digest means libcrypto itself is unusable, not bad input.
    if (!state_->ctx || EVP_DigestInit_ex(state_->ctx, EVP_sha1(), nullptr) != 1)
        throw std::logic_error("SHA-1 unavailable");
}

SHA1Context::SHA1Context(const SHA1Context& other) : state_(std::make_unique<State>()) {
    if (!state_->ctx || EVP_MD_CTX_copy_ex(state_->ctx, other.state_->ctx) != 1)
        throw std::logic_error("SHA-1 unavailable");
}

SHA1Context& SHA1Context::operator=(const SHA1Context& other) {
    if (this != &other) *this = SHA1Context(other);
    return *this;
}

SHA1Context::~SHA1Context() = default;

void SHA1Context::update(ByteView data) {
    if (data.empty()) return;
    EVP_DigestUpdate(state_->ctx, data.data(), data.size());
}

Digest SHA1Context::finish() {
    Digest digest{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(state_->ctx, digest.data(), &length);
    return digest;
}

std::string objectId(ObjectType type, ByteView data) {
    std::string header(typeName(type));
    header += ' ';
    header += std::to_string(data.size());
    header += '\0';
    SHA1Context context;
    context.update(asBytes(header));
    context.update(data);
    auto digest = context.finish();
    return hexString(digest);
}

}  // namespace corvane
