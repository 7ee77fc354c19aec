#include "storage/summaries.h"

#include <algorithm>

#include "objects/commit.h"
#include "objects/tag.h"
#include "objects/tree.h"

namespace corvane {

namespace {

constexpr std::uint16_t kModeTypeMask = 0170000;
constexpr std::uint16_t kModeDirectory = 0040000;
constexpr std::uint16_t kModeSubmodule = 0160000;

}  // namespace

TreeLink treeLink(std::string_view id) {
    return ObjectIdTable::process().number(digestOfId(id));
}

std::string linkedId(TreeLink link) {
    return hexString(ObjectIdTable::process().digest(link));
}

void summarise(const Object& object, RepositoryContent& content) {
    const std::string& id = object.id();
    switch (object.type()) {
        case ObjectType::commit: {
            Commit commit = parseCommit(object, TextCheck::none);
            content.commits.add(id, {commit.treeId, commit.parentIds});
            break;
        }
        case ObjectType::tree: {
            PartialTree summary;
            auto& ids = ObjectIdTable::process();
            forEachTreeEntry(object, TextCheck::none,
                             [&](std::uint16_t mode, std::string_view, ByteView rawId) {
                                 Digest digest;
                                 std::copy(rawId.begin(), rawId.end(), digest.begin());
                                 auto kind = mode & kModeTypeMask;
                                 if (kind == kModeDirectory) {
                                     summary.trees.push_back(ids.number(digest));
                                 } else if (kind != kModeSubmodule) {
                                     // submodules live elsewhere
                                     summary.blobs.push_back(ids.number(digest));
                                 }
                             });
            summary.trees.shrink_to_fit();
            summary.blobs.shrink_to_fit();
            content.trees.add(id, std::move(summary));
            break;
        }
        case ObjectType::blob:
            content.blobs.add(id, static_cast<std::int64_t>(object.data().size()));
            break;
        case ObjectType::tag: {
            Tag tag = parseTag(object, TextCheck::none);
            content.tags.add(id, {tag.target, tag.type});
            break;
        }
        default:
            break;
    }
}

std::optional<std::string> peeledTag(const RepositoryContent& content, const std::string& id) {
    // Tags of tags deeper than this are taken for a loop.
    constexpr int kTagChainLimit = 64;
    const PartialTag* tag = content.tags.find(id);
    if (!tag) return std::nullopt;
    for (int depth = 0; depth < kTagChainLimit; ++depth) {
        const PartialTag* next = content.tags.find(tag->target);
        if (!next) return tag->target;
        tag = next;
    }
    return std::nullopt;
}

}  // namespace corvane
