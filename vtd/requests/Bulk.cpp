#include "Velto/VTProtocol.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDServer.h"

// No option is supported so far; asking for one does no harm.
void Transaction::bulkPlugIns() {
    const auto flags = request().find(VTKey::flags);
    server()->log("bulk options 0x{:x} not supported", flags ? flags->unsignedInteger().value_or(0) : std::uint64_t{0});
    done();
}
