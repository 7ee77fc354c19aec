// What a partial clone asks the server to leave out of a pack ("filter <form>"): "blob:none",
// "blob:limit=<n>[kmg]" (blobs of n bytes or more) or "tree:0" (every tree and blob). Objects
// a client wants by id are sent whatever the filter: that is how it fetches what it left out.
// Plain values; pure functions.
#pragma once

#include <cstdint>
#include <string_view>

namespace corvane {

struct ObjectFilter {
    enum class Kind { everything, noBlobs, smallBlobs, noTrees };

    Kind kind = Kind::everything;
    std::int64_t blobLimit = 0;  // smallBlobs: blobs of this size or more stay out

    // Fails with "Invalid filter '<form>'" for a form this server does not offer.
    static ObjectFilter parse(std::string_view form);

    bool keepsTrees() const { return kind != Kind::noTrees; }
    // A blob of `size` bytes (negative: not known, and kept) found in a tree.
    bool keepsBlob(std::int64_t size) const;
};

}  // namespace corvane
