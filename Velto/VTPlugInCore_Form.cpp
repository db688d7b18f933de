// How a record becomes a form, and a form a record.

#include <utility>

#include "Velto/VTPlugInCore.h"
#include "Velto/VTValueHelpers.h"

// Display names can change behind the record's back, as soon as the registry has an answer that it did not have before:
// they are part of what a kept form is good for.
struct VTPlugInCore::ExportedForm {
    std::uint64_t changes;
    std::string localizedName;
    std::string localizedShortName;
    std::string localizedContainingName;
    std::shared_ptr<const VTForm::Base> base;
};

namespace {

std::optional<std::string> textOrNone(const value::Dictionary& form, std::string_view key) {
    const std::string* text = form.string(key);
    return text != nullptr ? std::optional{*text} : std::nullopt;
}

std::optional<value::Dictionary> dictionaryIn(const value::Dictionary& form, std::string_view key) {
    const value::Dictionary* dictionary = form.dictionary(key);
    return dictionary != nullptr ? std::optional{*dictionary} : std::nullopt;
}

void setUnlessEmpty(value::Dictionary::Builder& form, std::string_view key, std::string text) {
    if (!text.empty()) form.set(key, std::move(text));
}

}  // namespace

std::optional<VTForm> VTPlugInCore::exportForm(std::optional<value::Error>* /*error*/) const {
    // As long as nothing was set, the image is the form.
    if (own_.load(std::memory_order_acquire) == 0) {
        return VTForm{image_->base(), annotations().value_or(value::Dictionary{})};
    }

    // The count is read first: a change during the export then leaves a kept form that is good for nothing.
    const std::uint64_t changes = changes_.load(std::memory_order_acquire);
    std::string name = localizedName();
    std::string shortName = localizedShortName();
    std::string containingName = localizedContainingName();
    value::Dictionary annotated = annotations().value_or(value::Dictionary{});

    if (const auto kept = exportedForm_.load(); kept && kept->changes == changes && kept->localizedName == name &&
                                                kept->localizedShortName == shortName &&
                                                kept->localizedContainingName == containingName) {
        return VTForm{kept->base, std::move(annotated)};
    }

    value::Dictionary::Builder form;
    form.set(VTFormKey::bundleInfo, dictionaryChanging(bundleInfoDictionary(), VTInfoKey::infoPlistURL, std::nullopt));
    setUnlessEmpty(form, VTFormKey::containingPath, containingPath());
    form.set(VTFormKey::hubProtocolVersion, hubProtocolVersion());
    form.set(VTFormKey::identifier, identifier());
    form.set(VTFormKey::info, plugInDictionary());
    form.set(VTFormKey::lastModified, lastModified());
    setUnlessEmpty(form, VTFormKey::localizedContainingName, containingName);
    setUnlessEmpty(form, VTFormKey::localizedName, name);
    setUnlessEmpty(form, VTFormKey::localizedShortName, shortName);
    form.set(VTFormKey::originalIdentifier, originalIdentifier());
    form.set(VTFormKey::path, path());
    form.set(VTFormKey::systemResident, onSystemVolume());
    form.set(VTFormKey::uuid, uuid().string());
    form.set(VTFormKey::version, version());

    auto base = std::make_shared<const VTForm::Base>(std::move(form).build());
    exportedForm_.store(std::make_shared<const ExportedForm>(
        ExportedForm{changes, std::move(name), std::move(shortName), std::move(containingName), base}));
    return VTForm{std::move(base), std::move(annotated)};
}

std::shared_ptr<VTPlugInCore> VTPlugInCore::initWithForm(const value::Dictionary& form) {
    auto plugIn = std::make_shared<VTPlugInCore>();
    return plugIn->setupWithForm(form) ? plugIn : nullptr;
}

bool VTPlugInCore::setupWithForm(const value::Dictionary& form) {
    const std::optional<std::string> id = textOrNone(form, VTFormKey::uuid);
    const value::Value* const bundleInfo = form.find(VTFormKey::bundleInfo);
    if (!setupWithName(textOrNone(form, VTFormKey::identifier), textOrNone(form, VTFormKey::path),
                       bundleInfo != nullptr ? std::optional{*bundleInfo} : std::nullopt,
                       dictionaryIn(form, VTFormKey::info), id ? value::Uuid::parse(*id) : std::nullopt)) {
        return false;
    }
    const bool saysVersion = form.contains(VTFormKey::hubProtocolVersion);
    setHubProtocolVersion(saysVersion ? numberIn<std::uint32_t>(form, VTFormKey::hubProtocolVersion).value_or(0) : 1);
    setOriginalIdentifier(textIn(form, VTFormKey::originalIdentifier));
    const value::Value* hash = form.find(VTFormKey::hash);
    setCdhash(hash != nullptr && hash->data() != nullptr ? std::optional{*hash->data()} : std::nullopt);
    setRequirement(textIn(form, VTFormKey::requirement));
    setLastModified(numberIn<std::int32_t>(form, VTFormKey::lastModified).value_or(0));
    setContainingUrl(textOrNone(form, VTFormKey::containingPath));
    const value::Value* resident = form.find(VTFormKey::systemResident);
    setOnSystemVolume(resident != nullptr && resident->booleanValue());
    setAnnotations(dictionaryIn(form, VTFormKey::annotations));
    setLocalizedName(textIn(form, VTFormKey::localizedName));
    setLocalizedShortName(textIn(form, VTFormKey::localizedShortName));
    setLocalizedContainingName(textIn(form, VTFormKey::localizedContainingName));
    return true;
}

void VTPlugInCore::updateFromForm(const value::Dictionary& form) {
    setAnnotations(dictionaryIn(form, VTFormKey::annotations));
}
