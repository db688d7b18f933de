#include <cmath>
#include <string>

#include "Velto/VTProtocol.h"
#include "Velto/VTValueHelpers.h"
#include "vtd/Transaction.h"
#include "vtd/VTDAnnotationStore.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDPlugIn.h"
#include "vtd/VTDServer.h"

namespace {
constexpr char kElection[] = "election";
constexpr char kExtension[] = "extension";

// The extension travels with the plug-in's form in every discovery of every host, and is saved with every choice.
constexpr std::size_t kLargestExtension = std::size_t{64} << 10;  // bytes, encoded

// Whether the annotation file can hold it: no UUID, no text that XML lacks.
bool isStorable(mox::View extension) {
    return extension.isDictionary() && extension.size() <= kLargestExtension &&
           VTDAnnotationStore::isStorable(extension.toValue());
}

// Nothing when it is no number, or one that no choice can be.
std::optional<value::Value> electionOf(mox::View sent) {
    if (!sent.boolean() && !sent.signedInteger() && !sent.unsignedInteger() && !sent.real()) return {};
    if (std::isnan(sent.real().value_or(0))) return {};
    return sent.toValue();
}

}  // namespace

// Everything is checked before anything is stored, and what cannot all be stored is not stored at all. A UUID that
// names no plug-in leaves those before it annotated. The reply leaves behind the save, so that what was answered is on
// the disk.
void Transaction::annotatePlugIns() {
    const auto sent = mox_dictionary_get_dictionary(request(), VTKey::annotations);
    if (!sent) return fail(VTErrorRequest, "invalid request format (bad annotations dictionary)");

    value::Dictionary::Builder update;
    std::string electionText = "(null)";
    // Either in plain or in message form, which stand for the same.
    if (const auto found = sent->find(kElection)) {
        const auto election = electionOf(found->plain());
        if (!election) return fail(VTErrorRequest, "invalid request format (annotation election)");
        electionText = description(*election);
        update.set(kElection, *election);
    }
    if (const auto extension = sent->find(kExtension)) {
        if (!isStorable(extension->plain()))
            return fail(VTErrorRequest, "invalid request format (annotation extension)");
        update.set(kExtension, extension->toValue());
    }
    if (update.size() == 0) return done();

    const value::Dictionary annotation = std::move(update).build();
    const bool all = processUuidList([&](const std::shared_ptr<VTDPlugIn>& plugIn) {
        server()->log("client {} plug-in {} election := {}", client()->pid(), plugIn->identifier(), electionText);
        const auto refused = annotationRound_.set(annotation, *plugIn);
        if (!refused) return true;
        annotationRound_.withdraw();
        fail(VTErrorRequest, *refused);
        return false;
    });
    if (all) done();
}
