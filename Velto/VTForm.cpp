#include "Velto/VTForm.h"

#include <algorithm>
#include <utility>

#include "Velto/VTAssertion.h"
#include "Velto/VTValueHelpers.h"

namespace {

// In ascending order, as everywhere.
constexpr std::array<std::string_view, 4> kAdditionKeys = {VTFormKey::annotations, VTFormKey::extensions,
                                                           VTFormKey::overrider, VTFormKey::overriding};

constexpr std::size_t kNoAddition = kAdditionKeys.size();
constexpr std::string_view kAfterAllAdditions = kAdditionKeys.back();

std::size_t additionIndex(std::string_view key) {
    return static_cast<std::size_t>(std::find(kAdditionKeys.begin(), kAdditionKeys.end(), key) - kAdditionKeys.begin());
}

// Where the text lies in the bytes; nothing of another kind.
VTForm::Base::Layout::Text textAt(mox::Bytes encoded, mox::View value) {
    const auto text = value.string();
    if (!text) return {};
    const auto* const at = reinterpret_cast<const std::byte*>(text->data());
    return {static_cast<std::uint32_t>(at - encoded.data()), static_cast<std::uint32_t>(text->size())};
}

}  // namespace

// --- Base

VTForm::Base::Base(const value::Dictionary& form) {
    mox::Encoder encoder;
    mox::Encoder::Container entries = encoder.beginDictionary();
    std::size_t gap = 0;
    const auto passGapsBefore = [&](std::string_view key) {
        for (; gap < kAdditions && kAdditionKeys[gap] <= key; ++gap) {
            layout_.gaps[gap] = {static_cast<std::uint32_t>(encoder.size()), static_cast<std::uint32_t>(entries.count)};
        }
    };
    for (const value::Dictionary::Entry& entry : form) {
        passGapsBefore(entry.key);
        if (additionIndex(entry.key) != kNoAddition) continue;
        encoder.key(entries, entry.key);
        encoder.value(entry.value);
    }
    passGapsBefore(kAfterAllAdditions);
    encoder.end(entries);

    const auto kept = std::make_shared<const std::vector<std::byte>>(encoder.bytes().begin(), encoder.bytes().end());
    encoded_ = *kept;  // a copy that is exactly as large as needed
    owner_ = kept;

    view().forEachEntry([&](std::string_view key, mox::View value) {
        if (key == VTFormKey::identifier) layout_.identifier = textAt(encoded_, value);
        if (key == VTFormKey::version) layout_.version = textAt(encoded_, value);
        if (key == VTFormKey::uuid) layout_.uuid = textAt(encoded_, value);
    });
    if (const value::Value* resident = form.find(VTFormKey::systemResident)) {
        layout_.systemResident = resident->booleanValue() ? 1 : 0;
    }
    layout_.lastModified = numberIn<std::int32_t>(form, VTFormKey::lastModified).value_or(layout_.lastModified);
}

// --- Form

VTForm::VTForm(const value::Dictionary& form) : base_{std::make_shared<const Base>(form)} {
    for (std::size_t i = 0; i < kAdditions; ++i) {
        if (const value::Value* found = form.find(kAdditionKeys[i])) additions_[i] = *found;
    }
}

VTForm::VTForm(std::shared_ptr<const Base> base, value::Dictionary annotations) : base_{std::move(base)} {
    set(VTFormKey::annotations, std::move(annotations));
}

void VTForm::set(std::string_view key, value::Value value) {
    const std::size_t index = additionIndex(key);
    if (index == kNoAddition) VTAssertionFailure("the key is not one that a form adds", "Velto/VTForm");
    additions_[index] = std::move(value);
}

std::string_view VTForm::identifier() const {
    return base_->text(base_->layout_.identifier);
}
std::string_view VTForm::version() const {
    return base_->text(base_->layout_.version);
}
std::string_view VTForm::uuid() const {
    return base_->text(base_->layout_.uuid);
}
bool VTForm::systemResident() const {
    return base_->layout_.systemResident != 0;
}
std::int32_t VTForm::lastModified() const {
    return base_->layout_.lastModified;
}

value::Dictionary VTForm::dictionary() const {
    mox::Encoder encoder;
    encode(encoder);
    const value::Value whole = mox::View{encoder.bytes().data()}.toValue();
    return *whole.dictionary();
}

void VTForm::encode(mox::Encoder& encoder) const {
    const mox::Bytes base = base_->encoded();
    mox::Encoder::Container form = encoder.beginDictionary();
    std::size_t written = mox::encoding::kContainerHeader;
    std::size_t counted = 0;
    const auto writeUpTo = [&](std::size_t offset, std::size_t count) {
        encoder.spliceEntries(form, base.subspan(written, offset - written), count - counted);
        written = offset;
        counted = count;
    };
    for (std::size_t i = 0; i < kAdditions; ++i) {
        if (!additions_[i]) continue;
        const Base::Layout::Gap& gap = base_->layout().gaps[i];
        writeUpTo(gap.offset, gap.count);
        encoder.key(form, kAdditionKeys[i]);
        encoder.value(*additions_[i]);
    }
    writeUpTo(base.size(), base_->view().count());
    encoder.end(form);
}

std::size_t VTForm::encodedSizeHint() const {
    constexpr std::size_t kKeys = 64;
    std::size_t size = base_->encoded().size() + kKeys;
    for (const auto& addition : additions_) size += addition ? mox::encodedSize(*addition) : 0;
    return size;
}
