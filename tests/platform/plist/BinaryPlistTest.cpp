#include "platform/text/Format.h"
#include "tests/platform/plist/Checks.h"
#include "tests/support/Hex.h"

namespace plist {
namespace {

std::string bytesOf(std::string_view hex) {
    const auto bytes = support::fromHex(hex);
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::string bigEndian(std::uint64_t number, int size) {
    std::string bytes;
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
        bytes += static_cast<char>(shift < 64 ? number >> shift : 0);
    return bytes;
}

struct Trailer {
    std::uint8_t offsetSize = 2, referenceSize = 1;
    std::optional<std::uint64_t> objects = {}, table = {};
    std::uint64_t root = 0;
};

// A list of objects given in hex; the first is the root.
std::string list(const std::vector<std::string>& objects, const Trailer& trailer = {}) {
    std::string bytes = "bplist00", table;
    for (const std::string& hex : objects) {
        table += bigEndian(bytes.size(), trailer.offsetSize);
        bytes += bytesOf(hex);
    }
    const std::uint64_t tableOffset = bytes.size();
    return bytes + table + bytesOf("00 00 00 00 00 00") + bigEndian(trailer.offsetSize, 1) +
           bigEndian(trailer.referenceSize, 1) + bigEndian(trailer.objects.value_or(objects.size()), 8) +
           bigEndian(trailer.root, 8) + bigEndian(trailer.table.value_or(tableOffset), 8);
}

TEST(BinaryPlist, ReadsEveryKindOfValue) {
    const struct {
        std::vector<std::string> objects;
        Value value;
    } rows[] = {
        {{"08"}, false},
        {{"09"}, true},
        {{"10 ff"}, 255},
        {{"11 ff ff"}, 65535},
        {{"12 ff ff ff ff"}, 4294967295L},
        {{"13 ff ff ff ff ff ff ff fe"}, -2},
        {{"14 00 00 00 00 00 00 00 00 ff ff ff ff ff ff ff ff"}, std::numeric_limits<std::uint64_t>::max()},
        {{"14 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 07"}, 7},
        {{"14 ff ff ff ff ff ff ff ff 80 00 00 00 00 00 00 00"}, std::numeric_limits<std::int64_t>::min()},
        {{"22 3f c0 00 00"}, 1.5},
        {{"23 c0 04 00 00 00 00 00 00"}, -2.5},
        {{"33 bf f8 00 00 00 00 00 00"}, value::Date{978307198.5}},
        {{"40"}, value::Data{}},
        {{"42 01 ff"}, value::Data{std::byte{1}, std::byte{255}}},
        {{"50"}, ""},
        {{"5f 10 03 61 62 63"}, "abc"},
        {{"65 00 41 00 e9 20 ac d8 3d de 00"}, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {{"a3 01 02 01", "09", "a0"}, Array{true, Array{}, true}},
        {{"d2 02 01 03 04", "51 61", "61 00 62", "10 05", "d0"}, Dictionary{{"a", Dictionary{}}, {"b", 5}}},
    };
    for (const auto& row : rows) expectValue(read(list(row.objects)), row.value, row.objects[0]);
    EXPECT_EQ(*read(list({"09", "a1 00 00 00", "a1 00 00 00"}, {.offsetSize = 8, .referenceSize = 3, .root = 2})),
              (Array{true}));
}

TEST(BinaryPlist, RefusesWhatIsBrokenOrNotRead) {
    const struct {
        const char* message;
        Texts lists;
    } rows[] = {
        {"cut short", {"bplist00"}},
        {"another version", {"bplist15" + list({"09"}).substr(8)}},
        {"impossible size",
         {list({"09"}, {.offsetSize = 0}), list({"09"}, {.offsetSize = 9}), list({"09"}, {.referenceSize = 0}),
          list({"15 00"}), list({"21 00 00"}), list({"32 00 00 00 00"})}},
        {"no such root", {list({"09"}, {.objects = 0}), list({"09"}, {.root = 1})}},
        {"offset table outside",
         {list({"09"}, {.objects = 2}), list({"09"}, {.objects = 1ULL << 63}), list({"09"}, {.table = 7}),
          list({"09"}, {.table = ~0ULL})}},
        {"object 0 at byte 2304: outside", {list({"09"}, {.table = 8})}},  // the object itself taken for its offset
        {"a null", {list({"00"}), list({"0f"})}},
        {"no point in time", {list({"33 7f f0 00 00 00 00 00 00"})}},
        {"beyond 64 bits",
         {list({"14 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00"}),
          list({"14 ff ff ff ff ff ff ff ff 7f ff ff ff ff ff ff ff"})}},
        {"a length that is none", {list({"5f"}), list({"5f 51 61"}), list({"5f 14 00"})}},
        {"ends outside",
         {list({"13 00"}), list({"5f 13 ff ff ff ff ff ff ff ff 61"}), list({"52 61"}),
          list({"af 13 40 00 00 00 00 00 00 00 00"}, {.referenceSize = 4}),
          list({"df 13 80 00 00 00 00 00 00 00 00"})}},
        {"no ASCII", {list({"51 e9"})}},
        {"no UTF-16", {list({"61 d8 00"}), list({"62 d8 00 00 41"}), list({"61 dc 00"})}},
        {"not read", {list({"71 61"}), list({"80 01"}), list({"b0"}), list({"c0"})}},
        {"object 0 at byte 8: a reference to object 1", {list({"a1 01"})}},
        {"inside itself", {list({"a1 00"}), list({"a1 01", "d1 02 00", "51 61"})}},
        {"object 1 at byte 11: a key that is no text", {list({"d1 01 01", "10 05"})}},
        {"a key stands twice", {list({"d2 01 02 01 01", "51 61", "61 00 61"})}},
    };
    for (const auto& row : rows) {
        for (const std::string& bytes : row.lists) expectRefusal(readBinary(bytes), ErrorCode::malformed, row.message);
    }
}

TEST(BinaryPlist, CountsWhatIsSharedEachTimeItIsUsed) {
    // Twenty arrays, each of two references to the next, stand for a million values.
    std::vector<std::string> objects;
    for (int i = 1; i <= 20; ++i) objects.push_back(text::format("a2 {0:02x} {0:02x}", i));
    objects.emplace_back("5f 10 20 " + std::string(64, '4'));
    const std::pair<Limits, Texts> rows[] = {
        {{.values = 100'000}, objects},
        {{.bytes = 4096}, objects},  // thirty-two bytes of text, a hundred and some times
        {{.depth = 19}, objects},
        {{.bytes = 40}, {"09"}},
    };
    for (const auto& [limits, shared] : rows)
        expectRefusal(readBinary(list(shared), limits), ErrorCode::beyondLimits, "");
}

}  // namespace
}  // namespace plist
