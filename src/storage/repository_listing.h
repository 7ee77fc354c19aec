// RepositoryListing: the repositories of the two databases as the list shows them, read again
// only where the store says they changed. Each listing asks each database for its zones'
// versions (one call), hands back the repository decoded last time for every zone whose version
// is the same, and reads and decodes the records of the others. A window that follows the store
// every few seconds thus costs two small calls while nothing changes, and the repositories it
// gets are the same objects, so nothing downstream redraws.
//
// Threads: list() may run on several threads at once; what it keeps is under one mutex.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cloud/database.h"
#include "storage/repository.h"

namespace corvane {

class RepositoryListing {
  public:
    // The database's repositories, oldest zone first. A zone without its repository or share
    // record is left out (and said in the log); one whose records cannot be read is listed
    // empty, with its error (Repository::loadError).
    std::vector<std::shared_ptr<Repository>> list(cloud::Database& database);

  private:
    struct Listed {
        std::string version;
        std::shared_ptr<Repository> repository;
    };
    std::mutex mutex_;
    // Guarded by mutex_: what the last listing of each database read, by zone.
    std::map<cloud::DatabaseScope, std::map<cloud::ZoneId, Listed>> listed_;
};

}  // namespace corvane
