// The order in which a selected repository's objects are fetched ahead of need: HEAD's
// first-parent chain, each commit followed by its tree (what the views show first), then every
// other tag, commit and tree once. Blobs wait until a view asks for them. Pure function.
#pragma once

#include <string>
#include <vector>

#include "storage/repository.h"

namespace corvane {

std::vector<std::string> prefetchOrder(const Repository& repository);

}  // namespace corvane
