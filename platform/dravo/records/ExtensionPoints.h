#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/dravo/records/Facts.h"
#include "platform/value/Value.h"

// The names under which hosts may ask for a plug-in's extension point. A rule on KXExtensionPointName reads the
// attribute of that name, else the top level of the bundle's dictionary, both after the extension point's SDK was
// merged underneath. The registry does not merge: it collects every text that the rule could find, which may be more
// than it will find.
namespace dravo {

// Names found so far, each once. What claims more than a plug-in may have is no longer looked at: it counts as any.
class PointNames {
public:
    explicit PointNames(std::size_t most) : most_{most} {}

    // Adds the texts (a string, or the strings of an array) that the dictionary has under the name, for the plug-in
    // with the identifier; an empty identifier stands for every plug-in.
    void collect(const value::Dictionary& info, const std::string& identifier);

    bool tooMany() const { return tooMany_; }
    std::vector<std::string> take() { return std::move(names_); }

private:
    void addText(const value::Value& value);
    void addTexts(const value::Value* value);
    void addAttribute(const value::Dictionary& description);

    const std::size_t most_;
    std::vector<std::string> names_;
    std::size_t looked_ = 0;
    bool tooMany_ = false;
};

// What the SDKs of extension points have in the records of their plug-ins, as the registry has last seen it; read when
// first asked for. Not for use from several threads.
class SdkParts {
public:
    struct Part {
        std::uint64_t digest = 0;        // sdk::Part's
        std::vector<std::string> names;  // that it adds to the extension point's own
    };
    const Part& of(const std::string& extensionPoint);

    void note(std::vector<PlugInFacts>& plugIns);              // in each what its SDK is
    bool areNotedIn(const std::vector<PlugInFacts>& plugIns);  // as they are now

    void refresh();  // reads those known again

    // Whether one could not be looked at when it was last read: to be refreshed, though nothing may have changed.
    bool isStale() const { return isStale_; }

private:
    Part read(const std::string& extensionPoint);
    std::uint64_t digestFor(const PlugInFacts& plugIn);

    std::unordered_map<std::string, Part> parts_;
    bool isStale_ = false;
};

}  // namespace dravo
