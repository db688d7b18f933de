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

std::size_t additionIndex(std::string_view key) {
    return static_cast<std::size_t>(std::find(kAdditionKeys.begin(), kAdditionKeys.end(), key) - kAdditionKeys.begin());
}

// At least what the value needs on the wire, and not much more.
std::size_t sizeHint(const value::Value& value) {
    constexpr std::size_t kEach = 17;  // a tag with a UUID
    std::size_t size = kEach;
    if (const std::string* text = value.string()) {
        size += text->size();
    } else if (const value::Dictionary* dictionary = value.dictionary()) {
        for (const auto& [key, entry] : *dictionary) size += kEach + key.size() + sizeHint(entry);
    } else if (const value::Array* array = value.array()) {
        for (const value::Value& element : *array) size += sizeHint(element);
    } else if (const auto* data = value.data()) {
        size += data->size();
    }
    return size;
}

}  // namespace

// --- Base

VTForm::Base::Base(const value::Dictionary& form)
    : identifier_{textIn(form, VTFormKey::identifier)},
      version_{textIn(form, VTFormKey::version)},
      uuid_{textIn(form, VTFormKey::uuid)} {
    if (const value::Value* resident = form.find(VTFormKey::systemResident)) systemResident_ = resident->booleanValue();
    lastModified_ = numberIn<std::int32_t>(form, VTFormKey::lastModified).value_or(lastModified_);

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
    for (const auto& addition : additions_) size += addition ? sizeHint(*addition) : 0;
    return size;
}
