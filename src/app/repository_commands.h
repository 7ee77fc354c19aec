// The subcommands on repositories and their sharing: each opens the store, does one thing,
// prints its result on stdout and returns the exit status. Failures throw Error with the text
// the window would show ("Failed to delete 'tools': …"); misuse throws UsageError.
//
// A repository is named NAME when it is the user's own and OWNER/NAME when it was shared with
// them, OWNER being the owner's record name as `list` and the clone URL show it.
#pragma once

#include <string>

namespace corvane {

int createRepository(const std::string& name);
// Own repositories by name, then shared ones as OWNER/NAME, each with its clone URL.
int listRepositories();
int deleteRepository(const std::string& name);
// Consolidates every pack of the repository into as few as their size allows (what a push
// does in the background once packs pile up, done now and whole).
int repack(const std::string& path);

// The share link of the repository, to send to the people invited.
int printShareLink(const std::string& path);
// Invites the address to an own repository and prints the share link to send.
int invite(const std::string& name, const std::string& email);
// The repository's participants: name, e-mail and status, a line each.
int listContributors(const std::string& path);
int uninvite(const std::string& name, const std::string& email);
// Joins by share link and prints the clone URL of the joined repository.
int join(const std::string& link);
// Leaves a repository shared with the user; their own ones are deleted, not left.
int leave(const std::string& path);
// The person the store knows the user as.
int whoami();

}  // namespace corvane
