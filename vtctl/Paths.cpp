#include "vtctl/Paths.h"

#include <filesystem>
#include <system_error>

#include "platform/text/Utf8.h"
#include "vtctl/Terminal.h"

std::optional<std::vector<std::string>> absolutePaths(const std::vector<std::string>& paths) {
    std::vector<std::string> result;
    for (const std::string& path : paths) {
        std::error_code error;
        const std::string absolute = std::filesystem::absolute(path, error).string();
        if (path.empty() || error) {
            terminal::complain(path.empty() ? "a path cannot be empty"
                                            : '"' + path + "\" cannot be made absolute: " + error.message());
            return {};
        }
        if (!text::isUtf8(absolute)) {
            terminal::complain('"' + absolute + "\" is not in UTF-8, as the daemon's paths are");
            return {};
        }
        result.push_back(absolute);
    }
    return result;
}
