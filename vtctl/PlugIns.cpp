#include "vtctl/PlugIns.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <set>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "Velto/VTForm.h"
#include "Velto/VTProtocol.h"
#include "Velto/VTValueHelpers.h"
#include "vtctl/Connection.h"
#include "vtctl/Explanations.h"
#include "vtctl/Grounds.h"
#include "vtctl/Nearest.h"
#include "vtctl/Terminal.h"

namespace plugins {

namespace {

struct Listed {
    PlugIn plugIn;
    std::string originalIdentifier;
};

std::optional<Listed> listedFrom(mox::View form) {
    const auto text = [form](const char* key) -> std::string {
        const auto found = form.find(key);
        return std::string{found ? found->string().value_or("") : ""};
    };
    const auto uuid = value::Uuid::parse(text(VTFormKey::uuid));
    if (!uuid) return {};
    const auto annotations = mox_dictionary_get_dictionary(form, VTFormKey::annotations);
    const auto election = annotations ? annotations->find("election") : std::nullopt;
    return Listed{{*uuid, text(VTFormKey::identifier), text(VTFormKey::version), text(VTFormKey::localizedName),
                   text(VTFormKey::path), election ? election->toValue().integerValue().value_or(0) : 0},
                  text(VTFormKey::originalIdentifier)};
}

mox::Object discover(VTDaemonClient& client, std::uint64_t flags) {
    mox::Dictionary request = client.request(VTRequest::match);
    request.set(VTKey::flags, flags);
    return sendAndWait(client, request);
}

// All that the user can choose about takes an entitlement to see: what is on hold, or meant for other hosts. Without
// it, what any host sees has to do, and a UUID names the rest.
mox::Object discover(VTDaemonClient& client, Which which) {
    if (which == Which::onePerIdentifier) return discover(client, std::uint64_t{0});
    constexpr std::uint64_t kCopies = VTDiscoverEveryVersion | VTDiscoverEveryCopy;
    const mox::Object everything = discover(client, kCopies | VTDiscoverAll);
    const auto error = everything.isError() ? std::nullopt : VTDaemonClient::errorInReply(everything);
    return error && error->code == VTErrorAccess ? discover(client, kCopies) : everything;
}

using Test = std::function<bool(const Listed&)>;

std::vector<const Listed*> select(const std::vector<Listed>& all, const Test& test) {
    std::vector<const Listed*> found;
    for (const Listed& one : all) {
        if (test(one)) found.push_back(&one);
    }
    return found;
}

std::vector<Listed> listedIn(const mox::Object& reply) {
    std::vector<Listed> all;
    const auto matches = reply.view().find(VTKey::matches);
    if (const auto forms = matches ? matches->message() : std::nullopt) {
        forms->forEachElement([&all](mox::View form) {
            if (auto one = listedFrom(form)) all.push_back(*std::move(one));
        });
    }
    return all;
}

// The first way of naming that finds anything decides.
std::vector<const Listed*> named(const std::vector<Listed>& all, const std::string& word) {
    const Test ways[] = {
        [&word](const Listed& one) { return one.plugIn.identifier == word; },
        [&word](const Listed& one) { return one.originalIdentifier == word; },
        [&word](const Listed& one) { return one.plugIn.identifier.find(word) != std::string::npos; },
    };
    for (const Test& way : ways) {
        if (auto found = select(all, way); !found.empty()) return found;
    }
    return {};
}

const std::string& identifierOf(const explanations::Explanation& one) {
    return one.identifier;
}

bool isAmbiguous(const std::vector<const Listed*>& found) {
    return std::any_of(found.begin(), found.end(), [&found](const Listed* one) {
        return one->plugIn.identifier != found.front()->plugIn.identifier;
    });
}

void reportAmbiguous(const std::string& word, std::vector<const Listed*> found) {
    std::sort(found.begin(), found.end(), [](const Listed* a, const Listed* b) {
        return std::tie(a->plugIn.identifier, a->plugIn.version) < std::tie(b->plugIn.identifier, b->plugIn.version);
    });
    terminal::complain('"' + word + "\" can be any of these; write one identifier in full, or a UUID:");
    std::vector<std::vector<std::string>> rows;
    rows.reserve(found.size());
    for (const Listed* one : found) {
        rows.push_back({terminal::shownOrDash(one->plugIn.identifier), terminal::shownOrDash(one->plugIn.version),
                        terminal::shownOrDash(one->plugIn.name), one->plugIn.uuid.string()});
    }
    terminal::printTable(rows, std::cerr, "    ");
}

// There may be one that is not offered; that it is called so is known to explanations.
void reportUnknown(VTDaemonClient& client, const std::string& word) {
    const mox::Object reply = grounds::ask(client);
    const auto all = reply.isError() ? std::nullopt : explanations::in(reply);
    const auto isCalledSo = [&](const auto& one) {
        return !word.empty() && one.identifier.find(word) != std::string::npos;
    };
    const bool isThere = all && std::any_of(all->begin(), all->end(), isCalledSo);
    std::set<std::string> names;
    if (all) std::transform(all->begin(), all->end(), std::inserter(names, names.end()), identifierOf);
    const auto meant = isThere ? std::nullopt : nearest::to(word, names);
    terminal::complain("no plug-in is called \"" + word + '"' +
                       (isThere
                            ? " that is offered; one that is not can be named by its UUID, which `vtctl explain` shows"
                        : meant ? "; did you mean " + *meant + "?"
                                : "; `vtctl match` lists those there are"));
    if (!all || word.empty()) return;
    if (!grounds::tell(*all, isCalledSo) && !isThere) grounds::tellSuspects(*all);
}

}  // namespace

std::string PlugIn::title() const {
    return terminal::shown(identifier.empty() ? uuid.string() : identifier);
}

Resolution resolve(VTDaemonClient& client, const std::string& serviceName, const std::vector<std::string>& words,
                   Which which) {
    const mox::Object reply = discover(client, which);
    if (const ExitStatus status = reportErrorIn(client, reply, serviceName); status != ExitStatus::success) {
        return {status, {}, {}};
    }
    const std::vector<Listed> all = listedIn(reply);
    // A UUID is also that of a copy that another one supersedes.
    std::optional<std::vector<Listed>> copies;
    const auto withUuid = [&](const value::Uuid& uuid) {
        const auto isIt = [&uuid](const Listed& one) { return one.plugIn.uuid == uuid; };
        if (const auto found = select(all, isIt); !found.empty()) return found.front()->plugIn;
        if (!copies) {
            copies = which == Which::allCopies ? std::vector<Listed>{} : listedIn(discover(client, Which::allCopies));
        }
        const auto found = select(*copies, isIt);
        return found.empty() ? PlugIn{uuid, {}, {}, {}, {}, 0} : found.front()->plugIn;
    };

    Resolution resolution;
    std::unordered_set<value::Uuid> taken;
    const auto take = [&](const PlugIn& plugIn) {
        if (taken.insert(plugIn.uuid).second) resolution.plugIns.push_back(plugIn);
    };
    for (const std::string& word : words) {
        if (const auto uuid = value::Uuid::parse(word)) {
            take(withUuid(*uuid));
            continue;
        }
        const auto found = word.empty() ? std::vector<const Listed*>{} : named(all, word);
        if (!found.empty() && !isAmbiguous(found)) {
            for (const Listed* one : found) take(one->plugIn);
            continue;
        }
        resolution.status = ExitStatus::usage;
        if (found.empty()) {
            reportUnknown(client, word);
        } else {
            reportAmbiguous(word, found);
        }
    }
    if (resolution.status != ExitStatus::success) resolution.plugIns.clear();
    for (const Listed& one : all) {
        if (taken.count(one.plugIn.uuid) == 0) resolution.others.push_back(one.plugIn);
    }
    return resolution;
}

std::vector<value::Uuid> uuidsOf(const std::vector<PlugIn>& plugIns) {
    std::vector<value::Uuid> uuids;
    uuids.reserve(plugIns.size());
    for (const PlugIn& plugIn : plugIns) uuids.push_back(plugIn.uuid);
    return uuids;
}

}  // namespace plugins
