#include <functional>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Velto/VTPlugInCore.h"
#include "Velto/VTRecordImage.h"
#include "tests/support/LogLines.h"
#include "tests/support/RandomValue.h"

namespace {

using value::Dictionary;
using value::Value;

// A bundle that an author might make, with odd entries beside those that mean something.
class Bundles {
public:
    explicit Bundles(unsigned seed) : values_{seed}, random_{seed} {}

    Dictionary operator()() {
        Dictionary::Builder plugIn{someEntries()};
        if (flip()) plugIn.set(VTInfoKey::attributes, someEntries());
        if (flip()) plugIn.set(VTInfoKey::protocol, flip() ? Value{"#Data"} : values_());
        if (flip()) plugIn.set(VTInfoKey::dedicated, values_());
        if (flip()) plugIn.set(VTInfoKey::shared, values_());
        Dictionary top = std::move(plugIn).build();
        if (flip()) {
            const Dictionary several{{"the.plugin", top}, {"other", someEntries()}};
            top = Dictionary{{VTInfoKey::multiple, several}, {"x", 1}};
        }
        Dictionary::Builder info{someEntries()};
        info.set("KXExtension", top);
        if (flip()) info.set("QFBundleShortVersionString", values_());
        return std::move(info).build();
    }

private:
    bool flip() { return random_() % 2 == 0; }
    Dictionary someEntries() {
        for (;;) {
            const Value some = values_();
            if (some.dictionary() != nullptr) return *some.dictionary();
        }
    }

