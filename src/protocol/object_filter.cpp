#include "protocol/object_filter.h"

#include <charconv>
#include <limits>
#include <string>

#include "base/error.h"

namespace corvane {

ObjectFilter ObjectFilter::parse(std::string_view form) {
    auto invalid = [&] { return Error("Invalid filter '" + std::string(form) + "'"); };
    ObjectFilter filter;
    if (form == "blob:none") {
        filter.kind = Kind::noBlobs;
    } else if (form == "tree:0") {
        filter.kind = Kind::noTrees;
    } else if (form.starts_with("blob:limit=")) {
        auto number = form.substr(11);
        std::int64_t unit = 1;
        if (!number.empty()) {
            switch (number.back()) {
                case 'k':
                case 'K':
                    unit = 1024;
                    break;
                case 'm':
                case 'M':
                    unit = 1024 * 1024;
                    break;
                case 'g':
                case 'G':
                    unit = 1024 * 1024 * 1024;
                    break;
            }
            if (unit != 1) number.remove_suffix(1);
        }
        std::int64_t value = 0;
        auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
        if (number.empty() || error != std::errc() || end != number.data() + number.size() ||
            value < 0 || value > std::numeric_limits<std::int64_t>::max() / unit)
            throw invalid();
        filter.kind = Kind::smallBlobs;
        filter.blobLimit = value * unit;
    } else {
        throw invalid();
    }
    return filter;
}

bool ObjectFilter::keepsBlob(std::int64_t size) const {
    switch (kind) {
        case Kind::everything:
            return true;
        case Kind::noBlobs:
        case Kind::noTrees:
            return false;
        case Kind::smallBlobs:
            return size < 0 || size < blobLimit;
    }
    return true;
}

}  // namespace corvane
