#include "platform/dravo/records/Snapshot.h"

#include <algorithm>
#include <functional>
#include <set>
#include <utility>

#include "platform/effort/Effort.h"
#include "platform/file/Beneath.h"
#include "platform/logging/Invariant.h"
#include "platform/text/NumericCompare.h"
#include "platform/text/NumericKey.h"

// How it works. A plug-in is its number, its place in the list by path and identifier: every index holds numbers, so
// that what two of them find is combined by comparing numbers, and ascends in the order in which plug-ins are listed.
// Texts are not indexed but their hashes (HashIndex), so that ten thousand plug-ins cost a few hundred KiB; whoever
// finds one compares the text. Names of extension points are few and shared by many, and so have a list of numbers
// each.
//
// Two snapshots differ where their records are not the very same objects: the scanner hands out the former record of
// what has not changed. So a difference is one walk along both lists, and content is compared only of what was read
// anew.
namespace dravo {

namespace {

constexpr std::uint64_t kUnitsAName = 20;  // to find what a narrowing names
constexpr std::size_t kFewLists = 8;       // that are searched one by one

bool isSame(const std::string& one, const std::string& other) {
    return text::compareNumerically(one, other) == std::weak_ordering::equivalent;
}

// The first of the records, which are in the order of their paths, that is not before the path.
template <typename Records>
auto firstFrom(const Records& records, const std::string& path) {
    return std::lower_bound(records.begin(), records.end(), path,
                            [](const auto& record, const std::string& bound) { return pathOf(*record) < bound; });
}

std::uint64_t pathHash(const std::string& path) {
    return std::hash<std::string>{}(path);
}

// Sorts by path, keeps the first of each path, and indexes what is left.
template <typename Record>
HashIndex arrange(std::vector<std::shared_ptr<const Record>>& records) {
    const auto before = [](const auto& a, const auto& b) { return pathOf(*a) < pathOf(*b); };
    const auto samePath = [](const auto& a, const auto& b) { return pathOf(*a) == pathOf(*b); };
    if (!std::is_sorted(records.begin(), records.end(), before)) {
        std::stable_sort(records.begin(), records.end(), before);
    }
    records.erase(std::unique(records.begin(), records.end(), samePath), records.end());
    HashIndex index;
    index.reserve(records.size());
    for (std::uint32_t number = 0; number < records.size(); ++number) {
        index.add(pathHash(pathOf(*records[number])), number);
    }
    index.seal();
    return index;
}

template <typename Record>
std::shared_ptr<const Record> findByPath(const std::vector<std::shared_ptr<const Record>>& records,
                                         const HashIndex& index, const std::string& path) {
    for (const auto& entry : index.candidates(pathHash(path))) {
        if (pathOf(*records[entry.number]) == path) return records[entry.number];
    }
    return nullptr;
}

// In ascending order, each once.
template <typename List, typename Key>
bool ascends(const List& list, const Key& key) {
    return std::adjacent_find(list.begin(), list.end(),
                              [&](const auto& a, const auto& b) { return !(key(a) < key(b)); }) == list.end();
}

bool ascends(const Snapshot::Numbers& numbers) {
    return ascends(numbers, [](std::uint32_t number) { return number; });
}

void sortUnique(Snapshot::Numbers& numbers) {
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
}

// Walks two lists in path order and tells what either has that the other has not, or has otherwise.
template <typename Record>
void compare(const std::vector<std::shared_ptr<const Record>>& before,
             const std::vector<std::shared_ptr<const Record>>& after, std::vector<std::shared_ptr<const Record>>& gone,
             std::vector<std::shared_ptr<const Record>>& fresh) {
    const auto path = [](const auto& record) { return pathOf(*record); };
    INVARIANT(ascends(before, path) && ascends(after, path));
    auto old = before.begin();
    auto now = after.begin();
    while (old != before.end() || now != after.end()) {
        const int order = old == before.end() ? 1 : now == after.end() ? -1 : pathOf(**old).compare(pathOf(**now));
        if (order < 0) {
            gone.push_back(*old++);
        } else if (order > 0) {
            fresh.push_back(*now++);
        } else {
            if (*old != *now) {
                gone.push_back(*old);
                fresh.push_back(*now);
            }
            ++old;
            ++now;
        }
    }
}

void addPlugIns(const std::shared_ptr<const BundleRecord>& bundle, PluginList& list) {
    for (std::size_t index = 0; index < bundle->plugIns().size(); ++index) list.push_back(proxy(bundle, index));
}

}  // namespace

Snapshot::Snapshot(Applications applications, Bundles bundles, SdkParts& sdks)
    : applications_{std::move(applications)},
      bundles_{std::move(bundles)},
      applicationPaths_{arrange(applications_)},
      bundlePaths_{arrange(bundles_)} {
    plugIns_.reserve(bundles_.size());
    for (const auto& bundle : bundles_) addPlugIns(bundle, plugIns_);
    uuids_.reserve(plugIns_.size());
    identifiers_.reserve(plugIns_.size());
    for (std::uint32_t number = 0; number < plugIns_.size(); ++number) {
        const PlugInFacts& facts = record(number).facts();
        uuids_.add(std::hash<value::Uuid>{}(facts.uuid), number);
        identifiers_.add(text::numericHash(facts.identifier), number);
        indexPoints(number, facts, sdks);
    }
    uuids_.seal();
    identifiers_.seal();
}

void Snapshot::indexPoints(std::uint32_t number, const PlugInFacts& facts, SdkParts& sdks) {
    bool isAny = facts.anyPoint;
    const auto add = [&](const std::string& name) {
        std::string key = text::numericKey(name);
        if (isAny || (hasTooManyPoints() && points_.count(key) == 0)) {
            isAny = true;
            return;
        }
        Numbers& numbers = points_[std::move(key)];
        INVARIANT(numbers.empty() || numbers.back() <= number);
        if (numbers.empty() || numbers.back() != number) numbers.push_back(number);
    };
    if (facts.extensionPoint) {
        add(*facts.extensionPoint);
        for (const std::string& name : sdks.of(*facts.extensionPoint).names) add(name);
    }
    for (const std::string& name : facts.pointNames) add(name);
    if (isAny) anyPoint_.push_back(number);
}

std::shared_ptr<const ApplicationRecord> Snapshot::application(const std::string& path) const {
    return findByPath(applications_, applicationPaths_, path);
}

std::shared_ptr<const BundleRecord> Snapshot::bundle(const std::string& path) const {
    return findByPath(bundles_, bundlePaths_, path);
}

std::shared_ptr<const DVVeltoProxy> Snapshot::plugIn(const value::Uuid& uuid) const {
    for (const auto& entry : uuids_.candidates(std::hash<value::Uuid>{}(uuid))) {
        if (plugIns_[entry.number]->pluginUUID() == uuid) return plugIns_[entry.number];
    }
    return nullptr;
}

Snapshot::Numbers Snapshot::withIdentifiers(const std::vector<std::string>& identifiers) const {
    // Names that compare as equivalent are looked for once, however often they were given.
    std::vector<std::pair<std::uint64_t, const std::string*>> wanted;
    wanted.reserve(identifiers.size());
    for (const std::string& identifier : identifiers) wanted.emplace_back(text::numericHash(identifier), &identifier);
    const auto before = [](const auto& a, const auto& b) { return a.first < b.first; };
    const auto same = [](const auto& a, const auto& b) { return a.first == b.first && isSame(*a.second, *b.second); };
    std::sort(wanted.begin(), wanted.end(), before);
    wanted.erase(std::unique(wanted.begin(), wanted.end(), same), wanted.end());

    Numbers numbers;
    for (const auto& [hash, name] : wanted) {
        for (const auto& entry : identifiers_.candidates(hash)) {
            if (!effort::take(1)) break;
            if (isSame(plugIns_[entry.number]->pluginIdentifier(), *name)) numbers.push_back(entry.number);
        }
    }
    if (wanted.size() > 1) sortUnique(numbers);
    INVARIANT(ascends(numbers));
    return numbers;
}

std::vector<const Snapshot::Numbers*> Snapshot::atPoints(const std::vector<std::string>& points) const {
    std::vector<const Numbers*> lists;
    for (const std::string& wanted : points) {
        const auto found = points_.find(text::numericKey(wanted));
        if (found != points_.end()) lists.push_back(&found->second);
    }
    if (lists.size() > 1) {  // one for each distinct name
        std::sort(lists.begin(), lists.end(), std::less<>{});
        lists.erase(std::unique(lists.begin(), lists.end()), lists.end());
    }
    if (!points.empty() && !anyPoint_.empty()) lists.push_back(&anyPoint_);
    return lists;
}

Snapshot::Numbers Snapshot::narrow(const std::optional<std::vector<std::string>>& identifiers,
                                   const std::optional<std::vector<std::string>>& points) const {
    const std::size_t names = (identifiers ? identifiers->size() : 0) + (points ? points->size() : 0);
    static_cast<void>(effort::take(names * kUnitsAName));
    Numbers numbers;
    if (identifiers) {
        numbers = withIdentifiers(*identifiers);
        if (!points || numbers.empty()) return numbers;
        const auto lists = atPoints(*points);
        const auto keep = [&](const auto& isThere) {
            const auto elsewhere = [&](std::uint32_t number) { return !isThere(number); };
            numbers.erase(std::remove_if(numbers.begin(), numbers.end(), elsewhere), numbers.end());
        };
        if (lists.size() <= kFewLists) {
            keep([&](std::uint32_t number) {
                return std::any_of(lists.begin(), lists.end(), [&](const Numbers* list) {
                    return std::binary_search(list->begin(), list->end(), number);
                });
            });
        } else {
            keep([set = unionOf(lists)](std::uint32_t number) { return set[number]; });
        }
    } else if (points) {
        const auto lists = atPoints(*points);
        INVARIANT(lists.empty() || ascends(*lists.front()));
        if (lists.size() == 1) return *lists.front();
        if (lists.empty()) return numbers;
        const std::vector<bool> set = unionOf(lists);
        for (std::uint32_t number = 0; number < set.size(); ++number) {
            if (set[number]) numbers.push_back(number);
        }
    } else {
        numbers.resize(plugIns_.size());
        for (std::uint32_t number = 0; number < numbers.size(); ++number) numbers[number] = number;
    }
    return numbers;
}

std::vector<bool> Snapshot::unionOf(const std::vector<const Numbers*>& lists) const {
    std::vector<bool> set(plugIns_.size());
    for (const Numbers* const list : lists) {
        static_cast<void>(effort::take(list->size()));
        for (const std::uint32_t number : *list) set[number] = true;
    }
    return set;
}

Snapshot::Place Snapshot::at(const std::string& path) const {
    Place place;
    const auto add = [&path](const auto& records, auto& found) {
        for (auto at = firstFrom(records, path); at != records.end() && pathOf(**at).starts_with(path); ++at) {
            if (pathOf(**at) == path || file::isBeneath(pathOf(**at), path)) found.push_back(*at);
        }
    };
    add(applications_, place.applications);
    add(bundles_, place.bundles);
    return place;
}

std::vector<std::string> Snapshot::entriesOf(const std::string& directory) const {
    std::set<std::string> names;
    const std::string prefix = directory + "/";
    const auto collect = [&](const auto& records) {
        for (auto at = firstFrom(records, prefix); at != records.end() && pathOf(**at).starts_with(prefix); ++at) {
            names.insert(pathOf(**at).substr(prefix.size(), pathOf(**at).find('/', prefix.size()) - prefix.size()));
        }
    };
    collect(applications_);
    collect(bundles_);
    return {names.begin(), names.end()};
}

PluginList Snapshot::plugInsWithin(const std::string& applicationPath) const {
    // What lies beneath one path is one run of the list.
    const std::string prefix = applicationPath + "/";
    PluginList found;
    for (auto at = firstFrom(bundles_, prefix); at != bundles_.end() && (*at)->path().starts_with(prefix); ++at) {
        const auto& application = (*at)->application();
        if (application && application->bundlePath() == applicationPath) addPlugIns(*at, found);
    }
    return found;
}

Difference difference(const Snapshot& before, const Snapshot& after, Replacements replacements) {
    const auto same = [replacements](const BundleRecord& a, const BundleRecord& b) {
        return sameContent(a, b) && (replacements == Replacements::pass || sameDirectory(a, b));
    };
    Difference changes;
    compare(before.applications(), after.applications(), changes.applicationsGone, changes.applicationsNew);
    compare(before.bundles(), after.bundles(), changes.bundlesGone, changes.bundlesNew);
    for (const auto& bundle : changes.bundlesGone) {
        const auto now = after.bundle(bundle->path());
        if (!now || !same(*bundle, *now)) addPlugIns(bundle, changes.plugInsGone);
    }
    for (const auto& bundle : changes.bundlesNew) {
        const auto old = before.bundle(bundle->path());
        if (!old || !same(*old, *bundle)) addPlugIns(bundle, changes.plugInsNew);
    }
    return changes;
}

}  // namespace dravo
