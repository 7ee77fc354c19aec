// Names that number things sort as people read them.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "app/version_order.h"

namespace corvane {
namespace {

TEST(VersionOrder, DigitRunsCompareAsNumbers) {
    std::vector<std::string> tags{"v1.2.2",
                                  "v1.2.10",
                                  "v1.2.1.2",
                                  "v1.10",
                                  "v1.9",
                                  "v01.9",
                                  "release",
                                  "v1.2",
                                  "v2.0-rc1",
                                  "v2.0",
                                  "v2.0-rc10",
                                  "v" + std::string(30, '9'),
                                  "v" + std::string(29, '9')};
    std::sort(tags.begin(), tags.end(), versionLess);
    EXPECT_EQ(tags,
              (std::vector<std::string>{"release", "v1.2", "v1.2.1.2", "v1.2.2", "v1.2.10", "v1.9",
                                        "v01.9", "v1.10", "v2.0", "v2.0-rc1", "v2.0-rc10",
                                        "v" + std::string(29, '9'), "v" + std::string(30, '9')}));
    EXPECT_FALSE(versionLess("v1", "v1"));
    EXPECT_TRUE(versionLess("", "a"));
    EXPECT_FALSE(versionLess("a", ""));
}

}  // namespace
}  // namespace corvane
