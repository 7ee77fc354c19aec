#include "cloud/share.h"

#include <algorithm>

namespace corvane::cloud {
namespace {

bool sameAddress(const std::string& a, const std::string& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
        return lower(x) == lower(y);
    });
}

}  // namespace

bool UserIdentity::sameUser(const UserIdentity& other) const {
    if (userRecordName && other.userRecordName) return *userRecordName == *other.userRecordName;
    return emailAddress && other.emailAddress && sameAddress(*emailAddress, *other.emailAddress);
}

void Share::addParticipant(ShareParticipant participant) {
    // A renewed invitation keeps the person's place in the list.
    auto same = std::find_if(participants.begin(), participants.end(), [&](const auto& entry) {
        return entry.type != ParticipantType::owner &&
               entry.userIdentity.sameUser(participant.userIdentity);
    });
    auto place = same - participants.begin();
    removeParticipant(participant);
    participants.insert(participants.begin() + place, std::move(participant));
}

bool Share::removeParticipant(const ShareParticipant& participant) {
    auto removed = std::erase_if(participants, [&](const ShareParticipant& entry) {
        return entry.type != ParticipantType::owner &&
               entry.userIdentity.sameUser(participant.userIdentity);
    });
    return removed > 0;
}

const ShareParticipant* Share::owner() const {
    for (const auto& participant : participants) {
        if (participant.type == ParticipantType::owner) return &participant;
    }
    return nullptr;
}

}  // namespace corvane::cloud
