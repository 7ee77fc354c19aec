#include "app/participant_text.h"

namespace corvane {

namespace {

std::string formattedName(const Participant& participant) {
    if (!participant.nameComponents) return "";
    const auto& components = *participant.nameComponents;
    std::string name = components.givenName.value_or("");
    if (components.familyName && !components.familyName->empty()) {
        if (!name.empty()) name += ' ';
        name += *components.familyName;
    }
    return name;
}

}  // namespace

std::string participantName(const Participant& participant) {
    std::string name = formattedName(participant);
    if (!name.empty()) return name;
    if (participant.email && !participant.email->empty()) return *participant.email;
    return "Unknown";
}

std::string participantContact(const Participant& participant) {
    if (formattedName(participant).empty() || !participant.email) return "";
    return *participant.email;
}

std::string participantStatus(const Participant& participant) {
    if (participant.isOwner) return "owner";
    switch (participant.status) {
        case Participant::Status::pending:
            return "pending";
        case Participant::Status::accepted:
            return "accepted";
        case Participant::Status::removed:
            return "removed";
        case Participant::Status::unknown:
            break;
    }
    return "unknown status";
}

bool participantLacksAccount(const Participant& participant) {
    return !participant.isOwner && participant.shareParticipant &&
           !participant.shareParticipant->userIdentity.hasAccount;
}

}  // namespace corvane
