// Version-3 repository metadata: the version-2 document as a base ("meta") and, in the list
// "increments", what each push changed since. The layout and its rules are in metadata_v3.md
// beside this file. An increment is a RepositoryContent in the version-2 document's format whose
// references may map to kDeletedRef. Pure functions apart from the asset files they read; any
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
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
// An increment's value for a reference that was deleted.
inline const std::string kDeletedRef(40, '0');

// What `after`, a copy of `before` with a push's changes, changed: the references that differ,
// the pack sizes that differ, and the summaries added to the copy.
RepositoryContent incrementBetween(const RepositoryContent& before, const RepositoryContent& after);

// Applies an increment to a state. Between two increments (`intoIncrement`), a deleted reference
// stays marked deleted, since an earlier increment or the base may hold it.
void applyIncrement(const RepositoryContent& increment, RepositoryContent& content,
                    bool intoIncrement = false);

// The state a version-3 record stores and the compressed size of its documents. `known`, decoded
// from an earlier state of the same record, is extended by the increments added since instead
// of reading everything again. Fails with the errors of reading and decoding a document.
struct StoredState {
    RepositoryContent content;
    std::int64_t size = 0;
};
StoredState readIncrementalMeta(const cloud::Record& record, const Repository* known);

// What saving `after` over the stored record writes. Version 2 while the whole document is under
// `threshold`; version 3 beyond, and always once stored as version 3.
struct MetaSave {
    int version = 2;
    std::optional<Bytes> base;                 // a new "meta" document; none: the stored one stays
    std::vector<cloud::Asset> keptIncrements;  // stored increments that stay, oldest first
    std::optional<Bytes> increment;            // the new last increment
    std::int64_t size = 0;                     // the documents' compressed size in all
};
MetaSave planMetaSave(const cloud::Record& stored, const RepositoryContent& before,
                      const RepositoryContent& after,
                      std::size_t threshold = kIncrementalMetaThreshold);

}  // namespace corvane