    support::RandomValue values_;
    std::mt19937 random_;
};

std::shared_ptr<VTPlugInCore> recordOf(const Dictionary& info) {
    auto record = VTPlugInCore::initWithName("the.plugin", "/a.app/PlugIns/p.appex", info, {}, value::Uuid{{7}});
    if (!record) return nullptr;
    record->setOriginalIdentifier("the.original");
    record->setContainingUrl("/a.app");
    record->setLastModified(-5);
    record->setHubProtocolVersion(2);
    record->setLocalizedName("Name");
    record->canonicalize();
    return record;
}

std::shared_ptr<VTPlugInCore> viewOf(const VTPlugInCore& record) {
    auto image = VTRecordImage::compile(record);
    if (!image) return nullptr;
    EXPECT_TRUE(VTRecordImage::check(*image));
    const auto kept = std::make_shared<const std::vector<std::byte>>(*std::move(image));
    auto view = std::make_shared<VTPlugInCore>();
    view->setupWithImage(VTRecordImage{*kept, kept}, record.uuid());
    return view;
}

std::optional<Value> attribute(const VTPlugInCore& record, std::string_view key) {
    struct Read {
        std::optional<Value> operator()(const Value* found) const {
            return found != nullptr ? std::optional{*found} : std::nullopt;
        }
        std::optional<Value> operator()(mox::View found) const { return found.toValue(); }
    };
    return record.withAttribute(key, Read{});
}

void expectSame(const VTPlugInCore& a, const VTPlugInCore& b) {
    EXPECT_EQ(a.exportForm()->dictionary(), b.exportForm()->dictionary());
    for (const auto& [key, entry] : a.bundleInfoDictionary()) EXPECT_EQ(attribute(a, key), attribute(b, key));
    for (const auto& [key, entry] : a.attributes()) EXPECT_EQ(attribute(a, key), attribute(b, key));
    for (const auto& [key, entry] : a.plugInDictionary()) EXPECT_EQ(a.plugInValue(key), b.plugInValue(key));
    EXPECT_EQ(attribute(b, "nobody has this"), std::nullopt);
    EXPECT_EQ(a.bundleInfoDictionary(), b.bundleInfoDictionary());
    EXPECT_EQ(a.topDictionary(), b.topDictionary());
    EXPECT_EQ(a.plugInDictionary(), b.plugInDictionary());
    EXPECT_TRUE(a == b);
    EXPECT_EQ(a.identifier() + a.originalIdentifier() + a.url() + a.containingPath() + a.version(),
              b.identifier() + b.originalIdentifier() + b.url() + b.containingPath() + b.version());
    EXPECT_EQ(a.localizedName() + a.localizedShortName() + a.localizedContainingName(),
              b.localizedName() + b.localizedShortName() + b.localizedContainingName());
    EXPECT_EQ(a.isDedicated(), b.isDedicated());
    EXPECT_EQ(a.isData(), b.isData());
    EXPECT_EQ(a.isMultiplexed(), b.isMultiplexed());
    EXPECT_EQ(a.lastModified(), b.lastModified());
    EXPECT_EQ(a.hubProtocolVersion(), b.hubProtocolVersion());
    EXPECT_EQ(a.onSystemVolume(), b.onSystemVolume());
    EXPECT_EQ(a.diagnose().has_value(), b.diagnose().has_value());
}

const std::function<void(VTPlugInCore&)> kChanges[] = {
    [](VTPlugInCore& r) { r.setIdentifier("another"); },
    [](VTPlugInCore& r) { r.setOriginalIdentifier(""); },
    [](VTPlugInCore& r) { r.setUrl("/b.app/PlugIns/q.appex"); },
    [](VTPlugInCore& r) { r.setContainingUrl({}); },
    [](VTPlugInCore& r) { r.setLastModified(9); },
    [](VTPlugInCore& r) { r.setHubProtocolVersion(1); },
    [](VTPlugInCore& r) { r.setOnSystemVolume(true); },
    [](VTPlugInCore& r) { r.setLocalizedShortName("short"); },
    [](VTPlugInCore& r) {
        r.setAnnotations(Dictionary{{"election", 1}});
    },
    [](VTPlugInCore& r) { r.setUuid(value::Uuid{{9}}); },
    [](VTPlugInCore& r) { r.setPlugInDictionary(r.plugInDictionary().changing("more", 1)); },
    [](VTPlugInCore& r) { r.setTopDictionary(r.topDictionary().changing("more", 2)); },
    [](VTPlugInCore& r) { r.setBundleInfoDictionary(r.bundleInfoDictionary().changing("more", 3)); },
};

TEST(RecordImage, IsARecordLikeTheOneItWasMadeOfUntilSomethingIsSetAndThen) {
    support::LogLines log;
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    Bundles bundles{seed};
    std::size_t made = 0;
    for (int round = 0; round < 400 && !::testing::Test::HasFailure(); ++round) {
        const Dictionary info = bundles();
        const auto built = recordOf(info);
        const auto view = built ? viewOf(*built) : nullptr;
        if (!view) continue;
        ++made;
        expectSame(*built, *view);
        const auto& change = kChanges[static_cast<std::size_t>(round) % std::size(kChanges)];
        change(*built);
        const auto changed = viewOf(*recordOf(info));
        change(*changed);
        expectSame(*built, *changed);
    }
    EXPECT_GT(made, 200U);
}

TEST(RecordImage, IsNotMadeOfWhatAFormDoesNotSay) {
    support::LogLines log;
    const Dictionary info{{"KXExtension", Dictionary{{VTInfoKey::protocol, "P"}}}};
    EXPECT_NE(viewOf(*recordOf(info)), nullptr);
    EXPECT_EQ(viewOf(*recordOf(info.changing("QFBundleInfoPlistURL", "/there"))), nullptr);
    const auto slashed = recordOf(info);
    slashed->setUrl("/a.app/PlugIns/p.appex/");
    EXPECT_EQ(viewOf(*slashed), nullptr);
}

// Damage is refused, or harms nobody who reads.
TEST(RecordImage, IsCheckedBeforeItIsBelieved) {
    support::LogLines log;
    const auto record = recordOf(
        {{"a", 1}, {"KXExtension", Dictionary{{VTInfoKey::attributes, Dictionary{{"k", "v"}, {"l", 2}}}, {"p", "q"}}}});
    const auto image = *VTRecordImage::compile(*record);
    for (std::size_t i = 0; i < image.size(); ++i) {
        EXPECT_FALSE(VTRecordImage::check(mox::Bytes{image}.first(i)));
        for (const int bit : {0, 3, 7}) {
            const auto damaged = std::make_shared<std::vector<std::byte>>(image);
            (*damaged)[i] ^= static_cast<std::byte>(1 << bit);
            if (!VTRecordImage::check(*damaged)) continue;
            VTPlugInCore view;
            view.setupWithImage(VTRecordImage{*damaged, damaged}, value::Uuid{{7}});
            static_cast<void>(view.exportForm()->dictionary());
            static_cast<void>(view.identifier() + view.originalIdentifier() + view.url() + view.version());
            for (const char* key : {"a", "k", "l", "p", "z"}) static_cast<void>(attribute(view, key));
        }
    }
}

}  // namespace
