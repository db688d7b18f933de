#include <filesystem>

#include "Velto/VTInfoKeys.h"
#include "platform/text/Format.h"
#include "vtctl/verify/Verify.h"

namespace verify {

namespace {

constexpr std::size_t kMostBytes = std::size_t{4} << 20;
constexpr std::size_t kMostValues = 1'000'000;

}  // namespace

void judgeExtensionPoint(const std::string& path, Problems& problems) {
    Findings findings{path, problems};
    const std::filesystem::path file{path};
    if (file.parent_path() != sdkDirectory()) findings.add(Rule::wrongPlace, {}, {});
    const auto whole = findings.read(kMostBytes, kMostValues);
    if (!whole) return;
    const plist::Path top{VTInfoKey::extension};
    findings.judgeKeys(*whole, Level::bundle, {}, {Level::plugIn, Level::attributes});
    const value::Dictionary* const extension = whole->dictionary(VTInfoKey::extension);
    if (extension == nullptr) {
        if (!whole->contains(VTInfoKey::extension)) {
            findings.add(Rule::noExtension, top, {"is missing: the file says nothing of its plug-ins"});
        }
        return;
    }
    findings.judgeKeys(*extension, Level::plugIn, top, {Level::attributes});
    const plist::Path at = top / VTInfoKey::attributes;
    const value::Dictionary* const attributes = extension->dictionary(VTInfoKey::attributes);
    if (attributes != nullptr) findings.judgeKeys(*attributes, Level::attributes, at, {Level::plugIn});
    const std::string name = file.stem().string();
    const std::string* const stated = attributes != nullptr ? attributes->string(VTInfoKey::pointName) : nullptr;
    const bool isNamed = attributes != nullptr &&
                         (attributes->array(VTInfoKey::pointName) != nullptr || (stated != nullptr && *stated == name));
    if (isNamed) return;
    findings.add(
        Rule::pointName, at / VTInfoKey::pointName,
        {stated != nullptr ? text::format("is \"{}\", though the file is {}", *stated, file.filename().string())
                           : "is missing: hosts that ask by it find none of the plug-ins",
         text::format("set it to {}", name), name});
}

}  // namespace verify
