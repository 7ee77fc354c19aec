// Saving records: checks, change-tag policy, contents stored once, the fields and asset uses
// written, and the share of a share record, all in one write transaction. Callers get one
// outcome per record and run their callbacks afterwards, outside any transaction.
#pragma once

#include <optional>
#include <vector>

#include "base/error.h"
#include "cloud/modify_records_operation.h"
#include "cloud/prepared_record.h"
#include "cloud/session.h"

namespace corvane::cloud {

struct SaveOutcome {
    RecordId recordId;
    std::optional<Record> saved;
    std::optional<CloudError> error;
};

// One outcome per record, in order. Record-level failures become outcomes; a failure of the
// engine itself throws after rolling back everything. Duplicate ids throw code 12.
std::vector<SaveOutcome> saveRecords(Session& session, DatabaseScope scope,
                                     const std::vector<Record>& records, SavePolicy policy,
                                     bool atomic);

// Every record refused: with its own error, or code 22 for those refused for another's.
std::vector<SaveOutcome> failAll(const std::vector<PreparedRecord>& prepared);

}  // namespace corvane::cloud
