#include "Velto/VTForm.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "Velto/VTAssertion.h"

namespace {

// In ascending order, as everywhere.
constexpr std::array<std::string_view, 4> kAdditionKeys = {VTFormKey::annotations, VTFormKey::extensions,
                                                           VTFormKey::overrider, VTFormKey::overriding};

constexpr std::size_t kNoAddition = kAdditionKeys.size();

std::size_t additionIndex(std::string_view key) {
    return static_cast<std::size_t>(std::find(kAdditionKeys.begin(), kAdditionKeys.end(), key) - kAdditionKeys.begin());
}

std::string textIn(const value::Dictionary& form, std::string_view key) {
    const std::string* text = form.string(key);
    return text != nullptr ? *text : std::string{};
}

}  // namespace

// --- Base

VTForm::Base::Base(const value::Dictionary& form)
    : identifier_{textIn(form, VTFormKey::identifier)},
      version_{textIn(form, VTFormKey::version)},
      uuid_{textIn(form, VTFormKey::uuid)} {
    if (const value::Value* resident = form.find(VTFormKey::systemResident)) systemResident_ = resident->booleanValue();
    if (const value::Value* modified = form.find(VTFormKey::lastModified)) {
        lastModified_ = static_cast<std::int32_t>(std::clamp<std::int64_t>(modified->integerValue().value_or(0),
                                                                           std::numeric_limits<std::int32_t>::min(),
                                                                           std::numeric_limits<std::int32_t>::max()));
    }

    mox::Encoder encoder;
    mox::Encoder::Container entries{};  // never completed: a form's header counts its additions too
    std::size_t gap = 0;
    const auto passGapsBefore = [&](std::string_view key) {
        for (; gap < kAdditions && kAdditionKeys[gap] <= key; ++gap) gaps_[gap] = {encoder.size(), entries.count};
    };
    for (const value::Dictionary::Entry& entry : form) {
        passGapsBefore(entry.key);
        if (additionIndex(entry.key) != kNoAddition) continue;
        encoder.key(entries, entry.key);
        encoder.value(entry.value);
    }
    for (; gap < kAdditions; ++gap) gaps_[gap] = {encoder.size(), entries.count};
    count_ = entries.count;
    entries_.assign(encoder.bytes().begin(), encoder.bytes().end());  // a copy that is exactly as large as needed
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

const std::string& VTForm::identifier() const {
    return base_->identifier_;
}
const std::string& VTForm::version() const {
    return base_->version_;
}
const std::string& VTForm::uuid() const {
    return base_->uuid_;
}
bool VTForm::systemResident() const {
    return base_->systemResident_;
}
std::int32_t VTForm::lastModified() const {
    return base_->lastModified_;
}

value::Dictionary VTForm::dictionary() const {
    mox::Encoder encoder;
    encode(encoder);
    const value::Value whole = mox::View{encoder.bytes().data()}.toValue();
    return *whole.dictionary();
}

void VTForm::encode(mox::Encoder& encoder) const {
    const mox::Bytes entries{base_->entries_};
    mox::Encoder::Container form = encoder.beginDictionary();
    Base::Gap written;
    const auto writeUpTo = [&](const Base::Gap& gap) {
        encoder.spliceEntries(form, entries.subspan(written.offset, gap.offset - written.offset),
                              gap.count - written.count);
        written = gap;
    };
    for (std::size_t i = 0; i < kAdditions; ++i) {
        if (!additions_[i]) continue;
        writeUpTo(base_->gaps_[i]);
        encoder.key(form, kAdditionKeys[i]);
        encoder.value(*additions_[i]);
    }
    writeUpTo({entries.size(), base_->count_});
    encoder.end(form);
}

std::size_t VTForm::encodedSizeHint() const {
    constexpr std::size_t kKeys = 64;
    std::size_t size = base_->entries_.size() + kKeys;
    for (const auto& addition : additions_) size += addition ? mox::encodedSize(*addition) : 0;
    return size;
}
