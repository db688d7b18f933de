#pragma once

namespace memory {

// What was large has gone, or is about to: within seconds the heap's free memory goes back to the system, which the
// heap would keep where something small lies behind it. Cheap to call; any thread.
void giveBackSoon();

}  // namespace memory
