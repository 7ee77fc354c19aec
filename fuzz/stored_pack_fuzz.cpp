// Reads arbitrary bytes as a stored pack: a 4-byte big-endian index length, the index, then the
// data. A malformed index, entry or delta chain must end in an Error; an object that is read
// back must be the object its id names (readStoredObject checks it, so a wrong one is a crash).
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "base/big_endian.h"
#include "base/error.h"
#include "storage/stored_pack.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    auto indexLength = static_cast<std::size_t>(corvane::readBigEndian(data, 4));
    if (indexLength > size - 4) return 0;
    corvane::Bytes index(data + 4, data + 4 + indexLength);
    corvane::ByteView packData(data + 4 + indexLength, size - 4 - indexLength);
    try {
        corvane::StoredPackIndex parsed(std::move(index));
        for (std::size_t i = 0; i < parsed.count() && i < 64; ++i) {
            auto entry = parsed.at(i);
            if (parsed.find(entry.id)->offset != entry.offset) std::abort();
            try {
                auto object = corvane::readStoredObject(
                    "P", parsed, corvane::entriesOf("P", packData), entry.id,
                    [](const std::string& id) -> corvane::Object {
                        throw corvane::Error("no " + id);
                    });
                if (object.id() != corvane::hexString(entry.id)) std::abort();
            } catch (const corvane::Error&) {
            }
        }
    } catch (const corvane::Error&) {
    }
    return 0;
}
