// Repository storage: decoding the metadata document of a 100,000-object repository, and
// uploading the packs of a 20,000-object push to the embedded record store.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <cstdio>
#include <filesystem>

#include "cloud/container.h"
#include "objects/sha1.h"
#include "storage/backend.h"
#include "storage/repository_meta.h"

namespace corvane {
namespace {

std::string fakeId(std::size_t n, char kind) {
    return hexString(sha1(asBytes(std::string(1, kind) + std::to_string(n))));
}

// 20,000 commits, 30,000 trees and 50,000 blobs, linked like a real history.
RepositoryContent largeContent() {
    RepositoryContent content;
    for (std::size_t i = 0; i < 50000; ++i)
        content.blobs.add(fakeId(i, 'b'), 1000 + i);
    for (std::size_t i = 0; i < 30000; ++i) {
        PartialTree tree;
        for (std::size_t k = 1; k <= 2; ++k)
            tree.trees.push_back(treeLink(fakeId((i + k) % 30000, 't')));
        for (std::size_t k = 0; k < 5; ++k)
            tree.blobs.push_back(treeLink(fakeId((i * 5 + k) % 50000, 'b')));
        content.trees.add(fakeId(i, 't'), std::move(tree));
    }
    for (std::size_t i = 0; i < 20000; ++i) {
        PartialCommit commit{fakeId(i, 't'), {}};
        if (i > 0) commit.parents.push_back(fakeId(i - 1, 'c'));
        content.commits.add(fakeId(i, 'c'), std::move(commit));
    }
    content.refs["refs/heads/master"] = fakeId(19999, 'c');
    for (std::size_t i = 0; i < 4096; ++i)
        content.packs[fakeId(i, 'p').substr(0, 3)] = 50000;
    return content;
}

long peakMemoryMB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}

void BM_DecodeMetadata100k(benchmark::State& state) {
    Bytes document = encodeRepositoryMeta(largeContent());
    for (auto _ : state) {
        auto content = decodeRepositoryMeta(document, 2);
        benchmark::DoNotOptimize(content);
    }
    state.counters["compressedMB"] = static_cast<double>(document.size()) / 1e6;
    state.counters["peakRSS_MB"] = static_cast<double>(peakMemoryMB());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document.size()));
}
BENCHMARK(BM_DecodeMetadata100k)->Unit(benchmark::kMillisecond);

void BM_SavePacks20k(benchmark::State& state) {
    char pattern[] = "/tmp/corvane-bench-XXXXXX";
    std::filesystem::path folder = mkdtemp(pattern);
    {
        cloud::ContainerOptions options;
        options.assetCacheDirectory = folder / "Assets";
        options.account.email = "bench@example.com";
        auto container = cloud::Container::open(folder / "cloud.sqlite", options);
        Store::Timing timing;
        timing.runExpiryThread = false;
        Store store(folder / "Objects", timing);
        LoopMainQueue mainQueue;
        Backend backend(*container, store, mainQueue, {});
        Repository repository("bench");
        container->privateCloudDatabase().saveRecordZone({repository.id(), repository.owner()});
        RepositoryContent content;
        std::vector<std::string> ids;
        for (std::size_t i = 0; i < 20000; ++i) {
            Object object(ObjectType::blob,
                          toBytes("object " + std::to_string(i) + std::string(400, 'x')));
            store.putObject(object);
            summarise(object, content);
            ids.push_back(object.id());
        }
        for (auto _ : state) {
            auto sizes = backend.savePacks(ids, repository, content, [](const auto&) {});
            benchmark::DoNotOptimize(sizes);
        }
        state.counters["objects/s"] = benchmark::Counter(
            static_cast<double>(ids.size() * state.iterations()), benchmark::Counter::kIsRate);
    }
    std::filesystem::remove_all(folder);
}
BENCHMARK(BM_SavePacks20k)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

}  // namespace
}  // namespace corvane

BENCHMARK_MAIN();
