#include <algorithm>

#include "tests/support/Words.h"
#include "tests/vtd/FakePlugIn.h"
#include "vtd/Exclusions.h"
#include "vtd/VTDPlugIn.h"

namespace {

std::shared_ptr<VTDPlugIn> plugInNamed(const std::string& identifier) {
    const auto proxy = std::make_shared<fake::PlugIn>(identifier, "/a.app/PlugIns/p.plugin");
    auto plugIn = std::make_shared<VTDPlugIn>();
    plugIn->setDvproxy(proxy);
    const Dictionary info{{"KXExtension", Dictionary{{"KXExtensionProtocol", "P"}}}};
    EXPECT_TRUE(plugIn->setupWithName(identifier, proxy->path, info, std::nullopt, proxy->uuid));
    return plugIn;
}

// Against trying one after another, in every order of four, with what each says in the log.
TEST(Exclusions, HideWhatTheirRulesMatchTriedInOrder) {
    std::vector<Value> pool{Dictionary{{"KXExtensionIdentifier", "a.1"}, {"Other", "?worse"}, {"Z", true}},
                            Dictionary{{"KXExtensionIdentifier", "a.2"}, {"Other", false}},
                            Dictionary{{"Absent", true}}, Dictionary{{"A", false}, {"KXExtensionIdentifier", "a.1"}},
                            "no rules"};
    const Value patterns[] = {"a.1", "=a.01", "a", ">=b", "<>a.1", Array{"x", "a.2"}, "?bad", true, "", "=", "=="};
    for (const Value& pattern : patterns) pool.emplace_back(Dictionary{{"KXExtensionIdentifier", pattern}});
    std::vector<std::shared_ptr<VTDPlugIn>> plugIns;
    for (const char* identifier : {"a.1", "a.01", "a.001.0", "a.2", "a", "b", "=", "x.10", "?bad"}) {
        plugIns.push_back(plugInNamed(identifier));
    }
    support::LogLines log;
    for (std::size_t first = 0; first < pool.size(); ++first) {
        std::rotate(pool.begin(), pool.begin() + 1, pool.end());
        for (std::size_t count = 1; count <= 4; ++count) {
            const Array rules{Array::Storage{pool.begin(), pool.begin() + static_cast<std::ptrdiff_t>(count)}};
            const Exclusions exclusions{rules};
            for (const auto& plugIn : plugIns) {
                log.take();
                const bool expected = std::any_of(rules.begin(), rules.end(), [&](const Value& rule) {
                    return rule.dictionary() != nullptr && plugIn->match(*rule.dictionary());
                });
                const auto said = log.take();
                {
                    rules::Complaints complaints;
                    EXPECT_EQ(exclusions.cover(*plugIn, complaints), expected) << description(Value{rules});
                }
                EXPECT_EQ(log.take(), said) << plugIn->identifier() << description(Value{rules});
            }
        }
    }
}

}  // namespace
