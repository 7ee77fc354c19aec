// The record store's throughput on the embedded engine: 10,000 small assets as 10,000 records
// saved in groups of 100, and 20 pack records of 500 assets each, saved and fetched. Reports
// MB/s of asset bytes and records/s. Runs in a temporary folder of its own.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "cloud/container.h"

namespace corvane::cloud {
namespace {

constexpr int kSmallAssets = 10000;
constexpr int kGroup = 100;
constexpr int kPacks = 20;
constexpr int kObjectsPerPack = 500;

class Workspace {
  public:
    Workspace() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/corvane-bench-XXXXXX";
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        root_ = pattern;
        ContainerOptions options;
        options.assetCacheDirectory = root_ / "cache";
        options.account.email = "bench@example.com";
        container_ = Container::open(root_ / "cloud.sqlite", options);
    }
    ~Workspace() {
        container_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }

    Database& database() { return container_->privateCloudDatabase(); }
    const std::filesystem::path& root() const { return root_; }

    // Files of distinct content (256 to 4096 bytes, like small git objects); returns the bytes.
    std::int64_t makeFiles(const std::string& tag, int count, std::vector<Asset>& assets) {
        auto folder = root_ / "files" / tag;
        std::filesystem::create_directories(folder);
        std::int64_t bytes = 0;
        for (int i = 0; i < count; ++i) {
            std::string content = tag + "/" + std::to_string(i) + "/";
            content.resize(256 + random_() % 3841, static_cast<char>('a' + i % 26));
            auto path = folder / std::to_string(i);
            std::ofstream(path, std::ios::binary) << content;
            assets.push_back(Asset{path});
            bytes += static_cast<std::int64_t>(content.size());
        }
        return bytes;
    }

    void clearAssetCache() {
        std::error_code ignored;
        std::filesystem::remove_all(root_ / "cache", ignored);
    }

  private:
    std::filesystem::path root_;
    std::unique_ptr<Container> container_;
    std::mt19937 random_{42};
};

void report(benchmark::State& state, std::int64_t bytes, std::int64_t records) {
    state.counters["MB/s"] = benchmark::Counter(
        static_cast<double>(bytes) / 1e6 * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate);
    state.counters["records/s"] = benchmark::Counter(
        static_cast<double>(records * state.iterations()), benchmark::Counter::kIsRate);
}

std::vector<RecordId> idsOf(const std::vector<Record>& records) {
    std::vector<RecordId> ids;
    for (const auto& record : records)
        ids.push_back(record.recordId);
    return ids;
}

// 10,000 records of one small asset each, saved 100 per operation.
std::vector<Record> smallRecords(Workspace& workspace, const ZoneId& zone, std::int64_t& bytes) {
    std::vector<Asset> assets;
    bytes = workspace.makeFiles(zone.zoneName, kSmallAssets, assets);
    std::vector<Record> records;
    for (int i = 0; i < kSmallAssets; ++i) {
        Record record("object", RecordId{"o" + std::to_string(i), zone});
        record.set("data", assets[static_cast<std::size_t>(i)]);
        records.push_back(std::move(record));
    }
    return records;
}

// 20 pack records listing 500 assets each.
std::vector<Record> packRecords(Workspace& workspace, const ZoneId& zone, std::int64_t& bytes) {
    std::vector<Asset> assets;
    bytes = workspace.makeFiles(zone.zoneName, kPacks * kObjectsPerPack, assets);
    std::vector<Record> records;
    for (int p = 0; p < kPacks; ++p) {
        Record record("pack", RecordId{"p" + std::to_string(p), zone});
        auto first = assets.begin() + p * kObjectsPerPack;
        record.set("objects", std::vector<Asset>(first, first + kObjectsPerPack));
        record.set("version", 2);
        records.push_back(std::move(record));
    }
    return records;
}

void saveInGroups(Database& database, const std::vector<Record>& records, std::size_t group) {
    for (std::size_t i = 0; i < records.size(); i += group) {
        ModifyRecordsOperation operation;
        auto first = records.begin() + static_cast<std::ptrdiff_t>(i);
        auto last =
            records.begin() + static_cast<std::ptrdiff_t>(std::min(i + group, records.size()));
        operation.recordsToSave.assign(first, last);
        operation.savePolicy = SavePolicy::allKeys;
        database.modifyRecords(operation);
    }
}

void fetchAll(Database& database, const std::vector<RecordId>& ids) {
    std::size_t found = 0;
    database.fetchRecords(ids, [&](FetchResult&& result) { found += result.record ? 1 : 0; });
    if (found != ids.size()) throw std::runtime_error("records missing");
}

int zoneCounter = 0;

ZoneId freshZone(Workspace& workspace, const char* tag) {
    ZoneId zone{std::string(tag) + std::to_string(zoneCounter++)};
    workspace.database().saveRecordZone(zone);
    return zone;
}

void BM_SaveSmallAssets(benchmark::State& state) {
    Workspace workspace;
    std::int64_t bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto records = smallRecords(workspace, freshZone(workspace, "small"), bytes);
        state.ResumeTiming();
        saveInGroups(workspace.database(), records, kGroup);
    }
    report(state, bytes, kSmallAssets);
}

