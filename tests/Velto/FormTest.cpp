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
    EXPECT_EQ(rebuilt->localizedName() + rebuilt->localizedShortName() + rebuilt->localizedContainingName(), "ÄaB");
    EXPECT_EQ(rebuilt->exportForm()->dictionary(), form->dictionary());
    EXPECT_FALSE(rebuilt->bundleInfoDictionary().contains("QFBundleInfoPlistURL"));
    EXPECT_TRUE(record->bundleInfoDictionary().contains("QFBundleInfoPlistURL"));
}

TEST(Form, IsEncodedOnceUntilTheRecordChanges) {
    const auto record = canonicalRecord();
    EXPECT_EQ(record->exportForm()->dictionary().size(), 11U) << "without the keys of what is not known";
    const auto base = [&] { return record->exportForm()->base(); };
    const std::function<void()> changes[] = {
        [&] { record->setPlugInDictionary(record->plugInDictionary().changing("new", 1)); },
        [&] { record->setContainingUrl("/apps/C.app"); },
        [&] { record->setLocalizedName("named"); },
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
        forms.push_back(form);
        expected.push_back(whole);
    }
    EXPECT_EQ(sent(forms), expected);
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
    EXPECT_FALSE(bare->annotations() || bare->containingUrl() || bare->cdhash());
    EXPECT_FALSE(*bare == *VTPlugInCore::initWithForm(least));

    EXPECT_EQ(rebuilt("lastmodified", 1e18)->lastModified(), 2147483647);
    EXPECT_EQ(rebuilt("hash", value::Data{std::byte{1}})->cdhash(), value::Data{std::byte{1}});
    EXPECT_NE(rebuilt("uuid", "not one"), nullptr);
    EXPECT_EQ(rebuilt("annotations", 1)->annotations(), std::nullopt);
    EXPECT_FALSE(rebuilt("path", {}) || rebuilt("identifier", 1) || rebuilt("bundleInfo", Array{}));

    bare->updateFromForm({{"annotations", Dictionary{{"other", 2}}}, {"identifier", "b"}});
    bare->setAnnotation("election", 1);
    bare->setAnnotation("other", {});
    EXPECT_EQ(bare->annotations(), (Dictionary{{"election", 1}}));
    EXPECT_EQ(bare->identifier(), "a");
    bare->updateFromForm({});
    bare->setAnnotation("election", 1);
    EXPECT_EQ(bare->annotations(), std::nullopt);
}
