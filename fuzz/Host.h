#pragma once

namespace fuzz {

// Makes a host of this program: describes the bundle that its executable lies in, just within the bounds of what a
// host may say of itself and of the plug-ins that it may use. Before it connects to anything.
void becomeHost();

}  // namespace fuzz
