#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Velto/VTDaemonClient.h"
#include "platform/mox/Object.h"
#include "vtctl/Explanations.h"

// Why a plug-in that somebody named, or missed, is not offered: told on standard error by every verb that meets one,
// from the daemon's explanations and from what lies on the disk.
namespace grounds {

// The reply to a discovery that is explained.
mox::Object ask(VTDaemonClient& client, const value::Dictionary& rules = {}, std::uint64_t flags = 0);

using Test = std::function<bool(const explanations::Explanation&)>;

// Of those that pass the test and are held back, at most `most`: by which gate, why, in which file and key, and who can
// change it; of bundles that were refused, all that is wrong with them. Whether there was one.
bool tell(const std::vector<explanations::Explanation>& all, const Test& test, std::size_t most = 20);

// What is wrong with bundles of which no host can hear: those that were refused, that serve no extension point, or lie
// where plug-ins are looked for and are not known.
void tellSuspects(const std::vector<explanations::Explanation>& all);

}  // namespace grounds
