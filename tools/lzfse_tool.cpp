// lzfse-tool encode|decode IN OUT: runs one whole file through Corvane's LZFSE codec.
// Exits 0 on success, 1 with a message on stderr on any failure, 2 on bad usage.
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "lzfse/lzfse.h"

namespace {

bool readFile(const char* path, std::vector<uint8_t>& bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

bool writeFile(const char* path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    out.close();
    return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
    std::string mode = argc == 4 ? argv[1] : "";
    if (mode != "encode" && mode != "decode") {
        std::fprintf(stderr, "usage: lzfse-tool encode|decode IN OUT\n");
        return 2;
    }
    std::vector<uint8_t> input;
    if (!readFile(argv[2], input)) {
        std::fprintf(stderr, "lzfse-tool: cannot read %s\n", argv[2]);
        return 1;
    }
    std::vector<uint8_t> output;
    try {
        output = mode == "encode" ? corvane::lzfse::encode(input) : corvane::lzfse::decode(input);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "lzfse-tool: %s: %s\n", argv[2], e.what());
        return 1;
    }
    if (!writeFile(argv[3], output)) {
        std::fprintf(stderr, "lzfse-tool: cannot write %s\n", argv[3]);
        return 1;
    }
    return 0;
}
