// Reaching a share from outside its zone: looking a person up by e-mail address to invite them,
// opening a share URL, and accepting the share so that the zone appears in the acceptor's shared
// database. Only the owner and the people the share lists (by account, or by the address of an
// account invited before it existed) can open a share; for anyone else it does not exist.
// Functions run on the caller's thread; each uses one transaction.
#pragma once

#include <optional>
#include <string_view>

#include "cloud/session.h"
#include "cloud/share.h"
#include "cloud/share_metadata.h"

namespace corvane::cloud {

// A participant for the address: a registered user, or an invitation waiting for the address
// to register. None for text that is not an e-mail address.
std::optional<ShareParticipant> lookUpParticipant(Session& session, std::string_view email);

// Code 12 for a malformed URL, 11 when the share does not exist or is not open to the account.
ShareMetadata fetchShareMetadata(Session& session, std::string_view url,
                                 bool shouldFetchRootRecord);

// Marks the account's place in the share accepted. Code 11 as above; for the owner a no-op.
void acceptShare(Session& session, const ShareMetadata& metadata);

}  // namespace corvane::cloud
