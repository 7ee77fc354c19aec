// The cloud records of a repository: the repository record ("REPOSITORY", carrying the
// metadata document), and pack records (named by the 3-character id prefix they hold).
//
// Pack record, version 2 (written): "version" 2, "ids" (sorted), "objects" (one asset per id:
// the object's cache file), "size" (sum of the file sizes). Version 1 (read only): "index", an
// LZFSE JSON map id → {"type", "size", "offset"} into "data", the LZFSE concatenation of the
// objects' contents. Pure functions apart from the cache they fill.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cloud/record.h"
#include "storage/repository.h"
#include "storage/store.h"

namespace corvane {

inline constexpr const char* kRepositoryRecordType = "repository";
inline constexpr const char* kRepositoryRecordName = "REPOSITORY";
inline constexpr const char* kShareRecordName = "SHARE";
inline constexpr const char* kPackRecordType = "pack";

// Builds the repository from its records, reading and decoding the metadata asset. Fails with
// "Corrupted repository record: missing name", "Unsupported repository version. Try updating
// Corvane." or the error of reading and decoding the document.
std::shared_ptr<Repository> decodeRepositoryRecord(const cloud::Record& record,
                                                   const cloud::Record& share);

// Places the objects of a pack record in the cache and returns their ids. Fails with
// "Unsupported pack version <n>. Try updating Corvane.", "Corrupted pack <name>",
// "Received corrupted pack" or the error of reading an object.
std::set<std::string> decodePackRecord(const cloud::Record& record, Store& store);

// For each pack id, the sorted ids of the content's objects that start with it; one pass over
// the content however many packs are asked for.
std::map<std::string, std::vector<std::string>> packContents(const RepositoryContent& content,
                                                             const std::set<std::string>& packIds);

// A version-2 pack record over the cached files of `ids`; `size` receives the files' total.
cloud::Record buildPackRecord(const std::string& packId, const std::vector<std::string>& ids,
                              const cloud::ZoneId& zone, const Store& store, std::int64_t& size);

}  // namespace corvane
