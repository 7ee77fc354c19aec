// Shares and their participants: who a zone is shared with, with which permission, and whether
// they accepted. Plain values; the store fills in what only it knows (URL, identities, statuses).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/bytes.h"

namespace corvane::cloud {

struct NameComponents {
    std::optional<std::string> givenName;
    std::optional<std::string> familyName;

    bool operator==(const NameComponents&) const = default;
};

// A person as the store knows them. hasAccount tells whether the e-mail address belongs to a
// registered user of this store; an invitation to an unregistered address waits until it does.
struct UserIdentity {
    std::optional<std::string> userRecordName;
    std::optional<std::string> emailAddress;
    std::optional<NameComponents> nameComponents;
    bool hasAccount = false;

    // Same record name when both have one, else the same e-mail address (ignoring case).
    bool sameUser(const UserIdentity& other) const;
    bool operator==(const UserIdentity&) const = default;
};

enum class ParticipantType { unknown = 0, owner = 1, privateUser = 3, publicUser = 4 };
enum class AcceptanceStatus { unknown = 0, pending = 1, accepted = 2, removed = 3 };
enum class Permission { unknown = 0, none = 1, readOnly = 2, readWrite = 3 };

struct ShareParticipant {
    UserIdentity userIdentity;
    ParticipantType type = ParticipantType::privateUser;
    AcceptanceStatus acceptanceStatus = AcceptanceStatus::unknown;
    Permission permission = Permission::unknown;

    bool operator==(const ShareParticipant&) const = default;
};

// The sharing state of a share record. A zone has at most one share; everyone who accepted it
// reaches the whole zone through their shared database.
struct Share {
    std::string rootRecordName;  // the record the share hangs on, in the same zone
    std::optional<std::string> title;
    std::optional<Bytes> thumbnailImageData;
    std::optional<std::string> url;  // assigned by the store when the share is first saved
    std::vector<ShareParticipant> participants;  // the owner first, once saved

    // Adds the participant at the end, or in the place of an entry for the same user (a renewed
    // invitation).
    void addParticipant(ShareParticipant participant);
    // Removes every entry for the participant's user; true when there was one.
    bool removeParticipant(const ShareParticipant& participant);
    const ShareParticipant* owner() const;
};

}  // namespace corvane::cloud
