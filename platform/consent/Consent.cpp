#include "platform/consent/Consent.h"

#include <cerrno>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/plist/KeptDictionary.h"

namespace consent {

namespace {

constexpr char kFile[] = "consent.plist";
constexpr char kService[] = "service";
constexpr char kGranted[] = "granted";

value::Error malformed(const std::string& path, const char* reason) {
    return value::Error{"consent", EINVAL, path + ": " + reason};
}

plist::KeptDictionary& database() {
    // Never destroyed: queues may still ask while the process ends.
    static auto& kept = *new plist::KeptDictionary{
        [] { return paths::directories().state + '/' + kFile; }, "no consent", {.bytes = std::size_t{4} << 20}};
    return kept;
}

}  // namespace

value::Result<std::vector<Entry>> informationForBundle(const bundle::Bundle& bundle) {
    const auto info = bundle.infoDictionary();
    const std::string identifier = info ? bundle::identifierOf(*info) : std::string{};
    if (identifier.empty()) return malformed(bundle.bundlePath().value_or("no bundle"), "no bundle identifier");
    const auto reading = database().read();
    if (reading.fault) return *reading.fault;
    std::vector<Entry> entries;
    const value::Value* const listed = reading.content ? reading.content->find(identifier) : nullptr;
    if (listed == nullptr) return entries;
    if (listed->array() == nullptr) return malformed(identifier, "its consent is no list");
    for (const value::Value& element : *listed->array()) {
        const value::Dictionary* const entry = element.dictionary();
        const std::string* const service = entry != nullptr ? entry->string(kService) : nullptr;
        if (service == nullptr) continue;
        const value::Value* const granted = entry->find(kGranted);
        entries.push_back({*service, granted != nullptr && granted->boolean().value_or(false)});
    }
    return entries;
}

}  // namespace consent
