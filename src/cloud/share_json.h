// The JSON form in which the team store's functions take and give shares (team_store.sql:
// write_share and share_json). Pure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cloud/record.h"

namespace corvane::cloud {

// The shares of the share records, as an object keyed by record name: root, title, thumbnail
// (hex), the fragment of a new share's URL, and the participants (record name or e-mail address,
// permission, status as the record shows them).
std::string sharesToJson(const std::vector<const Record*>& shareRecords);

// A share as the store gives it. Throws CloudError
// (code 1) for text that is not such a share.
Share shareFromJson(std::string_view json);

}  // namespace corvane::cloud
