#include "cloud/field_codec.h"

#include "base/error.h"

namespace corvane::cloud {
namespace {

constexpr std::uint8_t kFormat = 1;
enum Kind : std::uint8_t {
    kString = 1,
    kInteger = 2,
    kAsset = 3,
    kStringList = 4,
    kAssetList = 5,
    kReference = 6,
};
constexpr std::size_t kHashBytes = 32;
constexpr std::size_t kAssetBytes = kHashBytes + 8;

class Writer {
  public:
    explicit Writer(const AssetLookup& lookup) : lookup_(lookup) {}

    void u8(std::uint8_t value) { bytes_.push_back(value); }
    void u32(std::uint32_t value) {
        for (int i = 0; i < 4; ++i)
            bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    void u64(std::uint64_t value) {
        for (int i = 0; i < 8; ++i)
            bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    void count(std::size_t value) {
        if (value > UINT32_MAX) throw Error("A record field is too large to store");
        u32(static_cast<std::uint32_t>(value));
    }
    void str(const std::string& text) {
        count(text.size());
        bytes_.insert(bytes_.end(), text.begin(), text.end());
    }
    void asset(const Asset& asset) {
        auto stored = lookup_(asset);
        for (std::size_t i = 0; i < kHashBytes; ++i)
            u8(static_cast<std::uint8_t>(nibble(stored.hash[2 * i]) << 4 |
                                         nibble(stored.hash[2 * i + 1])));
        u64(stored.size);
    }

    Bytes take() { return std::move(bytes_); }

  private:
    static int nibble(char c) { return c <= '9' ? c - '0' : c - 'a' + 10; }

    const AssetLookup& lookup_;
    Bytes bytes_;
};

class Reader {
  public:
    Reader(ByteView bytes, const AssetPlacer& placer) : bytes_(bytes), placer_(placer) {}

    bool atEnd() const { return offset_ == bytes_.size(); }
    std::size_t remaining() const { return bytes_.size() - offset_; }

    std::uint8_t u8() {
        need(1);
        return bytes_[offset_++];
    }
    std::uint32_t u32() {
        need(4);
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value |= std::uint32_t{bytes_[offset_++]} << (8 * i);
        return value;
    }
    std::uint64_t u64() {
        need(8);
        std::uint64_t value = 0;
        for (int i = 0; i < 8; ++i)
            value |= std::uint64_t{bytes_[offset_++]} << (8 * i);
        return value;
    }
    // An element count, checked against the bytes left so that no list outgrows its input.
    std::size_t count(std::size_t minimumElementBytes) {
        std::size_t value = u32();
        if (minimumElementBytes && value > remaining() / minimumElementBytes)
            throw Error("list longer than its bytes");
        return value;
    }
    std::string str() {
        std::size_t length = u32();
        need(length);
        std::string text(reinterpret_cast<const char*>(bytes_.data() + offset_), length);
        offset_ += length;
        return text;
    }
    Asset asset() {
        need(kAssetBytes);
        static constexpr char kDigits[] = "0123456789abcdef";
        StoredAsset stored;
        stored.hash.reserve(2 * kHashBytes);
        for (std::size_t i = 0; i < kHashBytes; ++i) {
            auto byte = bytes_[offset_++];
            stored.hash += kDigits[byte >> 4];
            stored.hash += kDigits[byte & 0x0f];
        }
        stored.size = u64();
        return placer_(stored);
    }

  private:
    void need(std::size_t count) const {
        if (count > remaining()) throw Error("truncated");
    }

    ByteView bytes_;
    std::size_t offset_ = 0;
    const AssetPlacer& placer_;
};

}  // namespace

Bytes encodeFields(const Fields& fields, const AssetLookup& lookup) {
    Writer out(lookup);
    out.u8(kFormat);
    out.count(fields.size());
    for (const auto& [key, value] : fields) {
        out.str(key);
        if (auto* text = std::get_if<std::string>(&value)) {
            out.u8(kString);
            out.str(*text);
        } else if (auto* integer = std::get_if<std::int64_t>(&value)) {
            out.u8(kInteger);
            out.u64(static_cast<std::uint64_t>(*integer));
        } else if (auto* asset = std::get_if<Asset>(&value)) {
            out.u8(kAsset);
            out.asset(*asset);
        } else if (auto* texts = std::get_if<std::vector<std::string>>(&value)) {
            out.u8(kStringList);
            out.count(texts->size());
            for (const auto& item : *texts)
                out.str(item);
        } else if (auto* assets = std::get_if<std::vector<Asset>>(&value)) {
            out.u8(kAssetList);
            out.count(assets->size());
            for (const auto& item : *assets)
                out.asset(item);
        } else {
            const auto& reference = std::get<Reference>(value);
            out.u8(kReference);
            out.str(reference.recordId.recordName);
            out.u8(static_cast<std::uint8_t>(reference.action));
        }
    }
    return out.take();
}

Fields decodeFields(ByteView bytes, const ZoneId& zone, const AssetPlacer& placer) {
    Reader in(bytes, placer);
    auto format = in.u8();
    if (format != kFormat) throw Error("unknown field format " + std::to_string(format));
    Fields fields;
    auto fieldCount = in.count(6);  // the smallest field: an empty key, a kind, an empty string
    for (std::size_t i = 0; i < fieldCount; ++i) {
        auto key = in.str();
        auto kind = in.u8();
        FieldValue value;
        switch (kind) {
            case kString:
                value = in.str();
                break;
            case kInteger:
                value = static_cast<std::int64_t>(in.u64());
                break;
            case kAsset:
                value = in.asset();
                break;
            case kStringList: {
                std::vector<std::string> texts(in.count(4));
                for (auto& item : texts)
                    item = in.str();
                value = std::move(texts);
                break;
            }
            case kAssetList: {
                auto count = in.count(kAssetBytes);
                std::vector<Asset> assets;
                assets.reserve(count);
                for (std::size_t j = 0; j < count; ++j)
                    assets.push_back(in.asset());
                value = std::move(assets);
                break;
            }
            case kReference: {
                Reference reference{RecordId{in.str(), zone}, ReferenceAction::none};
                auto action = in.u8();
                if (action > 1) throw Error("unknown reference action");
                reference.action = static_cast<ReferenceAction>(action);
                value = std::move(reference);
                break;
            }
            default:
                throw Error("unknown field kind " + std::to_string(kind));
        }
        if (!fields.emplace(std::move(key), std::move(value)).second)
            throw Error("field stored twice");
    }
    if (!in.atEnd()) throw Error("bytes after the last field");
    return fields;
}

}  // namespace corvane::cloud