void BM_FetchSmallAssets(benchmark::State& state, bool coldCache) {
    Workspace workspace;
    std::int64_t bytes = 0;
    auto records = smallRecords(workspace, freshZone(workspace, "small"), bytes);
    saveInGroups(workspace.database(), records, kGroup);
    auto ids = idsOf(records);
    if (!coldCache) fetchAll(workspace.database(), ids);
    for (auto _ : state) {
        if (coldCache) {
            state.PauseTiming();
            workspace.clearAssetCache();
            state.ResumeTiming();
        }
        fetchAll(workspace.database(), ids);
    }
    report(state, bytes, kSmallAssets);
}

void BM_SavePacks(benchmark::State& state) {
    Workspace workspace;
    std::int64_t bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto records = packRecords(workspace, freshZone(workspace, "packs"), bytes);
        state.ResumeTiming();
        saveInGroups(workspace.database(), records, kPacks);  // one atomic operation
    }
    report(state, bytes, kPacks);
}

// A push that adds 10 objects to each of the 20 packs: every pack is rewritten whole, but only
// the new contents are stored.
void BM_RewritePacksWithTenNewObjectsEach(benchmark::State& state) {
    Workspace workspace;
    std::int64_t bytes = 0;
    auto zone = freshZone(workspace, "packs");
    auto records = packRecords(workspace, zone, bytes);
    saveInGroups(workspace.database(), records, kPacks);
    int round = 0;
    std::int64_t newBytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<Asset> added;
        newBytes = workspace.makeFiles("round" + std::to_string(round++), kPacks * 10, added);
        for (int p = 0; p < kPacks; ++p) {
            auto objects = *records[static_cast<std::size_t>(p)].get<std::vector<Asset>>("objects");
            auto first = added.begin() + p * 10;
            objects.insert(objects.end(), first, first + 10);
            records[static_cast<std::size_t>(p)].set("objects", objects);
        }
        state.ResumeTiming();
        saveInGroups(workspace.database(), records, kPacks);
    }
    state.counters["new MB/s"] = benchmark::Counter(
        static_cast<double>(newBytes) / 1e6 * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate);
    state.counters["records/s"] = benchmark::Counter(
        static_cast<double>(kPacks * state.iterations()), benchmark::Counter::kIsRate);
}

void BM_FetchPacks(benchmark::State& state, bool coldCache) {
    Workspace workspace;
    std::int64_t bytes = 0;
    auto records = packRecords(workspace, freshZone(workspace, "packs"), bytes);
    saveInGroups(workspace.database(), records, kPacks);
    auto ids = idsOf(records);
    if (!coldCache) fetchAll(workspace.database(), ids);
    for (auto _ : state) {
        if (coldCache) {
            state.PauseTiming();
            workspace.clearAssetCache();
            state.ResumeTiming();
        }
        fetchAll(workspace.database(), ids);
    }
    report(state, bytes, kPacks);
}

BENCHMARK(BM_SaveSmallAssets)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK_CAPTURE(BM_FetchSmallAssets, coldCache, true)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_FetchSmallAssets, warmCache, false)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK(BM_SavePacks)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_RewritePacksWithTenNewObjectsEach)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_FetchPacks, coldCache, true)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_FetchPacks, warmCache, false)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

}  // namespace
}  // namespace corvane::cloud

BENCHMARK_MAIN();
