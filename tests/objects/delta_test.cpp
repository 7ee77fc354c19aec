// Ref-delta application: hand-made deltas for each instruction form, and every bound a malformed
// or hostile delta must hit. Deltas git writes are applied in the protocol suite's pack reading.
// Delta encoding: what it writes rebuilds the target exactly, and is small when the two are alike.
#include "objects/delta.h"

#include "objects/delta_encoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/error_message.h"

namespace corvane {
namespace {

// Writes delta instruction data: the two sizes, then instructions.
class DeltaWriter {
  public:
    DeltaWriter(std::uint64_t baseSize, std::uint64_t resultSize) {
        size(baseSize);
        size(resultSize);
    }
    // Little-endian base 128.
    DeltaWriter& size(std::uint64_t value) {
        for (; value >= 0x80; value >>= 7)
            bytes_.push_back(0x80 | (value & 0x7f));
        bytes_.push_back(static_cast<std::uint8_t>(value));
        return *this;
    }
    // A copy of 1 to 255 bytes from an offset below 256.
    DeltaWriter& copy(std::uint8_t offset, std::uint8_t size) { return raw({0x91, offset, size}); }
    DeltaWriter& insert(std::string_view text) {
        bytes_.push_back(static_cast<std::uint8_t>(text.size()));
        bytes_.insert(bytes_.end(), text.begin(), text.end());
        return *this;
    }
    DeltaWriter& raw(std::initializer_list<std::uint8_t> bytes) {
        bytes_.insert(bytes_.end(), bytes);
        return *this;
    }
    RefDelta delta(const Object& base) const { return {base.id(), bytes_}; }

