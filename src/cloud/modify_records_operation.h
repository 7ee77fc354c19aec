// A save of records: which records, how a stored record may be replaced, whether the save is all
// or nothing, and the per-record callbacks. Callbacks run on the caller's thread after the save
// is durable, with no lock of the store held.
#pragma once

#include <functional>
#include <vector>

#include "base/error.h"
#include "cloud/record.h"

namespace corvane::cloud {

enum class SavePolicy {
    // Replace a stored record only when the saved record carries its current change tag;
    // otherwise the record fails with code 14 (11 when the stored record is gone).
    ifServerRecordUnchanged = 0,
    // Replace whatever is stored.
    allKeys = 2,
};

struct ModifyRecordsOperation {
    std::vector<Record> recordsToSave;
    SavePolicy savePolicy = SavePolicy::ifServerRecordUnchanged;
    // All or nothing. When one record fails, the others fail with code 22 and nothing is stored.
    bool atomic = true;
    // Called with 1.0 for every record once it is stored.
    std::function<void(const Record& record, double progress)> perRecordProgress;
    // Called once per record: the stored record, or the record's error.
    std::function<void(const RecordId& recordId, const Record* saved, const CloudError* error)>
        perRecordCompletion;
};

}  // namespace corvane::cloud
