#include <cerrno>
#include <unordered_map>
#include <utility>

#include "Velto/VTIssueReadExtension.h"
#include "Velto/VTProtocol.h"
#include "Velto/VTValueHelpers.h"
#include "platform/mox/Encoder.h"
#include "platform/text/Format.h"
#include "vtd/Transaction.h"
#include "vtd/VTDPlugIn.h"

// Neither holds nor host authorization are asked: whoever can name a plug-in may read its bundle.
void Transaction::accessPlugIns() {
    std::unordered_map<value::Uuid, value::Value> tokenOf;  // one for each plug-in, however often it is named
    const bool all = processUuidList([&](const std::shared_ptr<VTDPlugIn>& plugIn) {
        static_cast<void>(account().take(effort::kFileOpened));
        const auto bundle = plugIn->dvproxy()->openBundle();
        errno = bundle ? 0 : static_cast<int>(bundle.error().code);
        auto token = bundle ? VTIssueReadExtension(*bundle, plugIn->url(), ".") : std::nullopt;
        if (!token) {
            const int reason = errno;
            if (!mustBeCurrent(*plugIn)) return false;
            fail(VTErrorRequest, text::format("cannot create extension to {}: {}", plugIn->path(), reason));
            return false;
        }
        tokenOf.emplace(plugIn->uuid(), *std::move(token));
        return true;
    });
    if (!all || !mayGoOn()) return;
    const auto uuids = mox_dictionary_get_array(request(), VTKey::uuids);
    std::size_t bytes = 0;
    uuids->forEachElement([&](mox::View element) { bytes += mox::encodedSize(tokenOf.at(*element.uuid())); });
    if (!reply().reserve(bytes)) return fail(VTErrorRequest, "invalid request (too many replies are not read)");
    value::Array::Storage tokens;
    tokens.reserve(uuids->count());
    uuids->forEachElement([&](mox::View element) { tokens.push_back(tokenOf.at(*element.uuid())); });
    reply().set(VTKey::extensions, value::Array{std::move(tokens)});
    done();
}
