// How a repository's participants are shown, in the window's Contributors tab and by
// `corvane contributors`. Pure functions; any thread.
#pragma once

#include <string>

#include "storage/repository.h"

namespace corvane {

// The name ("Ada Lovelace"); without one the e-mail address; without either "Unknown".
std::string participantName(const Participant& participant);
// The e-mail address when the name is shown; empty otherwise.
std::string participantContact(const Participant& participant);
// "owner", "pending", "accepted", "removed" or "unknown status".
std::string participantStatus(const Participant& participant);
// The invitation waits: the address belongs to nobody the store knows yet.
bool participantLacksAccount(const Participant& participant);

}  // namespace corvane
