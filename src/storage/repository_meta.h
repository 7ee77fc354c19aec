// The repository metadata document: the references and object summaries of a repository as
// JSON, LZFSE-compressed, stored as the repository record's "meta" asset.
//
// Version 2 (written): {"refs": {name: id}, "tags": {id: {"target": id, "type": code}},
//   "commits": {id: {"tree": id, "parents": [id]}}, "trees": {id: {"trees": [id], "blobs": [id]}},
//   "blobs": {id: size}, "packs": {pack id: size}}
// Version 1 (read only): {"HEAD": text, "refs": {...}, "tags": {id: {"id", "target", "type":
// name}},
//   "commits": {id: {"id", "trees": [tree id first], "parents": [...]}},
//   "trees": {id: {"id", "trees": [...], "blobs": [...]}}}
// Pure functions; any thread.
#pragma once

#include <functional>

#include "base/bytes.h"
#include "storage/summaries.h"

namespace corvane {

// The JSON text of a version-2 document.
std::string encodeRepositoryMetaJson(const RepositoryContent& content);
// The compressed version-2 document.
Bytes encodeRepositoryMeta(const RepositoryContent& content);

// The same content as several version-2 documents of about partJsonBytes of JSON each (one
// entry may run past), compressed and handed to `sink` in order: the union of their entries is
// the content. Parts compress on a pool of "meta_compress" threads, one per core, owned and joined
// by the call; at most one part per core is in memory at a time.
void encodeRepositoryMetaParts(const RepositoryContent& content, std::size_t partJsonBytes,
                               const std::function<void(Bytes)>& sink);

// Parses the JSON text of a version 1 or 2 document straight into the maps. Fails with
// "Invalid repository metadata: ..." on anything malformed, including a version-1 commit
// without a tree.
RepositoryContent decodeRepositoryMetaJson(std::string_view json, int version);
// Decompresses and parses a stored document.
RepositoryContent decodeRepositoryMeta(ByteView compressed, int version);

}  // namespace corvane
