#include <map>
#include <random>

#include "Velto/VTProtocol.h"
#include "platform/mox/Encoder.h"
#include "platform/text/NumericCompare.h"
#include "platform/types/TypeHierarchy.h"
#include "tests/support/Words.h"
#include "tests/vtd/FakePlugIn.h"
#include "vtd/Discovery.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/rules/Rules.h"

namespace {

std::shared_ptr<VTDPlugIn> plugInWith(const Dictionary& attributes) {
    const auto proxy = std::make_shared<fake::PlugIn>("a.1", "/a.app/PlugIns/p.plugin");
    auto plugIn = std::make_shared<VTDPlugIn>();
    plugIn->setDvproxy(proxy);
    plugIn->setContainingUrl("/a.app");
    const Dictionary own{{"KXExtensionProtocol", "P"}, {"KXExtensionAttributes", attributes}};
    EXPECT_TRUE(plugIn->setupWithName("a.1", proxy->path, Dictionary{{"KXExtension", own}}, {}, proxy->uuid));
    return plugIn;
}

// The rule language as it is written down: every pattern is tried in its turn, on every text.
class Model {
public:
    explicit Model(const Dictionary& attributes) : attributes_{attributes} {}

    bool matches(const Dictionary& rules) {
        return std::all_of(rules.begin(), rules.end(), [&](auto& rule) {
            const Value identifier{"a.1"};
            return matches(rule.key == "KXExtensionIdentifier" ? &identifier : attributes_.find(rule.key), rule.value);
        });
    }

    std::map<std::string, int> complaints;

private:
    bool matches(const Value* value, const Value& pattern) {
        const bool isFalse = value != nullptr && *value == Value{false};
        if (pattern == Value{true}) return value != nullptr && !isFalse;
        if (pattern == Value{false}) return value == nullptr || isFalse;
        if (value == nullptr) return false;
        if (pattern.dictionary() != nullptr) return activation::evaluate(*value, *pattern.dictionary());
        if (value->string() != nullptr) return matchesAny(*value->string(), pattern);
        return value->array() != nullptr && std::any_of(value->array()->begin(), value->array()->end(), [&](auto& e) {
                   return e.string() != nullptr && matchesAny(*e.string(), pattern);
               });
    }

    bool matchesAny(const std::string& text, const Value& pattern) {
        if (pattern.string() != nullptr) return matchesOne(text, *pattern.string());
        return pattern.array() != nullptr &&
               std::any_of(pattern.array()->begin(), pattern.array()->end(),
                           [&](auto& p) { return p.string() != nullptr && matchesOne(text, *p.string()); });
    }

    bool matchesOne(const std::string& text, const std::string& pattern) {
        const auto behind = [&](const char* prefix) { return pattern.substr(std::string_view{prefix}.size()); };
        const auto begins = [&](const char* prefix) { return pattern.starts_with(prefix); };
        const auto against = [&](const char* prefix) { return text::compareNumerically(text, behind(prefix)); };
        if (begins("?ZT-CONFORMS:")) return types::conforms(text, behind("?ZT-CONFORMS:"));
        if (begins("?ZT-IS:")) return types::conforms(behind("?ZT-IS:"), text);
        if (begins("?")) return ++complaints[pattern] < 0;
        if (begins("<>")) return against("<>") != 0;
        if (begins("<=")) return against("<=") <= 0;
        if (begins(">=")) return against(">=") >= 0;
        if (begins("=")) return against("=") == 0;
        if (begins("<")) return against("<") < 0;
        if (begins(">")) return against(">") > 0;
        return against("") == 0;
    }

    const Dictionary& attributes_;
};

TEST(Rules, MeanWhatTheLanguageSaysInRandomWorlds) {
    const support::PrivateRoot root;
    root.writeList("system/Types.plist", Dictionary{{"a.1", "b"}, {"b", "=="}});
    const auto seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random{seed};
    const auto below = [&](std::size_t count) { return random() % count; };
    const auto pick = [&](const auto& pool) { return pool[below(std::size(pool))]; };
    const char* const operators[] = {"", "", "=", "<>", "<=", ">=", "<", ">", "?ZT-CONFORMS:", "?ZT-IS:", "?"};
    const char* const texts[] = {"", "a", "a.1", "a.01", "a.001.0", "a.2", "b", "=", "==", "10", "9", "?", "x"};
    const auto pattern = [&] { return pick(operators) + std::string{pick(texts)}; };
    const auto list = [&](const auto& element) {
        Array::Storage elements;
        const std::size_t count = below(2) == 0 ? below(4) : below(40);
        for (std::size_t i = 0; i < count; ++i) elements.push_back(below(12) != 0 ? Value{element()} : Value{7});
        return Value{Array{std::move(elements)}};
    };
    const auto text = [&] { return std::string{pick(texts)}; };
    const Value numbers[] = {true, false, 0, 1.0, 5};
    support::LogLines log;
    for (int round = 0; round < 3'000; ++round) {
        Dictionary::Builder attributes, rules;
        for (const char* name : {"one", "two", "three"}) {
            switch (below(5)) {
                case 0: attributes.set(name, text()); break;
                case 1: attributes.set(name, list(text)); break;
                case 2: attributes.set(name, pick(numbers)); break;
                case 3: attributes.set(name, Dictionary{{"b", static_cast<int>(below(3))}}); break;
                default: break;
            }
        }
        for (const char* name : {"one", "two", "three", "KXExtensionIdentifier", "absent"}) {
            const Value items = Array{Dictionary{{"types", list(text)}}, Dictionary{{"types", Array{"a.1"}}}};
            switch (below(6)) {
                case 0: rules.set(name, pattern()); break;
                case 1: rules.set(name, list(pattern)); break;
                case 2: rules.set(name, pick(numbers)); break;
                case 3: rules.set(name, Dictionary{{"items", items}}); break;
                default: break;
            }
        }
        const Dictionary has = std::move(attributes).build(), wanted = std::move(rules).build();
        const auto plugIn = plugInWith(has);
        Model model{has};
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
    for (int i = 0; i < 100; ++i) EXPECT_EQ(discovery.visit(*greedy)->gate, Discovery::kEffortGate);
    EXPECT_FALSE(discovery.visit(*modest));
    EXPECT_FALSE(account.isSpent());
    EXPECT_FALSE(discovery.isAffordable(std::size_t{1} << 40));
}

}  // namespace
