#include "platform/mox/Encoder.h"
#include "tests/vtd/DiscoveryModel.h"
#include "tests/vtd/FakePlugIn.h"
#include "vtd/Discovery.h"
#include "vtd/Exclusions.h"
#include "vtd/Host.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/explain/Explanation.h"
#include "vtd/rules/Rules.h"

namespace {

std::shared_ptr<VTDPlugIn> plugInOf(const std::shared_ptr<fake::PlugIn>& proxy, const Dictionary& description) {
    auto plugIn = std::make_shared<VTDPlugIn>();
    plugIn->setDvproxy(proxy);
    plugIn->setContainingUrl("/a.app");
    const Dictionary own = description.changing("KXExtensionProtocol", "P");
    EXPECT_TRUE(
        plugIn->setupWithName(proxy->identifier, proxy->path, Dictionary{{"KXExtension", own}}, {}, proxy->uuid));
    return plugIn;
}

std::shared_ptr<VTDPlugIn> plugInWith(const Dictionary& attributes) {
    return plugInOf(std::make_shared<fake::PlugIn>("a.1", "/a.app/PlugIns/p.plugin"),
                    {{"KXExtensionAttributes", attributes}});
}

// A world in which "b" stands over "a.1", what chance makes in it, and what is logged meanwhile.
class RandomWorld : public testing::Test {
protected:
    RandomWorld() { root_.writeList("system/Types.plist", Dictionary{{"a.1", "b"}, {"b", "=="}}); }

private:
    const support::PrivateRoot root_;
    const std::random_device::result_type seed_ = std::random_device{}();
    const testing::ScopedTrace trace_{__FILE__, __LINE__, seed_};

protected:
    model::Chance chance{seed_};
    support::LogLines log;
};

TEST_F(RandomWorld, RulesMeanWhatTheLanguageSays) {
    for (int round = 0; round < 3'000; ++round) {
        const Dictionary has = chance.attributes(), wanted = chance.rules(6);
        const auto plugIn = plugInWith(has);
        model::RuleModel model{"a.1", has};
        const bool expected = model.matches(wanted);
        mox::Encoder encoded;
        encoded.value(wanted);
        const rules::Rules read[] = {rules::Rules{wanted}, rules::Rules{mox::View{encoded.bytes().data()}}};
        for (const rules::Rules& one : read) {
            log.take();
            {
                rules::Complaints complaints;
                EXPECT_EQ(plugIn->unmatchedRule(one, complaints) == nullptr, expected)
                    << description(Value{has}) << description(Value{wanted});
            }
            Texts lines;
            for (const auto& [unknown, times] : model.complaints) {
                lines.push_back("unrecognized match operator:" + unknown +
                                (times > 1 ? " (" + std::to_string(times) + " times)" : ""));
            }
            EXPECT_THAT(log.take(logging::Level::notice), testing::UnorderedElementsAreArray(lines));
        }
    }
}

// A plug-in, and what a model has to know of it.
struct Known {
    std::shared_ptr<VTDPlugIn> plugIn;
    model::Copy copy;
    Dictionary attributes;
    bool isContained, isDedicated, isHeld;
    std::string demanded;  // of its host
};

Known knownOf(model::Chance& chance) {
    constexpr const char* kPaths[] = {"/a.app/PlugIns/p", "/client.app/PlugIns/p", "/client.app/PlugInsToo/p"};
    constexpr const char* kIdentifiers[] = {"a.1", "a.01", "b"};
    constexpr const char* kVersions[] = {"1", "1.0", "01", "1.10", "1.9", "", "2b"};
    constexpr const char* kDemands[] = {"", "", "held", "not held"};
    const auto proxy = std::make_shared<fake::PlugIn>(chance.pick(kIdentifiers), chance.pick(kPaths));
    Known known{nullptr,
                {proxy->uuid.string(),
                 proxy->identifier,
                 chance.pick(kVersions),
                 chance.once(2),
                 static_cast<int>(chance.below(3)) - 1,
                 {}},
                chance.attributes(),
                !chance.once(4),
                chance.once(4),
                chance.once(6),
                chance.pick(kDemands)};
    for (std::size_t claims = std::max<std::size_t>(chance.below(8), 5); claims > 5; --claims) {
        known.copy.replaces.emplace_back(chance.pick(kIdentifiers));
    }
    const Texts& replaced = known.copy.replaces;
    const Value several = Array{Array::Storage{replaced.begin(), replaced.end()}};
    proxy->held = {{"halvern.developer.replace-plugin", replaced.size() == 1 ? Value{replaced[0]} : several}};
    Dictionary description{
        {"KXExtensionAttributes", known.attributes.changing("KXExtensionVersion", known.copy.version)},
        {"Dedicated", known.isDedicated}};
    if (!known.demanded.empty()) description = description.changing("KXExtensionHostEntitlement", known.demanded);
    known.plugIn = plugInOf(proxy, description);
    known.plugIn->setOnSystemVolume(known.copy.onSystem);
    known.plugIn->setLastModified(known.copy.modified);
    if (!known.isContained) known.plugIn->setContainingUrl({});
    return known;
}

// What each gate answers when it is asked alone, up to the one that compares with what else there is.
struct GateAnswers {
    std::string uuid;
    std::array<bool, 6> passes;
};

// A plug-in is explained as offered exactly when it is, by the first gate that refuses, and by what the others say.
void expectExplained(const Value& explanations, const std::vector<GateAnswers>& answers, const Texts& matches,
                     bool seesAll) {
    ASSERT_EQ(explanations.array()->size(), answers.size());
    for (std::size_t i = 0; i < answers.size(); ++i) {
        const Dictionary told = *explanations.array()->begin()[i].dictionary();
        const GateAnswers& one = answers[i];
        std::string decided;
        const Array gates = *told.find("gates")->array();
        for (std::size_t gate = 0; gate < one.passes.size(); ++gate) {
            const Dictionary entry = *gates.begin()[gate].dictionary();
            const bool isAsked = !seesAll || gate == 3 || gate == 4;
            const bool passes = one.passes[gate];
            const char* const behind = passes ? "would pass" : "would refuse";
            const char* const before = passes ? "passed" : "refused";
            ASSERT_EQ(*entry.string("answer"), !isAsked          ? "not asked"
                                               : decided.empty() ? before
                                                                 : behind)
                << description(Value{told});
            if (isAsked && !passes && decided.empty()) decided = *entry.string("gate");
        }
        const bool isOffered = std::any_of(matches.begin(), matches.end(),
                                           [&](const std::string& match) { return match.starts_with(one.uuid); });
        if (decided.empty() && !isOffered) decided = "duplicates";
        ASSERT_EQ(*told.string("verdict"), isOffered ? "offered" : "held back");
        ASSERT_EQ(told.contains("gate") ? *told.string("gate") : "", decided) << description(Value{told});
    }
}

// All gates, in every combination that chance makes: against saying what each is to hold back, one after another.
TEST_F(RandomWorld, DiscoveryLetsThroughWhatItShould) {
    std::vector<Known> all;
    std::size_t found = 0;
    int costly = 0;
    for (int round = 0; round < 10'000; ++round) {
        if (round % 250 == 0) {
            all.clear();
            while (all.size() < 40) all.push_back(knownOf(chance));
        }
        std::vector<const Known*> candidates;
        for (std::size_t i = 0, count = chance.below(12); i < count; ++i) {
            std::swap(all[i], all[i + chance.below(all.size() - i)]);
            candidates.push_back(&all[i]);
        }
        const Dictionary wanted = chance.once(3) ? Dictionary{} : chance.rules(40);
        const std::optional allowed = chance.once(3) ? std::optional{chance.rules(30)} : std::nullopt;
        Array::Storage excluded;
        while (chance.once(2)) excluded.push_back(chance.once(8) ? Value{"no rules"} : Value{chance.rules(20)});
        const bool hasPlugIns = !chance.once(4), mayBeRestricted = allowed.has_value();
        std::uint64_t flags = chance.once(4) ? std::uint64_t{VTDiscoverAll} : 0;
        for (const std::uint64_t flag : {1U, 2U, 4U, 8U}) flags |= chance.once(3) ? flag : 0;

        std::vector<model::Copy> through;
        std::vector<GateAnswers> answers;
        for (const Known* const known : candidates) {
            const auto meets = [&](const Dictionary& rules) {
                return model::RuleModel{known->copy.identifier, known->attributes}.matches(rules);
            };
            const bool seesAll = (flags & VTDiscoverAll) != 0;
            const bool isPlaced = known->copy.onSystem || (known->isContained && (flags & 8U) == 0);
            const bool isOurs = hasPlugIns && known->plugIn->path().starts_with("/client.app/PlugIns");
            const bool isAllowed = (!mayBeRestricted || meets(*allowed)) && known->demanded != "not held";
            const bool isHeldBack = !isPlaced || (known->isDedicated && !isOurs) || known->isHeld || !isAllowed;
            const bool isExcluded = std::any_of(excluded.begin(), excluded.end(), [&](const Value& rules) {
                return rules.dictionary() != nullptr && meets(*rules.dictionary());
            });
            if ((seesAll || !isHeldBack) && meets(wanted) && !isExcluded) through.push_back(known->copy);
            answers.push_back(
                {known->copy.uuid,
                 {isPlaced, !known->isDedicated || isOurs, !known->isHeld, meets(wanted), !isExcluded, isAllowed}});
        }

        const std::optional restriction = allowed ? std::optional{rules::Rules{*allowed}} : std::nullopt;
        Discovery::Query query{.wanted = rules::Rules{wanted}, .flags = flags, .clientPlugInsPath = {}};
        if (hasPlugIns) query.clientPlugInsPath = [] { return std::optional{"/client.app/PlugIns"s}; };
        query.isOnHold = [&](const VTDPlugIn& plugIn) {
            return std::any_of(all.begin(), all.end(),
                               [&](const Known& one) { return one.plugIn.get() == &plugIn && one.isHeld; });
        };
        query.exclusions = std::make_shared<const Exclusions>(Array{std::move(excluded)});
        query.refuseToClient = [&](const VTDPlugIn& plugIn,
                                   rules::Complaints& complaints) -> std::optional<VTDPlugIn::HostRefusal> {
            using Cause = VTDPlugIn::HostRefusal::Cause;
            if (restriction && plugIn.unmatchedRule(*restriction, complaints) != nullptr) {
                return VTDPlugIn::HostRefusal{Cause::restriction};
            }
            const Value* const demanded = plugIn.plugInDictionary().find("KXExtensionHostEntitlement");
            if (demanded == nullptr || *demanded == Value{"held"}) return {};
            return VTDPlugIn::HostRefusal{Cause::entitlement, nullptr, *demanded};
        };
        effort::Account account;
        Discovery discovery{std::move(query), [](auto&, auto&) {}, account};
        ASSERT_TRUE(discovery.isAffordable(candidates.size()));
        std::vector<std::optional<Discovery::Refusal>> refusals;
        for (const Known* const known : candidates) refusals.push_back(discovery.visit(*known->plugIn));
        // The rules of chance may ask more of a candidate than its share.
        const auto isCostly = [](const auto& refusal) { return refusal && refusal->gate == nullptr; };
        if (std::any_of(refusals.begin(), refusals.end(), isCostly)) {
            ASSERT_LT(++costly, 50) << "worlds";
            continue;
        }
        const Host host{std::make_shared<mox::PeerIdentity>()};
        explain::Explanation explanation{discovery, {host, {}, {}, true}, [](auto) { return true; }};
        for (std::size_t i = 0; i < candidates.size(); ++i) explanation.add(*candidates[i]->plugIn, refusals[i]);
        const mox::Encoded explained = std::move(explanation).finish();
        const Texts matches = model::asTexts(std::move(discovery).finish());
        expectExplained(mox::View{explained->data()}.message()->toValue(), answers, matches,
                        (flags & VTDiscoverAll) != 0);
        ASSERT_EQ(matches, model::resolvePlainly(through, flags)) << "world " << round << ", flags " << flags;
        found += matches.size();
    }
    EXPECT_GT(found, 10'000U) << "worlds in which hardly anything is found show little";
}

// One whose list meets so many patterns that they cost more than its share is held back alone, and each plug-in's
// patterns are judged before the first is visited.
TEST(Discovery, LetsEachCandidatePayForItself) {
    const Array much{Array::Storage(50'000, "x")};
    const auto greedy = plugInWith({{"list", much}}), modest = plugInWith({{"list", Array{"a"}}});
    Discovery::Query query;
    query.flags = VTDiscoverAll;
    query.wanted = rules::Rules{Dictionary{{"list", Array{"<a", "=a", ">y"}}}};
    effort::Account account;
    Discovery discovery{std::move(query), [](auto&, auto&) {}, account};
    EXPECT_TRUE(discovery.isAffordable(2));
    for (int i = 0; i < 100; ++i) EXPECT_EQ(discovery.visit(*greedy)->gate, nullptr);
    EXPECT_FALSE(discovery.visit(*modest));
    EXPECT_FALSE(account.isSpent());
    EXPECT_FALSE(discovery.isAffordable(std::size_t{1} << 40));
}

}  // namespace
