#include "vtctl/Diagnosis.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "Velto/VTInfoKeys.h"
#include "platform/bundle/Bundle.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/file/File.h"
#include "platform/paths/Paths.h"
#include "platform/plist/Plist.h"
#include "platform/text/Format.h"
#include "vtctl/Nearest.h"

namespace diagnosis {

namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;

constexpr char kDataProtocol[] = "#Data";
constexpr char kObjectClass[] = "KXObject";
constexpr char kOwnIdentifier[] = "KXExtensionIdentifier";

const Names kBundleKeys{
    bundle::kIdentifierKey,  bundle::kExecutableKey, bundle::kVersionKey,           bundle::kNameKey,
    bundle::kDisplayNameKey, VTInfoKey::extension,   VTInfoKey::shortVersionString, VTInfoKey::moxService,
    VTInfoKey::oldStyle};
const Names kPlugInKeys{VTInfoKey::extensionPoint,  VTInfoKey::attributes,
                        VTInfoKey::protocol,        VTInfoKey::principalClass,
                        VTInfoKey::embeddedCode,    VTInfoKey::embeddedProtocol,
                        VTInfoKey::dedicated,       VTInfoKey::passProxy,
                        VTInfoKey::shared,          VTInfoKey::multiple,
                        VTInfoKey::hostEntitlement, VTInfoKey::hubProtocolVersion,
                        VTInfoKey::cleanTimeout,    kOwnIdentifier};
const Names kAttributeKeys{VTInfoKey::version, VTInfoKey::format, VTInfoKey::pointName, VTInfoKey::requestsOpenAccess};

std::string kindOf(const value::Value& value) {
    if (value.string() != nullptr) return "a string";
    if (value.array() != nullptr) return "an array";
    if (value.dictionary() != nullptr) return "a dictionary";
    if (value == value::Value{true} || value == value::Value{false}) return "a boolean";
    return value.isNumber() ? "a number" : "data or a date";
}

bool equalsIgnoringCase(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

std::string sdkFile(const std::string& point) {
    return paths::directories().systemVolume + "/SDKs/" + point + ".plist";
}

// The bundle of one plug-in, looked at from its files down to its keys.
class Look {
public:
    Look(std::string path, std::vector<Problem>& problems)
        : path_{std::move(path)}, info_{path_ + '/' + bundle::kInfoFile}, problems_{problems} {}

    void at() {
        struct stat status {};
        if (::stat(path_.c_str(), &status) != 0) return fault(path_, {}, "there is nothing here that can be seen");
        if (!S_ISDIR(status.st_mode)) return fault(path_, {}, "is no folder, and so no bundle");
        const auto info = read();
        if (!info) return;
        identifier(*info);
        misspelt(*info, kBundleKeys, {});
        extension(*info);
        if (!isData_) executable(*info);
        entitlements();
    }

private:
    void add(Problem::Kind kind, const std::string& file, std::string key, std::string what, std::string remedy) {
        problems_.push_back({kind, file, std::move(key), std::move(what), std::move(remedy)});
    }
    void fault(const std::string& file, std::string key, std::string what, std::string remedy = {}) {
        add(Problem::Kind::fault, file, std::move(key), std::move(what), std::move(remedy));
    }
    void oddity(const std::string& file, std::string key, std::string what, std::string remedy = {}) {
        add(Problem::Kind::oddity, file, std::move(key), std::move(what), std::move(remedy));
    }

    std::optional<value::Dictionary> read() {
        const auto contents = file::readRegular(info_, bundle::kInfoLimit);
        if (!contents) {
            const auto other = otherInfo();
            if (other) {
                fault(path_ + '/' + *other, {}, text::format("is not called {}, as it must be", bundle::kInfoFile),
                      "rename it");
            } else {
                fault(info_, {}, contents.error().localizedDescription());
            }
            return {};
        }
        const auto list = plist::read(contents->bytes, {.bytes = bundle::kInfoLimit, .values = bundle::kInfoValues});
        if (!list) {
            fault(info_, {}, list.error().localizedDescription());
            return {};
        }
        if (list->dictionary() == nullptr) {
            fault(info_, {}, "is " + kindOf(*list) + "; a dictionary is wanted");
            return {};
        }
        return *list->dictionary();
    }

    std::optional<std::string> otherInfo() const {
        std::error_code error;
        for (fs::directory_iterator entry{path_, error}, end; !error && entry != end; entry.increment(error)) {
            const std::string name = entry->path().filename().string();
            if (name != bundle::kInfoFile && equalsIgnoringCase(name, bundle::kInfoFile)) return name;
        }
        return {};
    }

    // Of keys that nobody reads, those that somebody was probably meant to.
    void misspelt(const value::Dictionary& dictionary, const Names& known, const std::string& above) {
        for (const auto& entry : dictionary) {
            if (known.count(entry.key) > 0) continue;
            const auto meant = nearest::to(entry.key, known);
            if (!meant || dictionary.contains(*meant)) continue;
            oddity(info_, above + entry.key, text::format("nobody reads this key; {} is read", *meant), "rename it");
        }
    }

    void wantText(const value::Dictionary& dictionary, const char* key, const std::string& above) {
        const value::Value* const found = dictionary.find(key);
        if (found == nullptr || found->string() != nullptr) return;
        fault(info_, above + key, "is " + kindOf(*found) + "; a string is wanted");
    }

    void identifier(const value::Dictionary& info) {
        wantText(info, bundle::kIdentifierKey, {});
        if (info.contains(bundle::kIdentifierKey)) return;
        const value::Dictionary* const top = info.dictionary(VTInfoKey::extension);
        const bool isNamed = top != nullptr && (top->string(kOwnIdentifier) != nullptr || top->contains("Multiple"));
        if (!isNamed) fault(info_, bundle::kIdentifierKey, "is missing: the plug-in has no name", "add it");
    }

    void extension(const value::Dictionary& info) {
        const value::Value* const found = info.find(VTInfoKey::extension);
        if (found == nullptr) {
            if (!info.contains(VTInfoKey::oldStyle)) {
                fault(info_, VTInfoKey::extension, "is missing: this is no plug-in",
                      "add it, or rename what was meant");
            }
            return;
        }
        const value::Dictionary* const top = found->dictionary();
        if (top == nullptr) {
            return fault(info_, VTInfoKey::extension, "is " + kindOf(*found) + "; a dictionary is wanted");
        }
        const std::string above = std::string{VTInfoKey::extension} + '.';
        const value::Value* const multiple = top->find(VTInfoKey::multiple);
        if (multiple == nullptr) return plugIn(*top, above);
        const value::Dictionary* const all = multiple->dictionary();
        const std::string key = above + VTInfoKey::multiple;
        if (all == nullptr || all->empty()) {
            return fault(info_, key, "is " + kindOf(*multiple) + "; a dictionary of plug-ins is wanted");
        }
        for (const auto& entry : *all) {
            const value::Dictionary* const one = entry.value.dictionary();
            const std::string own = key + '.' + entry.key;
            if (one != nullptr) plugIn(*one, own + '.');
            if (one == nullptr) fault(info_, own, "is " + kindOf(entry.value) + "; a dictionary is wanted");
        }
    }

    void plugIn(const value::Dictionary& own, const std::string& above) {
        misspelt(own, kPlugInKeys, above);
        for (const char* key : {VTInfoKey::extensionPoint, VTInfoKey::protocol}) wantText(own, key, above);
        const value::Dictionary sdk = extensionPoint(own, above);
        protocol(own, sdk, above);
        for (const char* key : {VTInfoKey::passProxy, VTInfoKey::embeddedCode}) {
            if (own.contains(key)) fault(info_, above + key, "no plug-in of this platform may have it", "take it out");
        }
        if (const value::Value* const found = own.find(VTInfoKey::attributes)) {
            if (found->dictionary() == nullptr) {
                fault(info_, above + VTInfoKey::attributes, "is " + kindOf(*found) + "; a dictionary is wanted");
            } else {
                misspelt(*found->dictionary(), kAttributeKeys, above + VTInfoKey::attributes + '.');
            }
        }
        const value::Value* const demanded = own.find(VTInfoKey::hostEntitlement);
        if (demanded != nullptr && demanded->string() == nullptr) {
            fault(info_, above + VTInfoKey::hostEntitlement,
                  "is " + kindOf(*demanded) + ", which no host holds; a string is wanted");
        }
        shared(own, above);
    }

    // What the extension point says of its plug-ins; empty when that is not known.
    value::Dictionary extensionPoint(const value::Dictionary& own, const std::string& above) {
        const std::string key = above + VTInfoKey::extensionPoint;
        if (!own.contains(VTInfoKey::extensionPoint)) {
            oddity(info_, key, "is missing: hosts ask by extension point, and will not find it");
            return {};
        }
        const std::string* const point = own.string(VTInfoKey::extensionPoint);
        if (point == nullptr) return {};
        const auto sdk = plist::readFile(sdkFile(*point));
        if (sdk && sdk->dictionary() != nullptr) {
            const value::Dictionary* const extension = sdk->dictionary()->dictionary(VTInfoKey::extension);
            return extension != nullptr ? *extension : value::Dictionary{};
        }
        if (fs::exists(sdkFile(*point))) {
            fault(sdkFile(*point), {}, sdk ? "is no dictionary" : sdk.error().localizedDescription());
            return {};
        }
        const auto meant = nearest::to(*point, points());
        oddity(info_, key, text::format("there is no extension point \"{}\"", *point),
               meant ? text::format("did you mean {}?", *meant) : "");
        return {};
    }

    static Names points() {
        Names names;
        std::error_code error;
        const fs::path directory{paths::directories().systemVolume + "/SDKs"};
        for (fs::directory_iterator entry{directory, error}, end; !error && entry != end; entry.increment(error)) {
            if (entry->path().extension() == ".plist") names.insert(entry->path().stem().string());
        }
        return names;
    }

    void protocol(const value::Dictionary& own, const value::Dictionary& sdk, const std::string& above) {
        const bool isExtension = path_.ends_with(".appex");
        const std::string* const stated = own.string(VTInfoKey::protocol);
        const std::string* const inherited = sdk.string(VTInfoKey::protocol);
        const std::string* const used = stated != nullptr ? stated : inherited;
        isData_ = isData_ || (used != nullptr && *used == kDataProtocol);
        if (used == nullptr && !own.contains(VTInfoKey::protocol) && !isExtension) {
            fault(info_, above + VTInfoKey::protocol, "is missing, and the extension point brings none",
                  "add it, or call the bundle *.appex");
        }
        const std::string* const principal = own.string(VTInfoKey::principalClass);
        const bool isForeign = own.contains(VTInfoKey::principalClass) && (!principal || *principal != kObjectClass);
        if (isExtension && isForeign) {
            fault(info_, above + VTInfoKey::principalClass, text::format("can only be {} in *.appex", kObjectClass),
                  "take it out");
        }
    }

    void shared(const value::Dictionary& own, const std::string& above) {
        const value::Value* const found = own.find(VTInfoKey::shared);
        if (found == nullptr) return;
        const std::string key = above + VTInfoKey::shared;
        const auto judge = [&](const value::Value& element) {
            const std::string* const name = element.string();
            if (name == nullptr) {
                oddity(info_, key, "has " + kindOf(element) + ", which shares nothing");
            } else if (name->starts_with('/')) {
                oddity(info_, key, text::format("\"{}\" is absolute; paths are those inside the bundle", *name));
            } else if (::access((path_ + '/' + *name).c_str(), F_OK) != 0) {
                oddity(info_, key, text::format("there is no \"{}\" in the bundle", *name));
            }
        };
        if (found->array() == nullptr) return judge(*found);
        for (const value::Value& element : *found->array()) judge(element);
    }

    void executable(const value::Dictionary& info) {
        wantText(info, bundle::kExecutableKey, {});
        const std::string* const name = info.string(bundle::kExecutableKey);
        if (name == nullptr) {
            if (info.contains(bundle::kExecutableKey)) return;
            return fault(info_, bundle::kExecutableKey, "is missing: the plug-in is offered, but cannot be started");
        }
        const auto path = bundle::executableInBundle(path_, info);
        if (!path) {
            return fault(info_, bundle::kExecutableKey,
                         text::format("\"{}\" is no file name; the executable lies directly in the bundle", *name));
        }
        struct stat status {};
        if (::lstat(path->c_str(), &status) != 0) {
            fault(*path, {}, text::format("is missing, though {} names it", bundle::kExecutableKey));
        } else if (!S_ISREG(status.st_mode)) {
            fault(*path, {}, "is no regular file, and cannot be started");
        } else if (::access(path->c_str(), X_OK) != 0) {
            fault(*path, {}, "may not be executed", text::format("chmod a+x {}", *path));
        }
    }

    void entitlements() {
        const file::UniqueFd directory{::open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
        if (!directory) return;
        if (const auto held = entitlements::ofBundle(directory.get(), path_); !held) {
            fault(path_ + '/' + entitlements::kFile, {}, held.error().localizedDescription(),
                  "it counts for nothing until that is mended");
        }
    }

    const std::string path_;
    const std::string info_;
    std::vector<Problem>& problems_;
    bool isData_ = false;
};

}  // namespace

std::vector<Problem> ofPath(const std::string& path) {
    std::vector<Problem> problems;
    if (!fs::path{path}.filename().string().ends_with(".app")) {
        Look{path, problems}.at();
        return problems;
    }
    std::set<std::string> inside;
    std::error_code error;
    for (fs::directory_iterator entry{path + "/PlugIns", error}, end; !error && entry != end; entry.increment(error)) {
        if (entry->is_directory(error)) inside.insert(entry->path().string());
    }
    if (inside.empty()) {
        problems.push_back({Problem::Kind::oddity, path + "/PlugIns", {}, "the application has no plug-ins", {}});
    }
    for (const std::string& plugIn : inside) Look{plugIn, problems}.at();
    return problems;
}

}  // namespace diagnosis
