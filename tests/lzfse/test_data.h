// Helpers shared by the LZFSE tests: reading the shared vectors and making test inputs.
// Plain functions; each call is independent.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::lzfse::test {

using Bytes = std::vector<uint8_t>;

inline std::filesystem::path vectorDir() {
    return std::filesystem::path(CORVANE_SHARED_DIR) / "lzfse" / "vectors";
}

inline Bytes readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Names (without extension) of the vectors that have a .bin, sorted.
inline std::vector<std::string> vectorNames() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(vectorDir())) {
        if (entry.path().extension() == ".bin") names.push_back(entry.path().stem().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

inline Bytes randomBytes(size_t n, uint32_t seed, int alphabet = 256) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> pick(0, alphabet - 1);
    Bytes out(n);
    for (auto& b : out) {
        b = static_cast<uint8_t>(pick(rng));
    }
    return out;
}

inline Bytes repeated(std::string_view pattern, size_t n) {
    Bytes out(n);
    for (size_t i = 0; i < n; ++i) {
        out[i] = static_cast<uint8_t>(pattern[i % pattern.size()]);
    }
    return out;
}

// Repository-metadata-shaped JSON: 40-hex ids as keys and values, a few fixed key names, ids
// referring back to earlier ones.
inline std::string metadataJson(size_t approxSize, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<std::string> ids;
    auto newId = [&] {
        static const char* hex = "0123456789abcdef";
        std::string id(40, '0');
        for (char& c : id) {
            c = hex[rng() % 16];
        }
        ids.push_back(id);
        return id;
    };
    auto oldId = [&] { return ids.empty() ? newId() : ids[rng() % ids.size()]; };
    std::string out = "{\"refs\":{\"refs/heads/main\":\"" + newId() + "\"},\"commits\":{";
    bool first = true;
    while (out.size() < approxSize) {
        if (!first) out += ',';
        first = false;
        switch (rng() % 3) {
            case 0:
                out += "\"" + newId() + "\":{\"tree\":\"" + oldId() + "\",\"parents\":[\"" +
                       oldId() + "\"]}";
                break;
            case 1:
                out += "\"" + newId() + "\":{\"trees\":[\"" + oldId() + "\"],\"blobs\":[\"" +
                       oldId() + "\",\"" + oldId() + "\"]}";
                break;
            default:
                out += "\"" + newId() + "\":{\"blobs\":[\"" + oldId() +
                       "\"],\"size\":" + std::to_string(rng() % 100000) + "}";
        }
    }
    return out + "}}";
}

inline Bytes toBytes(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

inline uint32_t le32(const Bytes& b, size_t at) {
    return uint32_t{b[at]} | uint32_t{b[at + 1]} << 8 | uint32_t{b[at + 2]} << 16 |
           uint32_t{b[at + 3]} << 24;
}

inline uint64_t le64(const Bytes& b, size_t at) {
    return le32(b, at) | uint64_t{le32(b, at + 4)} << 32;
}

// One block of a well-formed stream, as the stream's headers describe it.
struct BlockInfo {
    char kind;  // the magic's last character: '-', 'n', '1', '2' or '$'
    size_t offset;
    size_t size;
    uint32_t nLiterals = 0;
    uint32_t nMatches = 0;
};

// Walks a stream we trust (vectors, our own output) block by block.
inline std::vector<BlockInfo> blocksOf(const Bytes& s) {
    std::vector<BlockInfo> blocks;
    for (size_t at = 0;;) {
        BlockInfo b{static_cast<char>(s.at(at + 3)), at, 4};
        switch (b.kind) {
            case '-':
                b.size = 8 + le32(s, at + 4);
                break;
            case 'n':
                b.size = 12 + le32(s, at + 8);
                break;
            case '1':
                b.nLiterals = le32(s, at + 12);
                b.nMatches = le32(s, at + 16);
                b.size = 772 + size_t{le32(s, at + 20)} + le32(s, at + 24);
                break;
            case '2':
                b.nLiterals = le64(s, at + 8) & 0xFFFFF;
                b.nMatches = (le64(s, at + 8) >> 40) & 0xFFFFF;
                b.size = (le64(s, at + 24) & 0xFFFFFFFF) + ((le64(s, at + 8) >> 20) & 0xFFFFF) +
                         ((le64(s, at + 16) >> 40) & 0xFFFFF);
                break;
        }
        blocks.push_back(b);
        if (b.kind == '$') return blocks;
        at += b.size;
    }
}

}  // namespace corvane::lzfse::test
