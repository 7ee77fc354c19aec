#include "objects/zlib.h"

#include <libdeflate.h>
#include <zlib.h>

#include <limits>
#include <memory>

#include "base/error.h"

namespace corvane {

namespace {

std::string zlibMessage(const z_stream& stream) {
    return stream.msg ? stream.msg : "";
}

// Objects are compressed while a client or a push waits: speed over size, as git's loose objects.
constexpr int kFastestLevel = 1;

// libdeflate's compressor and decompressor hold large tables: one of each per thread.
libdeflate_compressor& fastestCompressor() {
    thread_local std::unique_ptr<libdeflate_compressor, decltype(&libdeflate_free_compressor)>
        compressor(libdeflate_alloc_compressor(kFastestLevel), &libdeflate_free_compressor);
    if (!compressor) throw Error("Deflate error: init");
    return *compressor;
}

libdeflate_decompressor& decompressor() {
    thread_local std::unique_ptr<libdeflate_decompressor, decltype(&libdeflate_free_decompressor)>
        decompressor(libdeflate_alloc_decompressor(), &libdeflate_free_decompressor);
    if (!decompressor) throw Error("Inflate error: init");
    return *decompressor;
}

void checkLength(std::size_t length, const char* operation) {
    if (length > std::numeric_limits<uInt>::max())
        throw Error(std::string(operation) + " error: input too large");
}

}  // namespace

Bytes zlibDeflate(ByteView input) {
    if (input.empty()) return {};
    auto& compressor = fastestCompressor();
    Bytes output(libdeflate_zlib_compress_bound(&compressor, input.size()));
    std::size_t length = libdeflate_zlib_compress(&compressor, input.data(), input.size(),
                                                  output.data(), output.size());
    if (length == 0) throw Error("Deflate error: output too small");
    output.resize(length);
    return output;
}

Bytes zlibInflate(ByteView input) {
    if (input.empty()) return {};
    checkLength(input.size(), "Inflate");
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) throw Error("Inflate error: init");
    constexpr std::size_t kScratchSize = 1 << 20;
    Bytes scratch(kScratchSize);
    Bytes result;
    stream.next_in = const_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    for (;;) {
        stream.next_out = scratch.data();
        stream.avail_out = static_cast<uInt>(scratch.size());
        int status = inflate(&stream, Z_NO_FLUSH);
        if (status != Z_OK && status != Z_STREAM_END && status != Z_BUF_ERROR) {
            std::string message = zlibMessage(stream);
            inflateEnd(&stream);
            throw Error("Inflate error: " + message);
        }
        std::size_t produced = scratch.size() - stream.avail_out;
        result.insert(result.end(), scratch.begin(), scratch.begin() + produced);
        // Room left in the scratch buffer means zlib has nothing more to give from this input:
        // either the stream ended or it was cut short, and then we keep what it held.
        if (status == Z_STREAM_END || stream.avail_out != 0) break;
    }
    inflateEnd(&stream);
    return result;
}

void appendRawDeflate(Bytes& output, ByteView input) {
    auto& compressor = fastestCompressor();
    std::size_t start = output.size();
    output.resize(start + libdeflate_deflate_compress_bound(&compressor, input.size()));
    std::size_t length = libdeflate_deflate_compress(&compressor, input.data(), input.size(),
                                                     output.data() + start, output.size() - start);
    if (length == 0) throw Error("Deflate error: output too small");
    output.resize(start + length);
}

std::optional<Bytes> rawInflateExactly(ByteView input, std::size_t size) {
    Bytes output(size);
    std::size_t consumed = 0;
    std::size_t produced = 0;
    auto result =
        libdeflate_deflate_decompress_ex(&decompressor(), input.data(), input.size(), output.data(),
                                         output.size(), &consumed, &produced);
    if (result != LIBDEFLATE_SUCCESS || consumed != input.size() || produced != size)
        return std::nullopt;
    return output;
}

std::uint32_t crc32Of(ByteView data) {
    return data.empty() ? 0 : libdeflate_crc32(0, data.data(), data.size());
}

std::uint32_t adler32Of(ByteView data, std::uint32_t seed) {
    if (data.empty()) return seed;  // libdeflate takes a null buffer for "the initial value"
    return libdeflate_adler32(seed, data.data(), data.size());
}

std::uint32_t adler32Combine(std::uint32_t first, std::uint32_t second, std::size_t secondLength) {
    return static_cast<std::uint32_t>(
        adler32_combine64(first, second, static_cast<z_off64_t>(secondLength)));
}

}  // namespace corvane
