#include "storage/repository_meta.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "base/error.h"
#include "base/queues.h"
#include "objects/lzfse_compression.h"

namespace corvane {

namespace {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

void writeString(JsonWriter& writer, const std::string& text) {
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void writeStrings(JsonWriter& writer, const char* key, const std::vector<std::string>& values) {
    writer.Key(key);
    writer.StartArray();
    for (const auto& value : values)
        writeString(writer, value);
    writer.EndArray();
}

void writeIds(JsonWriter& writer, const char* key, const std::vector<TreeLink>& links) {
    writer.Key(key);
    writer.StartArray();
    for (auto link : links)
        writeString(writer, linkedId(link));
    writer.EndArray();
}

template <typename Map, typename Visit>
void forEachEntry(const Map& map, Visit visit) {
    for (const auto& [id, value] : map)
        visit(id, value);
}

template <typename Summary, typename Visit>
void forEachEntry(const SummaryMap<Summary>& map, Visit visit) {
    map.forEach(visit);
}

// Writes one section; `entryDone` runs after each entry (where a part may end).
template <typename Map, typename WriteValue, typename EntryDone>
void writeMap(JsonWriter& writer, const char* key, const Map& map, WriteValue writeValue,
              EntryDone entryDone) {
    entryDone.begin(key);
    forEachEntry(map, [&](const std::string& id, const auto& value) {
        writeString(writer, id);
        writeValue(value);
        entryDone();
    });
    entryDone.end();
}

// Cuts the JSON into documents of about `limit` bytes at entry boundaries: the sections open at
// a cut are closed and opened again in the next document, so each document is whole and the
// union of their entries is the content.
class PartWriter {
  public:
    PartWriter(std::size_t limit, const std::function<void(std::string_view json)>& sink)
        : writer_(buffer_), limit_(limit), sink_(sink) {
        writer_.StartObject();
    }
    JsonWriter& writer() { return writer_; }

    struct EntryDone {
        PartWriter& parts;
        void begin(const char* key) {
            parts.section_ = key;
            parts.writer_.Key(key);
            parts.writer_.StartObject();
        }
        void operator()() {
            if (parts.buffer_.GetSize() >= parts.limit_) parts.cut();
        }
        void end() {
            parts.writer_.EndObject();
            parts.section_ = nullptr;
        }
    };
    EntryDone entryDone() { return EntryDone{*this}; }

    void finish() {
        writer_.EndObject();
        sink_(std::string_view(buffer_.GetString(), buffer_.GetSize()));
    }

  private:
    void cut() {
        if (section_) writer_.EndObject();
        finish();
        buffer_.Clear();
        writer_.Reset(buffer_);
        writer_.StartObject();
        if (section_) {
            writer_.Key(section_);
            writer_.StartObject();
        }
    }

    rapidjson::StringBuffer buffer_;
    JsonWriter writer_;
    const std::size_t limit_;
    const std::function<void(std::string_view)>& sink_;
    const char* section_ = nullptr;
};

void writeContent(PartWriter& parts, const RepositoryContent& content) {
    JsonWriter& writer = parts.writer();
    writeMap(
        writer, "refs", content.refs, [&](const std::string& id) { writeString(writer, id); },
        parts.entryDone());
    writeMap(
        writer, "tags", content.tags,
        [&](const PartialTag& tag) {
            writer.StartObject();
            writer.Key("target");
            writeString(writer, tag.target);
            writer.Key("type");
            writer.Int(static_cast<int>(tag.type));
            writer.EndObject();
        },
        parts.entryDone());
    writeMap(
        writer, "commits", content.commits,
        [&](const PartialCommit& commit) {
            writer.StartObject();
            writer.Key("tree");
            writeString(writer, commit.tree);
            writeStrings(writer, "parents", commit.parents);
            writer.EndObject();
        },
        parts.entryDone());
    writeMap(
        writer, "trees", content.trees,
        [&](const PartialTree& tree) {
            writer.StartObject();
            writeIds(writer, "trees", tree.trees);
            writeIds(writer, "blobs", tree.blobs);
            writer.EndObject();
        },
        parts.entryDone());
    writeMap(
        writer, "blobs", content.blobs, [&](std::int64_t size) { writer.Int64(size); },
        parts.entryDone());
    writeMap(
        writer, "packs", content.packs, [&](std::int64_t size) { writer.Int64(size); },
        parts.entryDone());
    if (!content.retiredPacks.empty()) {
        writeMap(
            writer, "retired", content.retiredPacks, [&](std::int64_t time) { writer.Int64(time); },
            parts.entryDone());
    }
    parts.finish();
}

// Reads a document event by event straight into the maps. Depth 1 is inside the root object
// (keys name sections), depth 2 inside a section (keys are names or ids), depth 3 inside an
// entry (keys name fields), depth 4 inside a field's array. Unknown keys are skipped whole.
class MetaReader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, MetaReader> {
  public:
    MetaReader(RepositoryContent& content, int version) : content_(content), version_(version) {}

    const std::string& error() const { return error_; }

    bool StartObject() { return open(true); }
    bool StartArray() { return open(false); }
    bool EndObject(rapidjson::SizeType) {
        if (endSkip()) return true;
        if (depth_ == 3 && !finishEntry()) return false;
        --depth_;
        return true;
    }
    bool EndArray(rapidjson::SizeType) {
        if (endSkip()) return true;
        --depth_;
        return true;
    }

    bool Key(const char* text, rapidjson::SizeType length, bool) {
        if (skipping()) return true;
        std::string_view key(text, length);
        if (depth_ == 1) section_ = sectionFor(key);
        if (depth_ == 2) entry_.assign(key);
        if (depth_ == 3) field_ = fieldFor(key);
        return true;
    }

    bool String(const char* text, rapidjson::SizeType length, bool) {
        if (skipping()) return true;
        // Tree links are most of a history's strings: read in place, checked and decoded at once.
        if (depth_ == 4 && section_ == Section::trees &&
            (field_ == Field::trees || field_ == Field::blobs)) {
            auto digest = parseObjectId(std::string_view(text, length));
            if (!digest) return fail("bad id in tree " + entry_);
            (field_ == Field::trees ? treeDigests_ : blobDigests_).push_back(*digest);
            return true;
        }
        std::string value(text, length);
        if (depth_ == 1) return section_ == Section::head || section_ == Section::unknown || fail();
        if (depth_ == 2 && section_ == Section::refs) {
            content_.refs[entry_] = std::move(value);
            return true;
        }
        if (depth_ == 3) {
            if (field_ == Field::target && section_ == Section::tags)
                tag_.target = std::move(value);
            else if (field_ == Field::type && section_ == Section::tags && version_ == 1)
                tag_.type = typeFromV1Name(value);
            else if (field_ == Field::tree && section_ == Section::commits && version_ == 2)
                commit_.tree = std::move(value);
            else if (field_ != Field::id && field_ != Field::unknown)
                return fail();
            return true;
        }
        if (depth_ == 4) {
            if (field_ == Field::parents && section_ == Section::commits)
                commit_.parents.push_back(std::move(value));
            else if (field_ == Field::trees && section_ == Section::commits && version_ == 1)
                v1CommitTrees_.push_back(std::move(value));
            else
                return fail();
            return true;
        }
        return fail();
    }

    bool Int(int value) { return number(value); }
    bool Uint(unsigned value) { return number(value); }
    bool Int64(std::int64_t value) { return number(value); }
    bool Uint64(std::uint64_t value) {
        if (value > static_cast<std::uint64_t>(INT64_MAX)) return fail();
        return number(static_cast<std::int64_t>(value));
    }
    bool Double(double value) {
        // A size another encoder wrote in floating point; one no integer holds is damage (the
        // test also refuses NaN).
        if (!(value > -9.2e18 && value < 9.2e18)) return fail();
        return number(static_cast<std::int64_t>(value));
    }
    // null and booleans: only where anything goes.
    bool Default() {
        if (skipping() || (depth_ == 1 && section_ == Section::unknown)) return true;
        return (depth_ == 3 && (field_ == Field::unknown || field_ == Field::id)) || fail();
    }

  private:
    enum class Section { unknown, head, refs, tags, commits, trees, blobs, packs, retired };
    enum class Field { unknown, id, target, type, tree, parents, trees, blobs };

    static Section sectionFor(std::string_view key) {
        if (key == "refs") return Section::refs;
        if (key == "tags") return Section::tags;
        if (key == "commits") return Section::commits;
        if (key == "trees") return Section::trees;
        if (key == "blobs") return Section::blobs;
        if (key == "packs") return Section::packs;
        if (key == "retired") return Section::retired;
        if (key == "HEAD") return Section::head;
        return Section::unknown;
    }
    static Field fieldFor(std::string_view key) {
        if (key == "id") return Field::id;
        if (key == "target") return Field::target;
        if (key == "type") return Field::type;
        if (key == "tree") return Field::tree;
        if (key == "parents") return Field::parents;
        if (key == "trees") return Field::trees;
        if (key == "blobs") return Field::blobs;
        return Field::unknown;
    }
    static ObjectType typeFromV1Name(std::string_view name) {
        if (name == "error") return ObjectType::error;
        return objectTypeFromName(name).value_or(ObjectType::error);
    }

    bool skipping() const { return skipFrom_ > 0; }
    // Closes a container; true when it was one being skipped.
    bool endSkip() {
        if (!skipping()) return false;
        if (depth_ == skipFrom_) skipFrom_ = 0;
        --depth_;
        return true;
    }

    bool open(bool object) {
        ++depth_;
        if (skipping()) return true;
        switch (depth_) {
            case 1:
                return object || fail();
            case 2:
                if (section_ == Section::unknown) return skipFrom(depth_);
                return (object && section_ != Section::head) || fail();
            case 3:
                if (!object) return fail();
                if (section_ != Section::tags && section_ != Section::commits &&
                    section_ != Section::trees) {
                    return fail();
                }
                field_ = Field::unknown;
                tag_ = {};
                commit_ = {};
                tree_ = {};
                v1CommitTrees_.clear();
                return true;
            case 4:
                if (field_ == Field::unknown || field_ == Field::id) return skipFrom(depth_);
                return (!object && (field_ == Field::parents || field_ == Field::trees ||
                                    field_ == Field::blobs)) ||
                       fail();
            default:
                return fail();
        }
    }

    bool skipFrom(int depth) {
        skipFrom_ = depth;
        return true;
    }

    bool number(std::int64_t value) {
        if (skipping()) return true;
        if (depth_ == 1) return section_ == Section::unknown || fail();
        if (depth_ == 2 && section_ == Section::blobs && version_ == 2) {
            content_.blobs.add(entry_, value);
            return true;
        }
        if (depth_ == 2 && section_ == Section::packs && version_ == 2) {
            content_.packs[entry_] = value;
            return true;
        }
        if (depth_ == 2 && section_ == Section::retired && version_ == 2) {
            content_.retiredPacks[entry_] = value;
            return true;
        }
        if (depth_ == 3 && section_ == Section::tags && field_ == Field::type && version_ == 2) {
            auto type = objectTypeFromRaw(static_cast<unsigned>(value));
            if (value < 0 || !type) return fail("unknown object type in tag " + entry_);
            tag_.type = *type;
            return true;
        }
        if (depth_ == 3 && field_ == Field::unknown) return true;
        return fail();
    }

    bool finishEntry() {
        switch (section_) {
            case Section::tags:
                content_.tags.add(entry_, std::move(tag_));
                break;
            case Section::commits:
                if (version_ == 1) {
                    // The first of a version-1 commit's "trees" is its root tree.
                    if (v1CommitTrees_.empty()) return fail("commit " + entry_ + " has no tree");
                    commit_.tree = v1CommitTrees_.front();
                }
                content_.commits.add(entry_, std::move(commit_));
                break;
            case Section::trees:
                // Numbered together: one lock for the tree, not one for each link.
                tree_.trees.reserve(treeDigests_.size());
                tree_.blobs.reserve(blobDigests_.size());
                ObjectIdTable::process().number(treeDigests_, tree_.trees);
                ObjectIdTable::process().number(blobDigests_, tree_.blobs);
                treeDigests_.clear();
                blobDigests_.clear();
                content_.trees.add(entry_, std::move(tree_));
                break;
            default:
                return fail();
        }
        return true;
    }

    bool fail(std::string reason = "unexpected value") {
        if (error_.empty()) error_ = "Invalid repository metadata: " + reason;
        return false;
    }

    RepositoryContent& content_;
    const int version_;
    int depth_ = 0;
    int skipFrom_ = 0;  // depth of the container being skipped; 0 when not skipping
    Section section_ = Section::unknown;
    Field field_ = Field::unknown;
    std::string entry_;
    PartialTag tag_;
    PartialCommit commit_;
    PartialTree tree_;
    std::vector<Digest> treeDigests_;  // the tree's links as read, numbered when it ends
    std::vector<Digest> blobDigests_;
    std::vector<std::string> v1CommitTrees_;
    std::string error_;
};

}  // namespace

std::string encodeRepositoryMetaJson(const RepositoryContent& content) {
    std::string json;
    std::function<void(std::string_view)> keep = [&](std::string_view part) { json = part; };
    PartWriter parts(SIZE_MAX, keep);
    writeContent(parts, content);
    return json;
}

Bytes encodeRepositoryMeta(const RepositoryContent& content) {
    return lzfseCompress(asBytes(encodeRepositoryMetaJson(content)));
}

void encodeRepositoryMetaParts(const RepositoryContent& content, std::size_t partJsonBytes,
                               const std::function<void(Bytes)>& sink) {
    // Compressing takes most of the time: parts compress on every core while the next is
    // written, and reach the sink in order. At most one part per core waits.
    const unsigned threads = std::max(1u, std::thread::hardware_concurrency());
    std::deque<std::future<Bytes>> compressed;
    WorkQueue compressors("meta_compress", threads);
    auto deliverFirst = [&] {
        Bytes document = compressed.front().get();
        compressed.pop_front();
        sink(std::move(document));
    };
    std::function<void(std::string_view)> compress = [&](std::string_view json) {
        auto task = std::make_shared<std::packaged_task<Bytes()>>(
            [text = std::string(json)] { return lzfseCompress(asBytes(text)); });
        compressed.push_back(task->get_future());
        compressors.async([task] { (*task)(); });
        while (compressed.size() > threads)
            deliverFirst();
    };
    PartWriter parts(partJsonBytes, compress);
    writeContent(parts, content);
    while (!compressed.empty())
        deliverFirst();
}

RepositoryContent decodeRepositoryMetaJson(std::string_view json, int version) {
    RepositoryContent content;
    MetaReader handler(content, version);
    rapidjson::Reader reader;
    rapidjson::MemoryStream stream(json.data(), json.size());
    // Documents are ids and reference names: nearly always ASCII, which one pass over the bytes
    // tells far faster than checking the encoding character by character while parsing.
    unsigned char high = 0;
    for (char c : json)
        high |= static_cast<unsigned char>(c);
    auto result = high < 0x80
                      ? reader.Parse<rapidjson::kParseDefaultFlags>(stream, handler)
                      : reader.Parse<rapidjson::kParseValidateEncodingFlag>(stream, handler);
    if (result.IsError()) {
        if (!handler.error().empty()) throw Error(handler.error());
        throw Error(std::string("Invalid repository metadata: ") +
                    rapidjson::GetParseError_En(result.Code()) + " at offset " +
                    std::to_string(result.Offset()));
    }
    return content;
}

RepositoryContent decodeRepositoryMeta(ByteView compressed, int version) {
    Bytes json = lzfseDecompress(compressed);
    return decodeRepositoryMetaJson(asText(json), version);
}

}  // namespace corvane
