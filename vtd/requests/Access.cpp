#include <cerrno>
#include <utility>

#include "Velto/VTIssueReadExtension.h"
#include "Velto/VTProtocol.h"
#include "platform/text/Format.h"
#include "vtd/Transaction.h"
#include "vtd/VTDPlugIn.h"

// Neither holds nor host authorization are asked: whoever can name a plug-in may read its bundle.
void Transaction::accessPlugIns() {
    value::Array::Storage tokens;
    const bool all = processUuidList([&](const std::shared_ptr<VTDPlugIn>& plugIn) {
        errno = 0;
        auto token = VTIssueReadExtension(plugIn->url(), ".", [&] { return plugIn->dvproxy()->openBundle(); });
        if (!token) {
            const int reason = errno;
            fail(VTErrorRequest, text::format("cannot create extension to {}: {}", plugIn->path(), reason));
            return false;
        }
        tokens.emplace_back(*std::move(token));
        return true;
    });
    if (!all) return;
    reply().set(VTKey::extensions, value::Array{std::move(tokens)});
    done();
}
