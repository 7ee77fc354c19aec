// The numeric codes that cloud failures carry. The application's error descriptions and other
// installations know them by number, so a code never changes meaning. Constants only.
#pragma once

namespace corvane::cloud {

inline constexpr int kInternalError = 1;
inline constexpr int kPartialFailure = 2;
inline constexpr int kNetworkUnavailable = 3;
inline constexpr int kNetworkFailure = 4;
inline constexpr int kBadContainer = 5;
inline constexpr int kServiceUnavailable = 6;
inline constexpr int kNotAuthenticated = 9;
inline constexpr int kPermissionFailure = 10;
inline constexpr int kUnknownItem = 11;
inline constexpr int kInvalidArguments = 12;
inline constexpr int kServerRecordChanged = 14;
inline constexpr int kAssetFileNotFound = 16;
inline constexpr int kAssetFileModified = 17;
inline constexpr int kIncompatibleVersion = 18;
inline constexpr int kBatchRequestFailed = 22;
inline constexpr int kQuotaExceeded = 25;
inline constexpr int kZoneNotFound = 26;
inline constexpr int kAlreadyShared = 30;

}  // namespace corvane::cloud