  private:
    Bytes bytes_;
};

// Bytes that differ from position to position, so a copy from a wrong offset shows.
Object patternBlob(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    return Object(ObjectType::blob, std::move(bytes));
}

Bytes slice(const Object& object, std::size_t offset, std::size_t size) {
    auto start = object.data().begin() + static_cast<std::ptrdiff_t>(offset);
    return Bytes(start, start + static_cast<std::ptrdiff_t>(size));
}

TEST(Delta, RebuildsFromCopiesAndInserts) {
    Object base(ObjectType::blob, toBytes("The quick brown fox jumps over the lazy dog.\n"));
    auto delta = DeltaWriter(45, 46).copy(0, 4).insert("slow").copy(9, 26).insert("sleepy");
    auto result = apply(base, delta.copy(39, 6).delta(base));  // this copy ends at the base's end
    EXPECT_EQ(asText(result.data()), "The slow brown fox jumps over the sleepy dog.\n");

    Object tree(ObjectType::tree,
                toBytes("100644 a" + std::string(1, '\0') + std::string(20, 'z')));
    EXPECT_EQ(apply(tree, DeltaWriter(29, 29).copy(0, 29).delta(tree)), tree);  // keeps the type

    // Sizes of several bytes, and a result many times the base.
    auto big = patternBlob(300);
    DeltaWriter repeated(300, 20000);
    for (int i = 0; i < 100; ++i)
        repeated.copy(100, 200);
    auto many = apply(big, repeated.delta(big));
    EXPECT_EQ(Bytes(many.data().end() - 200, many.data().end()), slice(big, 100, 200));

    // An empty result, both sizes written long: without instructions, yet long enough.
    Object empty(ObjectType::blob, {});
    EXPECT_EQ(apply(empty, RefDelta{empty.id(), {0x80, 0x00, 0x80, 0x00}}).id(),
              "e69de29bb2d1d6434b8b29ae775ad8c2e48c5391");
    EXPECT_EQ(apply(big, RefDelta{big.id(), {0xac, 0x02, 0x80, 0x00}}).data(), Bytes{});
}

TEST(Delta, CopyOperandsByFlag) {
    auto base = patternBlob(0x01000000 + 4);
    auto copy = [&](std::size_t resultSize, std::initializer_list<std::uint8_t> instruction) {
        return apply(base, DeltaWriter(base.data().size(), resultSize).raw(instruction).delta(base))
            .data();
    };
    EXPECT_EQ(copy(0x10000, {0x80}), slice(base, 0, 0x10000));  // no size bytes: 65,536
    EXPECT_EQ(copy(0x10000, {0x81, 0x10}), slice(base, 16, 0x10000));
    EXPECT_EQ(copy(4, {0x98, 0x01, 0x04}), slice(base, 0x01000000, 4));  // offset byte 3 alone
    EXPECT_EQ(copy(0x030201, {0xf7, 0x04, 0x03, 0x02, 0x01, 0x02, 0x03}),
              slice(base, 0x020304, 0x030201));
    EXPECT_EQ(copy(0x10000, {0xff, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01}),
              slice(base, 0x100, 0x10000));
}

TEST(Delta, RefusesMalformedDeltas) {
    auto base = patternBlob(100);
    auto shortBase = patternBlob(65535);
    Object empty(ObjectType::blob, {});
    std::vector<std::pair<std::string, RefDelta>> cases = {
        // Both sizes 0 in their shortest form: too short to be a delta.
        {"two zero sizes", {empty.id(), {0x00, 0x00}}},
        {"two zero sizes, one long", {empty.id(), {0x80, 0x00, 0x00}}},
        {"only two sizes", {base.id(), {0x64, 0x01, 0x41}}},
        {"base too short", DeltaWriter(101, 1).copy(0, 1).delta(base)},
        {"base too long", DeltaWriter(99, 1).copy(0, 1).delta(base)},
        {"copy past the base", DeltaWriter(100, 11).copy(90, 11).delta(base)},
        {"copy from past the base", DeltaWriter(100, 1).raw({0x9f, 1, 1, 1, 1, 1}).delta(base)},
        {"65,536 bytes from a shorter base",
         DeltaWriter(65535, 0x10000).raw({0x80}).delta(shortBase)},
        {"zero opcode", DeltaWriter(100, 2).insert("a").raw({0x00}).insert("b").delta(base)},
        {"short insert", DeltaWriter(100, 5).raw({0x05, 'a', 'b', 'c'}).delta(base)},
        {"copy without its offset", DeltaWriter(100, 4).raw({0x91}).delta(base)},
        {"copy without its size", DeltaWriter(100, 4).raw({0x91, 0x02}).delta(base)},
        {"result too short", DeltaWriter(100, 11).copy(0, 10).delta(base)},
        {"result too long", DeltaWriter(100, 9).copy(0, 10).delta(base)},
        {"no instructions", {base.id(), {0xe4, 0x00, 0xe4, 0x00}}},  // sizes 100, written long
        // Hostile sizes end in the error, not in a huge allocation.
        {"a terabyte", DeltaWriter(100, std::uint64_t{1} << 40).copy(0, 100).delta(base)},
        {"just under 4 GiB", DeltaWriter(100, 0xffffffff).copy(0, 100).delta(base)},
        // Twelve size bytes: the bits past the 64th are dropped.
        {"past 64 bits",
         {base.id(),
          {0x64, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}}},
    };
    for (const auto& [what, delta] : cases) {
        const Object& against = delta.source == base.id()        ? base
                                : delta.source == shortBase.id() ? shortBase
                                                                 : empty;
        EXPECT_EQ(testing::errorMessage([&] { apply(against, delta); }), "Invalid ref_delta")
            << what;
    }
}

Bytes textOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

TEST(DeltaEncoder, RebuildsTheTargetAndStaysSmallForLikeData) {
    auto base = patternBlob(300000);
    auto edited = base.data();
    // An insert in the middle, a removal, a replaced run, and bytes past the old end.
    edited.insert(edited.begin() + 1000, 37, 'x');
    edited.erase(edited.begin() + 50000, edited.begin() + 50100);
    std::fill(edited.begin() + 120000, edited.begin() + 120010, std::uint8_t{0});
    edited.insert(edited.end(), 300, 'y');
    Bytes reordered(base.data().begin() + 150000, base.data().end());
    reordered.insert(reordered.end(), base.data().begin(), base.data().begin() + 150000);
    struct Case {
        const char* what;
        Bytes target;
        std::size_t atMost;  // bytes the delta may take
    };
    std::vector<Case> cases = {
        {"the same data", base.data(), 64},
        {"edited", edited, 1000},
        {"halves swapped", reordered, 64},
        {"shorter than a block", textOf("short"), 16},
        // A copy of more than 16 MiB takes two instructions.
        {"a long copy", Bytes(17 << 20, 'z'), 64},
    };
    for (const auto& [what, target, atMost] : cases) {
        const Object& from = std::string_view(what) == "a long copy"
                                 ? Object(ObjectType::blob, Bytes(17 << 20, 'z'))
                                 : base;
        auto delta = encodeDelta(from.data(), target, 1 << 30);
        ASSERT_TRUE(delta) << what;
        EXPECT_LE(delta->size(), atMost) << what;
        EXPECT_EQ(apply(from, {from.id(), *delta}).data(), target) << what;
    }
    // Unlike data makes a delta of all literals, refused at the limit; a base shorter than a
    // block gives none.
    Bytes unlike(5000);
    for (std::size_t i = 0; i < unlike.size(); ++i)
        unlike[i] = static_cast<std::uint8_t>((i * 2654435761u) >> 13);
    EXPECT_FALSE(encodeDelta(base.data(), unlike, 2500));
    auto literal = encodeDelta(base.data(), unlike, 6000);
    ASSERT_TRUE(literal);
    EXPECT_EQ(apply(base, {base.id(), *literal}).data(), unlike);
    EXPECT_FALSE(encodeDelta(textOf("fifteen bytes!!"), textOf("fifteen bytes!!"), 100));
    EXPECT_FALSE(encodeDelta(base.data(), {}, 100));
}

}  // namespace
}  // namespace corvane
