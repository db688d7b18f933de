#include "Velto/VTIssueReadExtension.h"

#include "platform/sandbox/Sandbox.h"

std::optional<std::string> VTIssueReadExtension(const std::string& url) {
    return sandbox::issueFileExtension(sandbox::kReadOnlyFileClass, url);
}
