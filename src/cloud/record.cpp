#include "cloud/record.h"

namespace corvane::cloud {

void Record::remove(std::string_view key) {
    if (auto it = fields.find(key); it != fields.end()) fields.erase(it);
}

Record makeShare(const Record& rootRecord, std::string shareRecordName) {
    Record share(std::string(kShareRecordType),
                 RecordId{std::move(shareRecordName), rootRecord.recordId.zoneId});
    share.share = Share{};
    share.share->rootRecordName = rootRecord.recordId.recordName;
    return share;
}

}  // namespace corvane::cloud
