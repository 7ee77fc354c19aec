#include "app/error_description.h"

#include "base/error.h"
#include "cloud/error_codes.h"

namespace corvane {

std::optional<std::string> cloudErrorText(int code) {
    switch (code) {
        case 1:
            return "The cloud store encountered an error.";
        case 3:
            return "Network not available.";
        case 4:
            return "Network error.";
        case 6:
            return "Service unavailable.";
        case 7:
            return "Cloud request is being rate limited, please try again later.";
        case 8:
            return "Missing entitlement.";
        case 10:
            return "Access failure.";
        case 11:
            return "Record does not exist.";
        case 14:
            return "The record was rejected because the version on the server was different.";
        case 25:
            return "Saving a record would exceed quota.";
        case 29:
            return "Contributors limit reached, you can not add more contributors.";
        default:
            return std::nullopt;
    }
}

ErrorDescription describeError(const std::exception_ptr& error) {
    try {
        if (error) std::rethrow_exception(error);
        return {"Unknown error"};
    } catch (const CloudError& cloudError) {
        if (cloudError.serverDescription()) return {*cloudError.serverDescription()};
        if (cloudError.code() == cloud::kNotAuthenticated) return {cloudError.what(), true};
        return {cloudErrorText(cloudError.code()).value_or(cloudError.what())};
    } catch (const std::exception& other) {
        return {other.what()};
    } catch (...) {
        return {"Unknown error"};
    }
}

}  // namespace corvane
