// Speed (MB/s of uncompressed bytes, both directions) and compressed size of the LZFSE codec on
// the shared vectors, a generated ~20 MB repository-metadata document and small inputs.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "lzfse/lzfse.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes readVector(const std::string& file) {
    auto path = std::filesystem::path(CORVANE_SHARED_DIR) / "lzfse" / "vectors" / file;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "lzfse_bench: cannot read %s\n", path.c_str());
        std::exit(1);
    }
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Shaped like the metadata document Corvane stores: refs, tags, commits with tree and parents,
// trees listing subtree and blob ids, blob sizes, packs. Ids are random 40-hex strings; most
// appear once as a key and again wherever something refers to them.
Bytes metadataDocument(size_t targetSize) {
    std::mt19937_64 rng(20240611);
    auto newId = [&] {
        static const char* hex = "0123456789abcdef";
        std::string id(40, '0');
        for (char& c : id) {
            c = hex[rng() % 16];
        }
        return id;
    };
    auto quoted = [](const std::string& s) { return "\"" + s + "\""; };
    size_t commitCount = targetSize / 685;  // about 685 bytes of document per commit
    std::vector<std::string> commits, trees, blobs;
    for (size_t i = 0; i < commitCount; ++i) {
        commits.push_back(newId());
        trees.push_back(newId());
    }
    for (size_t i = 0; i < commitCount * 3; ++i) {
        blobs.push_back(newId());
    }
    auto pick = [&](const std::vector<std::string>& ids, size_t upTo) {
        return ids[rng() % std::max<size_t>(1, upTo)];
    };

    std::string out = "{\"refs\":{";
    for (int i = 0; i < 40; ++i) {
        out += (i ? "," : "") + quoted("refs/heads/branch-" + std::to_string(i)) + ":" +
               quoted(pick(commits, commitCount));
    }
    out += "},\"tags\":{";
    for (int i = 0; i < 40; ++i) {
        out += (i ? "," : "") + quoted(newId()) +
               ":{\"target\":" + quoted(pick(commits, commitCount)) + ",\"type\":1}";
    }
    out += "},\"commits\":{";
    for (size_t i = 0; i < commitCount; ++i) {
        out += (i ? "," : "") + quoted(commits[i]) + ":{\"tree\":" + quoted(trees[i]) +
               ",\"parents\":[" + (i ? quoted(commits[i - 1]) : "") + "]}";
    }
    out += "},\"trees\":{";
    for (size_t i = 0; i < commitCount; ++i) {
        out += (i ? "," : "") + quoted(trees[i]) + ":{\"trees\":[";
        for (size_t k = 0, n = rng() % 3; k < n; ++k) {
            out += (k ? "," : "") + quoted(pick(trees, i));
        }
        out += "],\"blobs\":[";
        for (size_t k = 0, n = 1 + rng() % 12; k < n; ++k) {
            out += (k ? "," : "") + quoted(pick(blobs, 3 * i + 3));
        }
        out += "]}";
    }
    out += "},\"blobs\":{";
    for (size_t i = 0; i < blobs.size(); ++i) {
        out += (i ? "," : "") + quoted(blobs[i]) + ":" + std::to_string(rng() % 100000);
    }
    out += "},\"packs\":{}}";
    return Bytes(out.begin(), out.end());
}

void encodeBench(benchmark::State& state, const Bytes& input) {
    size_t compressed = 0;
    for (auto _ : state) {
        Bytes out = corvane::lzfse::encode(input);
        compressed = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
    state.counters["compressed"] = static_cast<double>(compressed);
    state.counters["ratio"] = compressed ? static_cast<double>(input.size()) / compressed : 0;
}

// Decodes `compressed` (the reference's stream for vectors, ours for generated inputs).
void decodeBench(benchmark::State& state, const Bytes& input, const Bytes& compressed) {
    if (corvane::lzfse::decode(compressed) != input) {
        state.SkipWithError("round trip failed");
        return;
    }
    for (auto _ : state) {
        Bytes out = corvane::lzfse::decode(compressed);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
    state.counters["compressed"] = static_cast<double>(compressed.size());
}

}  // namespace

int main(int argc, char** argv) {
    struct Input {
        std::string name;
        Bytes bytes;
        Bytes compressed;
    };
    // Inputs live until the end of main; the benchmarks point at them.
    std::vector<Input> all;
    // Small inputs show the fixed cost of a call (tables cleared, buffers allocated).
    Bytes text = readVector("text_64k.bin");
    for (size_t size : {100, 1000, 4000, 4096}) {
        Bytes bytes(text.begin(), text.begin() + static_cast<ptrdiff_t>(size));
        all.push_back({"small_" + std::to_string(size), bytes, corvane::lzfse::encode(bytes)});
    }
    for (std::string name : {"text_3k", "text_4095", "text_4096", "text_64k", "repo_json_1m",
                             "random_1m", "repetitive_1m", "mixed_5m"}) {
        all.push_back({name, readVector(name + ".bin"), readVector(name + ".lzfse")});
    }
    Bytes json = metadataDocument(20'000'000);
    all.push_back({"metadata_json_20m", json, corvane::lzfse::encode(json)});
    for (const Input& input : all) {
        const Input* in = &input;
        benchmark::RegisterBenchmark(("encode/" + in->name).c_str(),
                                     [in](benchmark::State& s) { encodeBench(s, in->bytes); });
        benchmark::RegisterBenchmark(("decode/" + in->name).c_str(), [in](benchmark::State& s) {
            decodeBench(s, in->bytes, in->compressed);
        });
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
