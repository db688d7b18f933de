#include "Velto/VTIssueReadExtension.h"

#include "platform/sandbox/Sandbox.h"

std::optional<std::string> VTIssueReadExtension(const std::string& url, const std::string& within) {
    return sandbox::issueFileExtension(sandbox::kReadOnlyFileClass, url, within);
}
