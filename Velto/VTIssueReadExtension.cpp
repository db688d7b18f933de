#include "Velto/VTIssueReadExtension.h"

std::optional<std::string> VTIssueReadExtension(const std::string& url) {
    return sandbox::issueFileExtension(sandbox::kReadOnlyFileClass, url);
}

std::optional<std::string> VTIssueReadExtension(const file::UniqueFd& directory, const std::string& path,
                                                const std::string& name) {
    return sandbox::issueFileExtensionBeneath(sandbox::kReadOnlyFileClass, directory, path, name);
}

std::optional<std::string> VTIssueReadExtension(const std::string& url, const file::Identity& identity) {
    return sandbox::issueFileExtension(sandbox::kReadOnlyFileClass, url, identity);
}
