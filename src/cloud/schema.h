// The tables of the record store and how a file or database of an older layout is brought up to
// date. The layout is the same on every engine; only the types of row ids and byte columns vary.
// Called once per new connection, before any other statement.
#pragma once

#include <cstdint>

#include "cloud/connection.h"

namespace corvane::cloud {

inline constexpr std::int64_t kSchemaVersion = 2;

// Creates the tables or upgrades them, one version step per transaction. A database written by a
// newer version of the program fails with code 18 and is left untouched.
void prepareSchema(Connection& connection);

}  // namespace corvane::cloud
