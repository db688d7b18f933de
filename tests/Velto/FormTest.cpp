#include <algorithm>

#include "Velto/VTAssertion.h"
#include "Velto/VTDaemonClient.h"
#include "Velto/VTPlugInCore.h"
#include "platform/mox/Object.h"
#include "tests/support/RandomValue.h"
#include "tests/support/Words.h"

namespace {

std::shared_ptr<VTPlugInCore> canonicalRecord() {
    support::RandomValue random{3};
    const Dictionary plugIn{{"KXExtensionAttributes", Dictionary{{"KXExtensionVersion", "1.10"}, {"free", random()}}},
                            {"KXExtensionProtocol", "P"}};
    const Dictionary info{{"KXExtension", Dictionary{{"Multiple", Dictionary{{"halvern.a", plugIn}}}}},
                          {"QFBundleInfoPlistURL", "/apps/B.app/PlugIns/A.appex/Info.plist"},
                          {"other", random()}};
    auto record =
        VTPlugInCore::initWithName("halvern.a", "/apps/B.app/PlugIns/A.appex", info, {}, value::Uuid::random());
    record->setOriginalIdentifier("halvern.original");
    record->canonicalize();
    return record;
}

// The forms as a client gets them.
std::vector<Dictionary> sent(const std::vector<VTForm>& forms) {
    const auto message = VTDaemonClient::convertToMox(forms, VTProtocolVersion);
    const auto received = mox::Object::decode(std::vector<std::byte>{**message}, mox::kReplyLimits);
    std::vector<Dictionary> result;
    received->view().message()->forEachElement([&](mox::View form) { result.push_back(*form.toValue().dictionary()); });
    return result;
}

}  // namespace

TEST(Form, CarriesARecordToAnEqualOne) {
    const auto record = canonicalRecord();
    record->setContainingUrl("/apps/B.app");
    record->setOnSystemVolume(true);
    record->setHubProtocolVersion(2);
    record->setLastModified(-1);
    record->setLocalizedName("Ä");
    record->setLocalizedShortName("a");
    record->setLocalizedContainingName("B");
    record->setAnnotations(Dictionary{{"election", 1}, {"when", value::Date{0.5}}});

    const auto form = record->exportForm();
    const auto rebuilt = VTPlugInCore::initWithForm(sent({*form}).front());
    ASSERT_NE(rebuilt, nullptr);
    EXPECT_TRUE(*rebuilt == *record);
    EXPECT_EQ(rebuilt->plugInDictionary(), record->plugInDictionary());
    EXPECT_EQ(rebuilt->annotations(), record->annotations());
    EXPECT_EQ(rebuilt->localizedName() + rebuilt->localizedShortName() + rebuilt->localizedContainingName(), "ÄaB");
    EXPECT_EQ(rebuilt->exportForm()->dictionary(), form->dictionary());
    EXPECT_FALSE(rebuilt->bundleInfoDictionary().contains("QFBundleInfoPlistURL"));
    EXPECT_TRUE(record->bundleInfoDictionary().contains("QFBundleInfoPlistURL"));
}

TEST(Form, HoldsElevenKeysWhenNothingElseIsKnown) {
    std::string keys;
    const Dictionary form = canonicalRecord()->exportForm()->dictionary();
    for (const Dictionary::Entry& entry : form) keys += entry.key + ' ';
    EXPECT_EQ(keys,
              "annotations bundleInfo hubProtocolVersion identifier info lastmodified original-identifier path "
              "systemResident uuid version ");
}

TEST(Form, IsEncodedOnceUntilTheRecordChanges) {
    const auto record = canonicalRecord();
    const auto base = [&] { return record->exportForm()->base(); };
    const std::function<void()> changes[] = {
        [&] { record->setPlugInDictionary(record->plugInDictionary().changing("new", 1)); },
        [&] { record->setContainingUrl("/apps/C.app"); },
        [&] { record->setLastModified(7); },
        [&] { record->setLocalizedName("named"); },
        [&] { record->setHubProtocolVersion(9); },
        [&] { record->setOriginalIdentifier("new"); },
        [&] { record->setOnSystemVolume(true); },
        [&] { record->setUrl("/moved"); },
    };
    for (const auto& change : changes) {
        const auto before = base();
        EXPECT_EQ(base(), before);
        change();
        EXPECT_NE(base(), before);
    }
    const auto before = base();
    record->setAnnotations(Dictionary{{"election", 2}});
    EXPECT_EQ(base(), before);
    EXPECT_EQ(*record->exportForm()->dictionary().dictionary("annotations"), (Dictionary{{"election", 2}}));
    EXPECT_EQ(record->exportForm()->lastModified(), 7);
}

