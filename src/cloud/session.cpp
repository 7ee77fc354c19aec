#include "cloud/session.h"

namespace corvane::cloud {

const Account& Session::account() {
    if (signedIn_.load(std::memory_order_acquire)) return *account_;
    std::lock_guard lock(signInMutex_);
    if (!account_) {
        auto connection = pool.acquire();
        account_ = signIn_(*connection);
        signedIn_.store(true, std::memory_order_release);
    }
    return *account_;
}

}  // namespace corvane::cloud
