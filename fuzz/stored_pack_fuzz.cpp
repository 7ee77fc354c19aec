// Reads arbitrary bytes as a stored pack: a 4-byte big-endian index length, the index, then the
// data. A malformed index, entry or delta chain must end in an Error; an object that is read
// back must be the object its id names (readStoredObject checks it, so a wrong one is a crash).
// The entries are then reused as a consolidation reuses them (their parts copied into a new
// pack, in data order): every object read from the original reads the same from the copy.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "base/big_endian.h"
#include "base/error.h"
#include "storage/stored_pack.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    auto indexLength = static_cast<std::size_t>(corvane::readBigEndian(data, 4));
    if (indexLength > size - 4) return 0;
    corvane::Bytes index(data + 4, data + 4 + indexLength);
    corvane::ByteView packData(data + 4 + indexLength, size - 4 - indexLength);
    auto none = [](const std::string& id) -> corvane::Object { throw corvane::Error("no " + id); };
    try {
        corvane::StoredPackIndex parsed(std::move(index));
        std::vector<std::pair<corvane::StoredPackEntry, corvane::Object>> read;
        for (std::size_t i = 0; i < parsed.count() && i < 64; ++i) {
            auto entry = parsed.at(i);
            if (parsed.find(entry.id)->offset != entry.offset) std::abort();
            try {
                auto object = corvane::readStoredObject(
                    "P", parsed, corvane::entriesOf("P", packData), entry.id, none);
                if (object.id() != corvane::hexString(entry.id)) std::abort();
                read.emplace_back(entry, std::move(object));
            } catch (const corvane::Error&) {
            }
        }
        // Only objects read whole are reused, with the bases their chains went through.
        std::sort(read.begin(), read.end(),
                  [](const auto& a, const auto& b) { return a.first.offset < b.first.offset; });
        corvane::StoredPackBuilder builder;
        auto entries = corvane::entriesOf("P", packData);
        for (const auto& [entry, object] : read) {
            auto bytes = entries(entry);
            auto view = corvane::viewEntry(bytes, entry);
            if (entry.kind == corvane::StoredEntryKind::whole) {
                builder.addWhole(entry.id, object.type(), view.size, view.stream);
            } else if (builder.contains(*entry.base)) {
                builder.addDelta(entry.id, *entry.base, view.size, view.stream);
            }
        }
        if (builder.count() == 0) return 0;
        auto built = builder.finish();
        corvane::StoredPackIndex copy(built.index);
        for (const auto& [entry, object] : read) {
            if (!copy.find(entry.id)) continue;
            if (corvane::readStoredObject("C", copy, corvane::entriesOf("C", built.data), entry.id,
                                          none) != object)
                std::abort();
        }
    } catch (const corvane::Error&) {
    }
    return 0;
}
