#include "ui/core/object_loader.h"

#include "base/error.h"

namespace corvane::ui {

namespace {

constexpr unsigned kThreads = 2;

}  // namespace

ObjectLoader::ObjectLoader(AppState& state)
    : state_(state),
      alive_(std::make_shared<std::atomic<bool>>(true)),
      queue_("object_loader", kThreads) {}

ObjectLoader::~ObjectLoader() {
    *alive_ = false;  // queued reads are skipped; the queue joins the ones under way
}

void ObjectLoader::load(const std::shared_ptr<Repository>& repository, const std::string& id,
                        Done done, LoadTicket::Flag wanted) {
    loadThen(
        repository, id,
        [done = std::move(done)](const std::optional<Object>& object, const std::string& error) {
            return [done, object, error] { done(object, error); };
        },
        std::move(wanted));
}

void ObjectLoader::loadThen(const std::shared_ptr<Repository>& repository, const std::string& id,
                            Work work, LoadTicket::Flag wanted) {
    auto alive = alive_;
    auto& fetcher = state_.backend().fetcher();
    auto& mainQueue = state_.mainQueue();
    queue_.async([alive, repository, id, work = std::move(work), wanted = std::move(wanted),
                  &fetcher, &mainQueue] {
        if (!*alive || (wanted && !*wanted)) return;
        std::optional<Object> object;
        std::string error;
        try {
            object = fetcher.readObject(id, *repository);
        } catch (const std::exception& failure) {
            error = failure.what();
        }
        auto then = work(object, error);
        mainQueue.async([alive, then = std::move(then)] {
            if (*alive) then();
        });
    });
}

}  // namespace corvane::ui
