// Database: one of a container's two databases as its account sees it. The private database
// holds the account's own zones; the shared database the zones of others whose share the
// account accepted. Every operation is synchronous, runs on the caller's thread and throws
// CloudError with a cloud code. Thread-safe: operations may run on many threads at once.
#pragma once

#include <functional>
#include <span>
#include <vector>

#include "cloud/fetch_result.h"
#include "cloud/modify_records_operation.h"
#include "cloud/record.h"
#include "cloud/record_id.h"

namespace corvane::cloud {

class Session;

class Database {
  public:
    Database(Session& session, DatabaseScope scope) : session_(session), scope_(scope) {}
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    DatabaseScope databaseScope() const { return scope_; }

    // Creates the zone (saving an existing zone changes nothing). Private database only: the
    // shared database refuses with code 10.
    ZoneId saveRecordZone(const ZoneId& zoneId);

    // Private database: deletes the zone with its records and share; contents no other record
    // uses are freed. Shared database: leaves the zone (the account's acceptance becomes
    // "removed"). Code 26 when the zone is not visible.
    void deleteRecordZone(const ZoneId& zoneId);

    // Every visible zone, oldest first; own zones carry the current-user placeholder as owner,
    // shared zones their owner's record name.
    std::vector<ZoneId> fetchAllRecordZones();

    // Every visible zone, in the order of fetchAllRecordZones, with a version of its records of
    // the given names: a text that changes whenever one of them is saved or deleted, or the
    // zone's people or their answers change. One statement, reading no fields: what a list
    // polls to learn which zones it must read again.
    std::vector<ZoneVersion> fetchZoneVersions(std::span<const std::string> recordNames);

    // One result per id, in order. Ids are read kFetchGroupSize at a time; each group is one
    // consistent snapshot and is handed over before the next is read.
    void fetchRecords(std::span<const RecordId> ids,
                      const std::function<void(FetchResult&&)>& perRecord);
    std::vector<FetchResult> fetchRecords(std::span<const RecordId> ids);

    // Saves the records in one transaction; returns the stored records (with their new change
    // tags and dates). Per-record failures end in a PartialFailure (code 2) listing them, after
    // the callbacks have run.
    std::vector<Record> modifyRecords(const ModifyRecordsOperation& operation);

  private:
    Session& session_;
    const DatabaseScope scope_;
};

}  // namespace corvane::cloud
