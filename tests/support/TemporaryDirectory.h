#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/plist/Plist.h"

namespace support {

// A directory of one test's own, removed with all that is in it. No part of its path is a link, and what is made from
// then on only its owner may write, unless a test says otherwise.
class TemporaryDirectory {
public:
    TemporaryDirectory()
        : path_{std::filesystem::canonical(std::filesystem::temp_directory_path()) / "vtd-test-XXXXXX"} {
        ::umask(022);
        if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error{"no temporary directory"};
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string{name}; }

    // Writes a file below, with the directories that it needs, and answers its path.
    std::string write(std::string_view name, std::string_view bytes) const {
        const std::filesystem::path file = *this / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream stream{file, std::ios::binary};
        stream << bytes;
        if (!stream.flush()) throw std::runtime_error{"cannot write " + file.string()};
        return file;
    }
    std::string writeList(std::string_view name, const value::Value& root) const {
        return write(name, *plist::writeXml(root));
    }

private:
    std::string path_;
};

}  // namespace support
