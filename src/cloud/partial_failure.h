// PartialFailure: the final error of a save in which some records failed, with each failed
// record's own error. Thread-safe as a value.
#pragma once

#include <map>

#include "base/error.h"
#include "cloud/record_id.h"

namespace corvane::cloud {

class PartialFailure : public CloudError {
  public:
    explicit PartialFailure(std::map<RecordId, CloudError> partialErrors);

    const std::map<RecordId, CloudError>& partialErrors() const { return partialErrors_; }

  private:
    std::map<RecordId, CloudError> partialErrors_;
};

}  // namespace corvane::cloud
