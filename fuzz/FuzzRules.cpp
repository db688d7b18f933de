#include <string>

#include "fuzz/Fuzz.h"
#include "platform/logging/Log.h"
#include "platform/mox/Encoder.h"
#include "platform/plist/Plist.h"
#include "tests/vtd/FakePlugIn.h"
#include "vtd/VTDPlugIn.h"

// The rule language against one record that has a value of every kind. The input is a property list with a dictionary,
// or else lines: attribute names and patterns in turns.

namespace {

using fuzz::require;
using value::Array;
using value::Dictionary;
using value::Value;

struct Elected : VTDAnnotationSource {
    std::optional<Dictionary> annotationForPlugIn(const VTDPlugIn&) override { return Dictionary{{"election", 0x1ff}}; }
};

std::shared_ptr<VTDPlugIn> makeRecord() {
    logging::setSink([](logging::Level, std::string_view) {});
    static const auto elected = std::make_shared<Elected>();
    const auto proxy = std::make_shared<fake::PlugIn>("org.example.one", "/a.app/PlugIns/one.plugin");
    proxy->held = {{"right", true}, {"list", Array{"x", 1}}};
    auto plugIn = std::make_shared<VTDPlugIn>();
    plugIn->setDvproxy(proxy);
    plugIn->setAnnotationSource(elected);
    plugIn->setContainingUrl("/a.app");
    const Dictionary attributes{{"text", "1.10b"},
                                {"list", Array{"1.9", "org.example.image", 3}},
                                {"number", 3},
                                {"false", false},
                                {"rule", Dictionary{{"org.example.image", 1}}}};
    const Dictionary info{{"info", "there"}, {"KXExtension", Dictionary{{"KXExtensionAttributes", attributes}}}};
    require(plugIn->setupWithName("org.example.one", "/a.app/PlugIns/one.plugin", info, {}, value::Uuid{}));
    return plugIn;
}

Dictionary decode(std::string_view bytes) {
    if (const auto list = plist::read(bytes); list && list->dictionary() != nullptr) return *list->dictionary();
    Dictionary::Builder rules;
    while (!bytes.empty()) {
        const std::string_view name = fuzz::takeLine(bytes);
        rules.set(name, fuzz::takeLine(bytes));
    }
    return std::move(rules).build();
}

// What must hold between the operators, whatever the operand is.
void checkOperators(const VTDPlugIn& plugIn, const std::string& operand) {
    if (operand.starts_with('=') || operand.starts_with('>')) return;  // behind "<" that is another operator
    const auto accepts = [&](const char* op) { return plugIn.matchValuePattern("1.10b", op + operand); };
    require(accepts("<") + accepts("=") + accepts(">") == 1);
    require(accepts("<>") != accepts("="));
    require(accepts("<=") != accepts(">"));
    require(accepts(">=") != accepts("<"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::shared_ptr<VTDPlugIn> plugIn = makeRecord();
    const Dictionary rules = decode(fuzz::textOf(data, size));

    bool all = true;
    for (const auto& [name, pattern] : rules) {
        const bool one = plugIn->matchKey(name, pattern);
        all = all && one;
        require(plugIn->matchKey(name, true) != plugIn->matchKey(name, false));
        if (pattern.string() != nullptr) {
            require(plugIn->matchKey(name, Array{pattern}) == one);
            require(plugIn->matchKey(name, Array{1, pattern, "<>"}) == (one || plugIn->matchKey(name, "<>")));
            checkOperators(*plugIn, *pattern.string());
        }
    }
    require(plugIn->match(rules) == all);
    mox::Encoder encoder;
    encoder.value(rules);
    rules::Complaints complaints;
    const rules::Rules read{mox::View{encoder.bytes().data()}};
    require((plugIn->unmatchedRule(read, complaints) == nullptr) == all);
    return 0;
}
