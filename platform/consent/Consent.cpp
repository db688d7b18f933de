#include "platform/consent/Consent.h"

#include <cerrno>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/plist/KeptFile.h"

namespace consent {

namespace {

constexpr std::size_t kLimit = std::size_t{4} << 20;
constexpr char kFile[] = "consent.plist";
constexpr char kService[] = "service";
constexpr char kGranted[] = "granted";

value::Error malformed(const std::string& path, const char* reason) {
    return value::Error{"consent", EINVAL, path + ": " + reason};
}

class Database {
public:
    value::Result<value::Dictionary> content() {
        const std::lock_guard lock{mutex_};
        if (!file_) file_.emplace(paths::directories().state + '/' + kFile, plist::Limits{.bytes = kLimit});
        const auto& reading = file_->read();
        std::optional<value::Error> fault = reading.fault;
        if (reading.root && reading.root->dictionary() == nullptr) fault = malformed(file_->path(), "not a dictionary");
        if (fault && reading.news) logging::error("no consent, " + fault->localizedDescription());
        if (fault) return *std::move(fault);
        return reading.root ? *reading.root->dictionary() : value::Dictionary{};
    }

private:
    std::mutex mutex_;
    std::optional<plist::KeptFile> file_;
};

Database& database() {
    static Database& kept = *new Database;  // never destroyed: queues may still ask while the process ends
    return kept;
}

}  // namespace

value::Result<std::vector<Entry>> informationForBundle(const bundle::Bundle& bundle) {
    const auto info = bundle.infoDictionary();
    const std::string identifier = info ? bundle::identifierOf(*info) : std::string{};
    if (identifier.empty()) return malformed(bundle.bundlePath().value_or("no bundle"), "no bundle identifier");
    const auto content = database().content();
    if (!content) return content.error();
    std::vector<Entry> entries;
    const value::Value* const listed = content->find(identifier);
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
