#include "platform/dravo/scan/InfoFile.h"

#include "platform/bundle/Bundle.h"
#include "platform/digest/Fnv1a.h"
#include "platform/effort/Effort.h"
#include "platform/file/File.h"
#include "platform/plist/Plist.h"

namespace dravo {

value::Result<InfoFile> readInfoFile(int bundleDirectory) {
    const auto contents = file::readRegularBeneath(bundleDirectory, bundle::kInfoFile, bundle::kInfoLimit);
    if (!contents) return contents.error();
    static_cast<void>(effort::take(effort::kFileOpened + effort::ofParsing(contents->bytes.size())));
    const auto root = plist::read(contents->bytes, {.bytes = bundle::kInfoLimit, .values = bundle::kInfoValues});
    if (!root) return root.error();
    const value::Dictionary* const dictionary = (*root).dictionary();
    if (!dictionary) return value::Error{"dravo", 0, std::string{bundle::kInfoFile} + " is no dictionary"};
    return InfoFile{*dictionary, digest::fnv1a(contents->bytes), contents->stamp, contents->settled};
}

}  // namespace dravo
