#include "Velto/VTRecordImage.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>
#include <utility>

#include "Velto/VTPlugInCore.h"
#include "platform/mox/Object.h"

// Layout: the header, the places of all entries (list after list, each in ascending order of the keys), the base.
// Places count from the start of the base, texts too.

namespace {

constexpr std::size_t kTexts = 8;
constexpr std::size_t kLists = 3;
constexpr std::size_t kMostBytes = std::size_t{1} << 20;  // of an image; larger records are built from their files
constexpr std::uint32_t kMagic = 0x56544931;

using Place = std::uint32_t;
using LayoutText = VTForm::Base::Layout::Text;

struct Entry {
    std::string_view key;
    mox::View value;
};

// The entry whose key's length lies here.
Entry entryAt(const std::byte* at) {
    const auto size = mox::encoding::load<std::uint32_t>(at);
    const std::byte* const text = at + mox::encoding::kLengthSize;
    return {{reinterpret_cast<const char*>(text), size}, mox::View{text + size}};
}

}  // namespace

struct VTRecordImage::Header {
    struct Range {
        std::uint32_t first = 0;
        std::uint32_t count = 0;
    };

    std::uint32_t magic = kMagic;
    std::uint32_t placeCount = 0;
    std::uint32_t baseSize = 0;
    std::uint32_t hubProtocolVersion = 0;
    std::uint32_t bundleInfo = 0;  // where its value lies
    std::uint32_t plugIn = 0;      // likewise
    VTForm::Base::Layout form;
    std::array<LayoutText, kTexts> texts;
    std::array<Range, kLists> lists;
};

namespace {

// The dictionary under a key of another; nothing when there is none.
std::optional<mox::View> dictionaryIn(std::optional<mox::View> dictionary, std::string_view key) {
    const auto found = dictionary ? dictionary->find(key) : std::nullopt;
    return found && found->isDictionary() ? found : std::nullopt;
}

}  // namespace

std::optional<std::vector<std::byte>> VTRecordImage::compile(const VTPlugInCore& record) {
    static_assert(std::is_trivially_copyable_v<Header>);
    if (record.annotations()) return {};
    const auto form = record.exportForm();
    if (!form) return {};
    const VTForm::Base& base = *form->base();
    const mox::View whole = base.view();

    const auto info = dictionaryIn(whole, VTFormKey::bundleInfo);
    const auto plugIn = dictionaryIn(whole, VTFormKey::info);
    if (!info || !plugIn || base.encoded().size() > kMostBytes) return {};
    // What a record set up from the image would derive from it must be what this one says.
    if (info->toValue() != value::Value{record.bundleInfoDictionary()}) return {};
    if (record.url() != record.path() || (record.containingUrl() && record.containingUrl()->empty())) return {};

    Header header;
    header.form = base.layout();
    header.baseSize = static_cast<std::uint32_t>(base.encoded().size());
    header.hubProtocolVersion = record.hubProtocolVersion();
    const auto placeOf = [&](const std::byte* at) { return static_cast<Place>(at - base.encoded().data()); };
    header.bundleInfo = placeOf(info->bytes());
    header.plugIn = placeOf(plugIn->bytes());
    const std::array<std::string_view, kTexts> keys{VTFormKey::identifier,
                                                    VTFormKey::originalIdentifier,
                                                    VTFormKey::path,
                                                    VTFormKey::containingPath,
                                                    VTFormKey::version,
                                                    VTFormKey::localizedName,
                                                    VTFormKey::localizedShortName,
                                                    VTFormKey::localizedContainingName};
    for (std::size_t i = 0; i < kTexts; ++i) {
        const auto value = whole.find(keys[i]);
        const auto text = value ? value->string() : std::nullopt;
        if (!text) continue;
        header.texts[i] = {placeOf(reinterpret_cast<const std::byte*>(text->data())),
                           static_cast<std::uint32_t>(text->size())};
    }

    std::vector<Place> places;
    const std::array<std::optional<mox::View>, kLists> lists{info, plugIn, dictionaryIn(plugIn, VTInfoKey::attributes)};
    for (std::size_t i = 0; i < kLists; ++i) {
        header.lists[i].first = static_cast<std::uint32_t>(places.size());
        if (!lists[i]) continue;
        lists[i]->forEachEntry([&](std::string_view key, mox::View) {
            places.push_back(placeOf(reinterpret_cast<const std::byte*>(key.data()) - mox::encoding::kLengthSize));
        });
        header.lists[i].count = static_cast<std::uint32_t>(places.size()) - header.lists[i].first;
    }
    header.placeCount = static_cast<std::uint32_t>(places.size());

    std::vector<std::byte> image(sizeof header + places.size() * sizeof(Place) + base.encoded().size());
    std::byte* at = image.data();
    std::memcpy(at, &header, sizeof header);
    at += sizeof header;
    if (!places.empty()) std::memcpy(at, places.data(), places.size() * sizeof(Place));
    at += places.size() * sizeof(Place);
    std::memcpy(at, base.encoded().data(), base.encoded().size());
    return image;
}

