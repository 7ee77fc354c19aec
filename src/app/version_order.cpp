#include "app/version_order.h"

namespace corvane {
namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

bool versionLess(std::string_view a, std::string_view b) {
    std::size_t i = 0, j = 0;
    // Equal values written with more or fewer zeros ("01", "1") decide only at the end.
    int zeros = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            std::size_t runA = i, runB = j;
            while (runA < a.size() && isDigit(a[runA]))
                ++runA;
            while (runB < b.size() && isDigit(b[runB]))
                ++runB;
            // Values compared without converting: leading zeros skipped, then length, then
            // digits, so that no run is too long to compare.
            std::size_t startA = i, startB = j;
            while (startA + 1 < runA && a[startA] == '0')
                ++startA;
            while (startB + 1 < runB && b[startB] == '0')
                ++startB;
            auto digitsA = a.substr(startA, runA - startA);
            auto digitsB = b.substr(startB, runB - startB);
            if (digitsA.size() != digitsB.size()) return digitsA.size() < digitsB.size();
            if (digitsA != digitsB) return digitsA < digitsB;
            if (zeros == 0 && runA - i != runB - j) zeros = runA - i < runB - j ? -1 : 1;
            i = runA;
            j = runB;
        } else {
            if (a[i] != b[j])
                return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
            ++i;
            ++j;
        }
    }
    if (a.size() - i != b.size() - j) return a.size() - i < b.size() - j;
    return zeros < 0;
}

}  // namespace corvane
