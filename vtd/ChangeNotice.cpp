#include "vtd/ChangeNotice.h"

#include "Velto/VTProtocol.h"
#include "platform/logging/Log.h"
#include "platform/notify/Notify.h"
#include "platform/text/Format.h"

void postAnnotationChange(std::uint64_t times) {
    if (const auto error = notify::post(VTAnnotationChangeNotification, times)) {
        logging::error(
            text::format("unable to post {}: {}", VTAnnotationChangeNotification, error->localizedDescription()));
    }
}
