// The order people expect of names that number things, tags above all: runs of digits compare
// as numbers, so v1.2.10 comes after v1.2.9 and not between v1.2.1 and v1.2.2. Pure.
#pragma once

#include <string_view>

namespace corvane {

// True when `a` comes before `b`: digit runs by value, everything else byte by byte; between
// names equal so but for leading zeros, the one with fewer first ("v1.9" before "v01.9").
bool versionLess(std::string_view a, std::string_view b);

}  // namespace corvane
