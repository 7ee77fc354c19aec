#include "cloud/partial_failure.h"

#include <string>

#include "cloud/error_codes.h"

namespace corvane::cloud {
namespace {

std::string describe(const std::map<RecordId, CloudError>& errors) {
    std::string text = "Failed to save " + std::to_string(errors.size()) +
                       (errors.size() == 1 ? " record" : " records");
    // The first refusal that is not merely the consequence of another one says the most.
    const CloudError* first = nullptr;
    for (const auto& [id, error] : errors) {
        if (!first || (first->code() == kBatchRequestFailed && error.code() != kBatchRequestFailed))
            first = &error;
    }
    if (first) text += std::string(": ") + first->what();
    return text;
}

}  // namespace

PartialFailure::PartialFailure(std::map<RecordId, CloudError> partialErrors)
    : CloudError(kPartialFailure, describe(partialErrors)),
      partialErrors_(std::move(partialErrors)) {}

}  // namespace corvane::cloud
