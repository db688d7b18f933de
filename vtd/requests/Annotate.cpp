#include <cmath>
#include <string>

#include "Velto/VTProtocol.h"
#include "Velto/VTValueHelpers.h"
#include "platform/plist/Plist.h"
#include "vtd/Transaction.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDServer.h"

namespace {
constexpr char kElection[] = "election";
constexpr char kExtension[] = "extension";

// The extension travels with the plug-in's form in every discovery of every host, and is saved with every choice.
constexpr std::size_t kLargestExtension = std::size_t{64} << 10;  // bytes, encoded

// Whether the annotation file can hold it: no UUID, no text that XML lacks.
bool isStorable(const value::Value& extension) {
    return static_cast<bool>(plist::writeXml(extension));
}

}  // namespace

// Everything is checked before anything is stored. Each plug-in is then saved and announced by itself; the reply leaves
// behind the last save, so that what was answered is on the disk.
void Transaction::annotatePlugIns() {
    const auto sent = mox_dictionary_get_dictionary(request(), VTKey::annotations);
    if (!sent) return fail(VTErrorRequest, "invalid request format (bad annotations dictionary)");

    value::Dictionary::Builder update;
    std::string electionText = "(null)";
    if (const auto found = sent->find(kElection)) {
        const value::Value election = found->toValue();
        if (!election.isNumber() || std::isnan(election.real().value_or(0))) {
            return fail(VTErrorRequest, "invalid request format (annotation election)");
        }
        electionText = description(election);
        update.set(kElection, election);
    }
    if (const auto extension = sent->find(kExtension)) {
        if (!extension->isDictionary() || extension->size() > kLargestExtension || !isStorable(extension->toValue())) {
            return fail(VTErrorRequest, "invalid request format (annotation extension)");
        }
        update.set(kExtension, extension->toValue());
    }
    if (update.size() == 0) return done();

    const value::Dictionary annotation = std::move(update).build();
    const bool all = processUuidList([&](const std::shared_ptr<VTDPlugIn>& plugIn) {
        server()->log("client {} plug-in {} election := {}", client()->pid(), plugIn->identifier(), electionText);
        static_cast<void>(server()->setAnnotation(annotation, *plugIn));  // never an error
        return true;
    });
    if (all) done();
}
