#include "Velto/VTIssueReadExtension.h"

std::optional<std::string> VTIssueReadExtension(const std::string& url) {
    return sandbox::issueFileExtension(sandbox::kReadOnlyFileClass, url);
}

std::optional<std::string> VTIssueReadExtension(const std::string& directory, const std::string& name,
                                                const sandbox::OpenDirectory& open) {
    return sandbox::issueFileExtensionBeneath(sandbox::kReadOnlyFileClass, directory, name, open);
}
