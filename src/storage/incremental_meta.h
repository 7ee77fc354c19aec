// Version-3 repository metadata: a base in the version-2 document format, cut into parts ("meta",
// then the list "parts"), and, in the list "increments", what each push changed since. The layout
// and its rules are in metadata_v3.md beside this file. An increment is a RepositoryContent in the
// version-2 document's format whose references may map to kDeletedRef. Pure functions apart from
// the asset files they read and the writer they are given; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "cloud/record.h"
#include "storage/repository.h"

namespace corvane {

// Documents of this compressed size or more are kept as version 3.
inline constexpr std::size_t kIncrementalMetaThreshold = 512 << 10;
// More increments than this are folded into a new base whatever their sizes.
inline constexpr std::size_t kMaxIncrements = 32;
// A base is written in parts of about this much JSON, so that no more than one is in memory.
inline constexpr std::size_t kBasePartJsonBytes = 8 << 20;
// An increment's value for a reference that was deleted.
inline const std::string kDeletedRef(40, '0');
// An increment's retirement time for a retired pack whose record was deleted.
inline constexpr std::int64_t kForgottenPack = 0;

// What `after`, a copy of `before` with a push's changes, changed: the references that differ,
// the pack sizes that differ, the packs retired or forgotten, and the summaries added to the
// copy. Fails when a pack left "packs" without being retired.
RepositoryContent incrementBetween(const RepositoryContent& before, const RepositoryContent& after);

// Applies an increment to a state. `verbatim` keeps a kDeletedRef value as it stands: when two
// increments merge (the reference may be in an earlier one or the base), and when the parts of a
// base are joined (they mark nothing deleted).
void applyIncrement(const RepositoryContent& increment, RepositoryContent& content,
                    bool verbatim = false);

// The state a version-3 record stores and the compressed size of its documents. `known`, decoded
// from an earlier state of the same record, is extended by the increments added since instead
// of reading everything again. Fails with the errors of reading and decoding a document.
struct StoredState {
    RepositoryContent content;
    std::int64_t size = 0;
};
StoredState readIncrementalMeta(const cloud::Record& record, const Repository* known);

// Puts a compressed document where a record can take it from and returns the asset.
using DocumentWriter = std::function<cloud::Asset(const Bytes& document)>;

// What saving `after` over the stored record writes, its new documents already written. Version
// 2 while the whole document is one part under `threshold`; version 3 beyond, and always once
// stored as version 3.
struct MetaSave {
    int version = 2;
    std::vector<cloud::Asset> base;            // a new base, "meta" first; none: the stored stays
    std::vector<cloud::Asset> keptIncrements;  // stored increments that stay, oldest first
    std::optional<cloud::Asset> increment;     // the new last increment
    std::int64_t size = 0;                     // the documents' compressed size in all
};
MetaSave planMetaSave(const cloud::Record& stored, const RepositoryContent& before,
                      const RepositoryContent& after, const DocumentWriter& write,
                      std::size_t threshold = kIncrementalMetaThreshold,
                      std::size_t partJsonBytes = kBasePartJsonBytes);

}  // namespace corvane
