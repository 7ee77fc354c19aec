// Parses arbitrary bytes as a commit, tree or tag (chosen by the first byte). A malformed object
// must end in an Error with its message, never in a crash.
#include <cstddef>
#include <cstdint>

#include "base/error.h"
#include "objects/commit.h"
#include "objects/tag.h"
#include "objects/tree.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    corvane::Bytes contents(data + 1, data + size);
    try {
        switch (data[0] % 3) {
            case 0:
                corvane::parseCommit(corvane::Object(corvane::ObjectType::commit, contents));
                break;
            case 1:
                corvane::parseTree(corvane::Object(corvane::ObjectType::tree, contents));
                break;
            default:
                corvane::parseTag(corvane::Object(corvane::ObjectType::tag, contents));
                break;
        }
    } catch (const corvane::Error&) {
    }
    return 0;
}
