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
                        Done done) {
    auto alive = alive_;
    auto& fetcher = state_.backend().fetcher();
    auto& mainQueue = state_.mainQueue();
    queue_.async([alive, repository, id, done = std::move(done), &fetcher, &mainQueue] {
        if (!*alive) return;
        std::optional<Object> object;
        std::string error;
        try {
            object = fetcher.readObject(id, *repository);
        } catch (const std::exception& failure) {
            error = failure.what();
        }
        mainQueue.async([alive, done, object = std::move(object), error] {
            if (*alive) done(object, error);
        });
    });
}

}  // namespace corvane::ui
