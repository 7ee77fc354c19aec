// The team store's set-up script (team_store.sql), built into the program.
#pragma once

#include <string>

namespace corvane::cloud {

extern const std::string kTeamStoreSql;

}  // namespace corvane::cloud
