// The cloud records of a repository: the repository record ("REPOSITORY", carrying the
// metadata document), and pack records (named by the 3-character id prefix they hold).
//
// Pack record, version 3 (written): a stored pack, "version" 3, "data" and "index" (assets),
// "size"; named "P" and its data's SHA-1 (stored_pack.md). Version 2 (written before): "version" 2,
// "ids" (sorted), "objects" (one asset per id: the object's cache file), "size" (sum of the file
// sizes). A pack record only ever grows. Version 1 (read only): "index", an LZFSE JSON map id →
// {"type", "size", "offset"} into "data", the LZFSE concatenation of the objects' contents. Pure
// functions apart from the cache they fill.
#pragma once

#include <map>
#include <memory>
#include <optional>
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

// Builds the repository from its records, reading and decoding the metadata documents (version
// 1, 2, or 3: a base and increments; `known`, decoded from an earlier state of the record, spares
// reading again what it holds). Fails with "Corrupted repository record: missing name",
// "Unsupported repository version. Try updating Corvane." or the error of reading and decoding a
// document.
std::shared_ptr<Repository> decodeRepositoryRecord(const cloud::Record& record,
                                                   const cloud::Record& share,
                                                   const Repository* known = nullptr);

// Places the objects of a pack record in the cache and returns their ids; a stored pack
// (version 3) goes into the cache whole. Fails with
// "Unsupported pack version <n>. Try updating Corvane.", "Corrupted pack <name>",
// "Received corrupted pack" or the error of reading an object.
std::set<std::string> decodePackRecord(const cloud::Record& record, Store& store);

// The record of a stored pack (stored_pack.md), its assets the cache's own files, and its "size":
// the data's and the index's bytes.
cloud::Record storedPackRecord(const CachedStoredPack& pack, const cloud::ZoneId& zone);
// A retired pack's record emptied of its data and index (stored_pack.md, Consolidation).
cloud::Record emptiedPackRecord(const cloud::RecordId& id);
std::int64_t storedPackSize(const CachedStoredPack& pack);

// For each pack id, the sorted ids of the content's objects that start with it; one pass over
// the content however many packs are asked for.
std::map<std::string, std::vector<std::string>> packContents(const RepositoryContent& content,
                                                             const std::set<std::string>& packIds);

// What to save for one pack: the record, its "size", and whether the store lacks anything of it.
struct PackUpdate {
    cloud::Record record;
    std::int64_t size = 0;
    bool needsSave = true;             // false: the stored record already holds every object
    std::vector<std::string> missing;  // ids neither stored nor cached, left out
};

// The version-2 record of `packId` holding every object `stored` (the record as the store has it
// now, if any) holds, plus those of `ids` it lacks, from their cache files. Nothing stored is
// ever dropped or replaced: stored objects keep their stored files, and a version-1 record's
// objects move into the cache to be written out again. Fails on a stored record it cannot read
// whole ("Received corrupted pack", "Unsupported pack version <n>. Try updating Corvane.").
PackUpdate mergePackRecord(const std::string& packId, const std::optional<cloud::Record>& stored,
                           const std::vector<std::string>& ids, const cloud::ZoneId& zone,
                           Store& store);

}  // namespace corvane
