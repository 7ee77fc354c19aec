// The outcome of fetching one record id: the record, or the error for that id alone (code 11
// when the record or its zone does not exist, or is not visible to the caller).
#pragma once

#include <optional>

#include "base/error.h"
#include "cloud/record.h"

namespace corvane::cloud {

struct FetchResult {
    RecordId recordId;
    std::optional<Record> record;
    std::optional<CloudError> error;
};

}  // namespace corvane::cloud