bool VTRecordImage::check(mox::Bytes bytes) {
    if (bytes.size() < sizeof(Header) || reinterpret_cast<std::uintptr_t>(bytes.data()) % alignof(Header) != 0) {
        return false;
    }
    Header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    const std::size_t left = bytes.size() - sizeof header;
    if (header.magic != kMagic || header.placeCount > left / sizeof(Place) ||
        header.baseSize != left - header.placeCount * sizeof(Place) || header.baseSize > kMostBytes) {
        return false;
    }
    const mox::Bytes base = bytes.last(header.baseSize);
    if (mox::check(base, {kMostBytes, mox::kReplyLimits.depth, kMostBytes})) return false;
    const mox::View whole{base.data()};
    if (!whole.isDictionary()) return false;

    // Whoever reads in place trusts every offset: each must be what the encoded base itself says.
    const auto isText = [&](LayoutText text) {
        return text.offset <= base.size() && text.size <= base.size() - text.offset;
    };
    if (!isText(header.form.identifier) || !isText(header.form.version) || !isText(header.form.uuid)) return false;
    if (!std::all_of(header.texts.begin(), header.texts.end(), isText)) return false;

    std::uint32_t before = mox::encoding::kContainerHeader;
    std::size_t counted = 0;
    std::size_t gap = 0;
    const auto passGaps = [&](std::uint32_t offset) {
        while (gap < header.form.gaps.size() && header.form.gaps[gap].offset == offset) {
            if (header.form.gaps[gap].count != counted) return false;
            ++gap;
        }
        return true;
    };
    const bool gapsAreBetween = whole.forEachEntry([&](std::string_view, mox::View value) {
        if (!passGaps(before)) return false;
        before = static_cast<std::uint32_t>(value.bytes() + value.size() - base.data());
        ++counted;
        return true;
    });
    if (!gapsAreBetween || !passGaps(before) || gap != header.form.gaps.size()) return false;

    const auto info = dictionaryIn(whole, VTFormKey::bundleInfo);
    const auto plugIn = dictionaryIn(whole, VTFormKey::info);
    if (!info || !plugIn || base.data() + header.bundleInfo != info->bytes() ||
        base.data() + header.plugIn != plugIn->bytes()) {
        return false;
    }
    const std::array<std::optional<mox::View>, kLists> lists{info, plugIn, dictionaryIn(plugIn, VTInfoKey::attributes)};
    const std::byte* place = bytes.data() + sizeof header;
    std::uint32_t first = 0;
    for (std::size_t i = 0; i < kLists; ++i) {
        const Header::Range& list = header.lists[i];
        const std::size_t count = lists[i] ? lists[i]->count() : 0;
        if (list.first != first || list.count != count || list.count > header.placeCount - first) return false;
        first += list.count;
        if (!lists[i]) continue;
        std::string_view last;
        bool isFirst = true;
        const bool arePlaces = lists[i]->forEachEntry([&](std::string_view key, mox::View) {
            const auto offset =
                reinterpret_cast<const std::byte*>(key.data()) - mox::encoding::kLengthSize - base.data();
            const bool ascends = isFirst || last < key;
            isFirst = false;
            last = key;
            const bool isIt = mox::encoding::load<Place>(place) == static_cast<Place>(offset);
            place += sizeof(Place);
            return ascends && isIt;
        });
        if (!arePlaces) return false;
    }
    return first == header.placeCount;
}

VTRecordImage::VTRecordImage(mox::Bytes bytes, std::shared_ptr<const void> owner) : bytes_{bytes.data()} {
    base_ = std::make_shared<const VTForm::Base>(header().form, bytes.last(header().baseSize), std::move(owner));
}

const VTRecordImage::Header& VTRecordImage::header() const {
    return *reinterpret_cast<const Header*>(bytes_);  // aligned, as check() has seen; of plain numbers
}

std::uint32_t VTRecordImage::hubProtocolVersion() const {
    return header().hubProtocolVersion;
}

mox::View VTRecordImage::bundleInfo() const {
    return mox::View{base_->encoded().data() + header().bundleInfo};
}

mox::View VTRecordImage::plugIn() const {
    return mox::View{base_->encoded().data() + header().plugIn};
}

std::string_view VTRecordImage::text(Text which) const {
    const LayoutText& text = header().texts[static_cast<std::size_t>(which)];
    return {reinterpret_cast<const char*>(base_->encoded().data()) + text.offset, text.size};
}

std::optional<mox::View> VTRecordImage::find(List which, std::string_view key) const {
    const Header::Range& list = header().lists[static_cast<std::size_t>(which)];
    const std::byte* const places = bytes_ + sizeof(Header) + list.first * sizeof(Place);
    const auto entry = [&](std::uint32_t index) {
        return entryAt(base_->encoded().data() + mox::encoding::load<Place>(places + index * sizeof(Place)));
    };
    std::uint32_t low = 0;
    std::uint32_t high = list.count;
    while (low < high) {
        const std::uint32_t middle = low + (high - low) / 2;
        const Entry at = entry(middle);
        if (at.key == key) return at.value;
        if (at.key < key) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return {};
}
