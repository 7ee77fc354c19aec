#include "objects/zlib.h"

#include <zlib.h>

#include <limits>

#include "base/error.h"

namespace corvane {

namespace {

std::string zlibMessage(const z_stream& stream) {
    return stream.msg ? stream.msg : "";
}

void checkLength(std::size_t length, const char* operation) {
    if (length > std::numeric_limits<uInt>::max())
        throw Error(std::string(operation) + " error: input too large");
}

}  // namespace

Bytes zlibDeflate(ByteView input) {
    if (input.empty()) return {};
    checkLength(input.size(), "Deflate");
    z_stream stream{};
    // Objects are compressed while a client or a push waits: speed over size, as git's loose
    // objects.
    if (deflateInit(&stream, Z_BEST_SPEED) != Z_OK) throw Error("Deflate error: init");
    Bytes output(deflateBound(&stream, static_cast<uLong>(input.size())));
    stream.next_in = const_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = output.data();
    stream.avail_out = static_cast<uInt>(output.size());
    int result = deflate(&stream, Z_FINISH);
    if (result != Z_STREAM_END) {
        std::string message = zlibMessage(stream);
        deflateEnd(&stream);
        throw Error("Deflate error: " + message);
    }
    output.resize(stream.total_out);
    deflateEnd(&stream);
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

}  // namespace corvane
