#include "storage/stored_records.h"

#include <rapidjson/document.h>

#include <algorithm>
#include <map>

#include "base/error.h"
#include "objects/lzfse_compression.h"
#include "objects/sha1.h"
#include "storage/file_io.h"
#include "storage/incremental_meta.h"
#include "storage/repository_meta.h"

namespace corvane {

namespace fs = std::filesystem;

namespace {

// "version" absent or not an integer reads as 1.
std::int64_t versionOf(const cloud::Record& record) {
    const auto* version = record.get<std::int64_t>("version");
    return version ? *version : 1;
}

// An object's cache file as a pack record's asset.
cloud::Asset assetAt(const Store::CacheFileLocation& location) {
    if (location.wholeFile) return cloud::Asset{location.file};
    return cloud::Asset{location.file, cloud::ByteRange{location.offset, location.size}};
}

Bytes readAsset(const cloud::Asset& asset) {
    return readFile(*asset.fileURL);
}

// Version-1 packs: the index maps each id to its slice of the data blob.
std::set<std::string> decodePackV1(const cloud::Record& record, Store& store) {
    const auto* index = record.get<cloud::Asset>("index");
    const auto* data = record.get<cloud::Asset>("data");
    if (!index || !data || !index->fileURL || !data->fileURL) {
        throw Error("Corrupted pack " + record.recordId.recordName);
    }
    Bytes indexJson = lzfseDecompress(readAsset(*index));
    Bytes contents = lzfseDecompress(readAsset(*data));
    rapidjson::Document document;
    document.Parse(reinterpret_cast<const char*>(indexJson.data()), indexJson.size());
    auto corrupted = [&] { return Error("Corrupted pack " + record.recordId.recordName); };
    if (document.HasParseError() || !document.IsObject()) throw corrupted();
    std::set<std::string> placed;
    for (const auto& entry : document.GetObject()) {
        const auto& value = entry.value;
        if (!value.IsObject() || !value.HasMember("type") || !value.HasMember("size") ||
            !value.HasMember("offset") || !value["type"].IsUint() || !value["size"].IsUint64() ||
            !value["offset"].IsUint64()) {
            throw corrupted();
        }
        auto type = objectTypeFromRaw(value["type"].GetUint());
        std::uint64_t offset = value["offset"].GetUint64();
        std::uint64_t size = value["size"].GetUint64();
        if (!type || offset > contents.size() || size > contents.size() - offset) throw corrupted();
        auto begin = contents.begin() + static_cast<std::ptrdiff_t>(offset);
        Object object(*type, Bytes(begin, begin + static_cast<std::ptrdiff_t>(size)));
        store.putObject(object);
        placed.insert(object.id());
    }
    return placed;
}

}  // namespace

std::shared_ptr<Repository> decodeRepositoryRecord(const cloud::Record& record,
                                                   const cloud::Record& share,
                                                   const Repository* known) {
    const auto* name = record.get<std::string>("name");
    if (!name) throw Error("Corrupted repository record: missing name");
    const auto& zone = record.recordId.zoneId;
    RepositoryContent content;
    std::int64_t metaSize = 0;
    const auto* meta = record.get<cloud::Asset>("meta");
    if (meta && meta->fileURL) {
        auto version = versionOf(record);
        if (version == 3 || version == 4) {
            auto state = readIncrementalMeta(record, known);
            content = std::move(state.content);
            metaSize = state.size;
        } else if (version == 1 || version == 2) {
            Bytes document = readAsset(*meta);
            metaSize = static_cast<std::int64_t>(document.size());
            content = decodeRepositoryMeta(document, static_cast<int>(version));
        } else {
            throw Error("Unsupported repository version. Try updating Corvane.");
        }
    }
    return std::make_shared<Repository>(zone.zoneName, zone.ownerName, *name, record, share,
                                        std::move(content), metaSize);
}

std::set<std::string> decodePackRecord(const cloud::Record& record, Store& store) {
    auto version = versionOf(record);
    if (version == 1) return decodePackV1(record, store);
    if (version == 3) {
        const auto* data = record.get<cloud::Asset>("data");
        const auto* index = record.get<cloud::Asset>("index");
        const auto& name = record.recordId.recordName;
        if (!data || !index || !data->fileURL || !index->fileURL || !isStoredPackName(name))
            throw Error("Corrupted pack " + name);
        auto pack = store.storedPacks().place(name, readAsset(*data), readAsset(*index));
        std::set<std::string> placed;
        for (std::size_t i = 0; i < pack->index().count(); ++i)
            placed.insert(hexString(pack->index().at(i).id));
        return placed;
    }
    if (version != 2) {
        throw Error("Unsupported pack version " + std::to_string(version) +
                    ". Try updating Corvane.");
    }
    // A record may carry both kinds of field; the version-1 half is optional here.
    std::set<std::string> placed;
    if (record.get<cloud::Asset>("index") && record.get<cloud::Asset>("data")) {
        try {
            placed = decodePackV1(record, store);
        } catch (const std::exception&) {
            placed.clear();
        }
    }
    const auto* ids = record.get<std::vector<std::string>>("ids");
    const auto* objects = record.get<std::vector<cloud::Asset>>("objects");
    if (!ids || !objects || ids->size() != objects->size()) throw Error("Received corrupted pack");
    for (std::size_t i = 0; i < ids->size(); ++i) {
        const std::string& id = (*ids)[i];
        placed.insert(id);
        if (!(*objects)[i].fileURL) continue;
        if (!isObjectId(id)) throw Error("Received corrupted pack");
        store.placeObjectFile(id, *(*objects)[i].fileURL);
    }
    return placed;
}

cloud::Record emptiedPackRecord(const cloud::RecordId& id) {
    cloud::Record record(kPackRecordType, id);
    record.setParent({kRepositoryRecordName, id.zoneId});
    record.set("version", std::int64_t{3});
    return record;
}

cloud::Record storedPackRecord(const CachedStoredPack& pack, const cloud::ZoneId& zone) {
    cloud::Record record = emptiedPackRecord({pack.name(), zone});
    record.set("data", cloud::Asset{pack.dataPath()});
    record.set("index", cloud::Asset{pack.indexPath()});
    record.set("size", storedPackSize(pack));
    return record;
}

std::int64_t storedPackSize(const CachedStoredPack& pack) {
    std::error_code error;
    auto indexSize = std::filesystem::file_size(pack.indexPath(), error);
    return static_cast<std::int64_t>(pack.index().dataSize() + (error ? 0 : indexSize));
}

std::map<std::string, std::vector<std::string>> packContents(const RepositoryContent& content,
                                                             const std::set<std::string>& packIds) {
    std::map<std::string, std::vector<std::string>> packs;
    for (const auto& packId : packIds)
        packs[packId];
    auto collect = [&](const auto& map) {
        map.forEach([&](const std::string& id, const auto&) {
            auto pack = packs.find(id.substr(0, 3));
            if (pack != packs.end()) pack->second.push_back(id);
        });
    };
    collect(content.tags);
    collect(content.commits);
    collect(content.trees);
    collect(content.blobs);
    for (auto& [packId, ids] : packs) {
        std::sort(ids.begin(), ids.end());
        ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    }
    return packs;
}

PackUpdate mergePackRecord(const std::string& packId, const std::optional<cloud::Record>& stored,
                           const std::vector<std::string>& ids, const cloud::ZoneId& zone,
                           Store& store) {
    PackUpdate update;
    update.record = stored ? *stored : cloud::Record(kPackRecordType, {packId, zone});
    std::map<std::string, cloud::Asset> files;  // id → its file, in id order
    bool rewritten = !stored;
    bool keepV1 = false;
    if (stored) {
        auto version = versionOf(*stored);
        if (version != 1 && version != 2) {
            throw Error("Unsupported pack version " + std::to_string(version) +
                        ". Try updating Corvane.");
        }
        const auto* storedIds = stored->get<std::vector<std::string>>("ids");
        const auto* storedObjects = stored->get<std::vector<cloud::Asset>>("objects");
        if (version == 2) {
            if (!storedIds || !storedObjects || storedIds->size() != storedObjects->size()) {
                throw Error("Received corrupted pack");
            }
            for (std::size_t i = 0; i < storedIds->size(); ++i) {
                const auto& asset = (*storedObjects)[i];
                if (!isObjectId((*storedIds)[i]) || !asset.fileURL) {
                    throw Error("Received corrupted pack");
                }
                files.emplace((*storedIds)[i], asset);
                std::error_code error;
                auto size =
                    asset.range ? asset.range->length : fs::file_size(*asset.fileURL, error);
                if (!error) update.size += static_cast<std::int64_t>(size);
            }
        }
        // Version-1 contents become cache files. A version-2 record whose version-1 remnant
        // cannot be read keeps that remnant as it is.
        bool hasV1 = stored->get<cloud::Asset>("index") && stored->get<cloud::Asset>("data");
        if (version == 1 || hasV1) {
            try {
                for (const auto& id : decodePackV1(*stored, store)) {
                    if (files.contains(id)) continue;
                    auto location = store.locate(id);
                    if (!location) throw Error("Missing object " + id);
                    files.emplace(id, assetAt(*location));
                    update.size += static_cast<std::int64_t>(location->size);
                }
                rewritten = true;
            } catch (const std::exception&) {
                if (version == 1) throw;
                keepV1 = true;
            }
        }
    }
    for (const auto& id : ids) {
        if (files.contains(id)) continue;
        // One look tells both whether the cache has the object and its file's size.
        auto location = store.locate(id);
        if (!location) {
            update.missing.push_back(id);
            continue;
        }
        files.emplace(id, assetAt(*location));
        update.size += static_cast<std::int64_t>(location->size);
        rewritten = true;
    }
    update.needsSave = rewritten;

    std::vector<std::string> objectIds;
    std::vector<cloud::Asset> objects;
    for (auto& [id, asset] : files) {
        objectIds.push_back(id);
        objects.push_back(std::move(asset));
    }
    cloud::Record& record = update.record;
    record.setParent({kRepositoryRecordName, zone});
    record.set("version", std::int64_t{2});
    record.set("ids", std::move(objectIds));
    record.set("objects", std::move(objects));
    record.set("size", update.size);
    if (!keepV1) {
        record.remove("index");
        record.remove("data");
    }
    return update;
}

}  // namespace corvane