TEST(Form, EveryMixOfAdditionsIsEncodedLikeTheWholeDictionary) {
    const Dictionary base{{"aa", 1}, {"f", Array{true}}, {"identifier", "i"}, {"overrides", "x"}, {"z", 2.5}};
    const char* const additions[] = {"annotations", "extensions", "overrider", "overriding"};
    std::vector<VTForm> forms;
    std::vector<Dictionary> expected;
    for (unsigned mix = 0; mix < 16; ++mix) {
        Dictionary whole = base;
        VTForm form{base};
        for (unsigned i = 0; i < 4; ++i) {
            if ((mix >> i & 1) == 0) continue;
            form.set(additions[i], "replaced");
            form.set(additions[i], i);
            whole = whole.changing(additions[i], i);
        }
        mox::Encoder one;
        mox::Encoder other;
        form.encode(one);
        other.value(whole);
        EXPECT_TRUE(std::ranges::equal(one.bytes(), other.bytes())) << mix;
        EXPECT_EQ(VTForm{whole}.dictionary(), whole);
        forms.push_back(form);
        expected.push_back(whole);
    }
    EXPECT_EQ(sent(forms), expected);
    EXPECT_EQ(VTDaemonClient::convertToMox(forms, 2), std::nullopt);
    EXPECT_THROW(forms.front().set("identifier", "other"), VTInternalInconsistency);
}

TEST(Form, RebuildReadsWhatIsThereAndForgivesTheRest) {
    const Dictionary least{
        {"path", "/p"}, {"identifier", "a"}, {"bundleInfo", Dictionary{{"KXExtension", Dictionary{}}}}};
    const auto rebuilt = [&](const char* key, std::optional<Value> value) {
        return VTPlugInCore::initWithForm(least.changing(key, std::move(value)));
    };
    const auto bare = VTPlugInCore::initWithForm(least);
    EXPECT_EQ(bare->hubProtocolVersion(), 1U);
    EXPECT_EQ(bare->annotations(), std::nullopt);
    EXPECT_EQ(bare->containingUrl(), std::nullopt);
    EXPECT_EQ(bare->cdhash(), std::nullopt);
    EXPECT_FALSE(*bare == *VTPlugInCore::initWithForm(least));

    EXPECT_EQ(rebuilt("hubProtocolVersion", 0)->hubProtocolVersion(), 0U);
    EXPECT_EQ(rebuilt("hubProtocolVersion", Array{})->hubProtocolVersion(), 0U);
    EXPECT_EQ(rebuilt("lastmodified", 1e18)->lastModified(), 2147483647);
    EXPECT_TRUE(rebuilt("systemResident", 1)->onSystemVolume());
    EXPECT_EQ(rebuilt("hash", value::Data{std::byte{1}})->cdhash(), value::Data{std::byte{1}});
    EXPECT_EQ(rebuilt("requirement", "any")->requirement(), "any");
    EXPECT_NE(rebuilt("uuid", "not one"), nullptr);
    EXPECT_EQ(rebuilt("annotations", 1)->annotations(), std::nullopt);
    EXPECT_EQ(rebuilt("path", {}), nullptr);
    EXPECT_EQ(rebuilt("identifier", 1), nullptr);
    EXPECT_EQ(rebuilt("bundleInfo", Array{}), nullptr);

    bare->updateFromForm({{"annotations", Dictionary{{"election", 1}}}, {"identifier", "b"}});
    EXPECT_EQ(bare->annotations(), (Dictionary{{"election", 1}}));
    EXPECT_EQ(bare->identifier(), "a");
    bare->updateFromForm({});
    EXPECT_EQ(bare->annotations(), std::nullopt);
}
