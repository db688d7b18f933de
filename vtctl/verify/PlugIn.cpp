#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>
#include <string_view>
#include <utility>

#include "Velto/VTInfoKeys.h"
#include "platform/bundle/Bundle.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/plist/Plist.h"
#include "platform/text/Format.h"
#include "vtctl/Nearest.h"
#include "vtctl/verify/Installed.h"
#include "vtctl/verify/Verify.h"

namespace verify {

namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;

constexpr char kDataProtocol[] = "#Data";
constexpr char kObjectClass[] = "KXObject";
constexpr char kOwnIdentifier[] = "KXExtensionIdentifier";
constexpr char kReplaced[] = "halvern.developer.replace-plugin";

std::optional<value::Dictionary> dictionaryIn(const fs::path& file) {
    const auto list = plist::readFile(file.string());
    return list && list->dictionary() != nullptr ? std::optional{*list->dictionary()} : std::nullopt;
}

bool anyInstalled(const char* file, const std::function<bool(const value::Dictionary&)>& test) {
    const auto holds = [&](const std::string& bundle) {
        const auto held = dictionaryIn(fs::path{bundle} / file);
        return held && test(*held);
    };
    const auto plugIns = installedPlugIns(), applications = installedApplications();
    return std::any_of(plugIns.begin(), plugIns.end(), holds) ||
           std::any_of(applications.begin(), applications.end(), holds);
}

bool isControl(unsigned char c) {
    return c < 0x20 || c == 0x7F;
}

bool couldBeIdentifier(const std::string& text) {
    return !text.empty() && text.size() <= bundle::kNameLimit && text.front() != ' ' && text.back() != ' ' &&
           std::none_of(text.begin(), text.end(), isControl);
}

class PlugIn {
public:
    PlugIn(std::string path, Problems& problems)
        : path_{std::move(path)},
          info_{path_ + '/' + bundle::kInfoFile, problems},
          entitlements_{path_ + '/' + entitlements::kFile, problems} {}

    void judge() {
        const auto info = readInfo(info_, path_);
        if (info) {
            info_.judgeKeys(*info, Level::bundle, {}, {Level::plugIn, Level::attributes});
            lists(*info, {});
            identifier(*info);
            extension(*info);
            service(*info);
            version(*info, VTInfoKey::shortVersionString, {});
            if (!isData_) judgeExecutable(info_, path_, *info);
        }
        if (const auto held = readEntitlements(entitlements_, path_, Level::plugInEntitlements)) replaced(*held);
    }

private:
    void lists(const value::Value& value, const plist::Path& at) {
        if (const value::Array* const list = value.array(); list != nullptr && list->size() > bundle::kListLimit) {
            info_.add(Rule::tooLong, at,
                      {text::format("has {} elements, more than {}", list->size(), bundle::kListLimit)});
        }
        if (const value::Dictionary* const dictionary = value.dictionary()) {
            for (const auto& [key, content] : *dictionary) lists(content, at / key);
        }
    }

    void named(const std::string& text, const plist::Path& key) {
        if (!couldBeIdentifier(text)) info_.add(Rule::badIdentifier, key, {});
    }

    void identifier(const value::Dictionary& info) {
        if (const std::string* const own = info.string(bundle::kIdentifierKey))
            return named(*own, {bundle::kIdentifierKey});
        if (info.contains(bundle::kIdentifierKey)) return;
        const value::Dictionary* const top = info.dictionary(VTInfoKey::extension);
        const bool isNamed =
            top != nullptr && (top->string(kOwnIdentifier) != nullptr || top->contains(VTInfoKey::multiple));
        if (!isNamed) info_.add(Rule::noIdentifier, {bundle::kIdentifierKey}, {"is missing: the plug-in has no name"});
    }

    void extension(const value::Dictionary& info) {
        const value::Value* const found = info.find(VTInfoKey::extension);
        const plist::Path at{VTInfoKey::extension};
        if (found == nullptr) {
            if (info.contains(VTInfoKey::oldStyle)) return;
            return info_.add(Rule::noExtension, at,
                             {"is missing: this is no plug-in", "add it, or rename what was meant"});
        }
        const value::Dictionary* const top = found->dictionary();
        if (top == nullptr) return;  // its kind was told
        const value::Value* const multiple = top->find(VTInfoKey::multiple);
        if (multiple == nullptr) return plugIn(*top, at);
        info_.judgeKeys(*top, Level::plugIn, at);
        const plist::Path all = at / VTInfoKey::multiple;
        const value::Dictionary* const entries = multiple->dictionary();
        if (entries == nullptr) return;
        if (entries->empty()) return info_.add(Rule::emptyMultiple, all, {});
        for (const auto& [key, entry] : *entries) {
            named(key, all / key);
            if (entry.dictionary() != nullptr) {
                plugIn(*entry.dictionary(), all / key);
            } else {
                info_.add(Rule::wrongKind, all / key,
                          {"is " + kindOf(entry) + "; a dictionary is wanted", {}, "dictionary"});
            }
        }
    }

    void plugIn(const value::Dictionary& own, const plist::Path& above) {
        info_.judgeKeys(own, Level::plugIn, above, {Level::attributes, Level::bundle});
        if (const std::string* const name = own.string(kOwnIdentifier)) named(*name, above / kOwnIdentifier);
        const value::Dictionary sdk = extensionPoint(own, above);
        protocol(own, sdk, above);
        const plist::Path at = above / VTInfoKey::attributes;
        if (const value::Dictionary* const attributes = own.dictionary(VTInfoKey::attributes)) {
            info_.judgeKeys(*attributes, Level::attributes, at, {Level::plugIn});
            version(*attributes, VTInfoKey::version, at);
        }
        const std::string* const demanded = own.string(VTInfoKey::hostEntitlement);
        const auto holds = [&](const value::Dictionary& held) { return held.contains(*demanded); };
        if (demanded != nullptr && !anyInstalled(entitlements::kFile, holds)) {
            info_.add(Rule::unheldEntitlement, above / VTInfoKey::hostEntitlement,
                      {text::format("no installed application holds \"{}\"", *demanded)});
        }
        shared(own, above);
    }

    // What the extension point says of its plug-ins; empty when that is not known.
    value::Dictionary extensionPoint(const value::Dictionary& own, const plist::Path& above) {
        const plist::Path at = above / VTInfoKey::extensionPoint;
        const std::string* const point = own.string(VTInfoKey::extensionPoint);
        if (point == nullptr) {
            if (!own.contains(VTInfoKey::extensionPoint)) {
                info_.add(Rule::noPoint, at, {"is missing: hosts ask by extension point, and will not find it"});
            }
            return {};
        }
        const fs::path file{sdkDirectory() + '/' + *point + ".plist"};
        if (const auto sdk = dictionaryIn(file)) {
            const value::Dictionary* const extension = sdk->dictionary(VTInfoKey::extension);
            return extension != nullptr ? *extension : value::Dictionary{};
        }
        if (fs::exists(file)) {
            Problems ofPoint;
            judgeExtensionPoint(file.string(), ofPoint);
            info_.add(Rule::brokenPoint, at,
                      {text::format("{}: {}", file.string(), ofPoint.empty() ? "" : ofPoint.front().what)});
            return {};
        }
        const auto meant = nearest::to(*point, points());
        info_.add(Rule::unknownPoint, at,
                  {text::format("there is no extension point \"{}\"", *point),
                   meant ? text::format("did you mean {}?", *meant)
                         : text::format("name one of those in {}, or install it", sdkDirectory()),
                   meant.value_or("")});
        return {};
    }

    static Names points() {
        Names names;
        std::error_code error;
        for (fs::directory_iterator entry{sdkDirectory(), error}, end; !error && entry != end; entry.increment(error)) {
            if (entry->path().extension() == ".plist") names.insert(entry->path().stem().string());
        }
        return names;
    }

    void protocol(const value::Dictionary& own, const value::Dictionary& sdk, const plist::Path& above) {
        const bool isExtension = path_.ends_with(".appex");
        const std::string* const stated = own.string(VTInfoKey::protocol);
        const std::string* const inherited = sdk.string(VTInfoKey::protocol);
        const std::string* const used = stated != nullptr ? stated : inherited;
        isData_ = isData_ || (used != nullptr && *used == kDataProtocol);
        const bool isStated = own.contains(VTInfoKey::protocol);
        const bool isEmpty = isStated && stated != nullptr && stated->empty();
        if (isEmpty || (used == nullptr && !isStated && !isExtension)) {
            info_.add(Rule::noProtocol, above / VTInfoKey::protocol,
                      {isEmpty ? "is empty" : "is missing, and the extension point brings none"});
        }
        const std::string* const principal = own.string(VTInfoKey::principalClass);
        const bool isForeign = own.contains(VTInfoKey::principalClass) && (!principal || *principal != kObjectClass);
        if (isExtension && isForeign) {
            info_.add(Rule::principalClass, above / VTInfoKey::principalClass,
                      {text::format("can only be {} in *.appex", kObjectClass), {}, kObjectClass});
        }
    }

    void shared(const value::Dictionary& own, const plist::Path& above) {
        const value::Value* const found = own.find(VTInfoKey::shared);
        if (found == nullptr) return;
        const auto judge = [&](const value::Value& element, const plist::Path& at) {
            const std::string* const name = element.string();
            if (name == nullptr)
                return info_.add(Rule::badShared, at, {"is " + kindOf(element) + ", which shares nothing"});
            if (name->starts_with('/')) {
                info_.add(Rule::badShared, at,
                          {text::format("\"{}\" is absolute; paths are those inside the bundle", *name)});
            } else if (*name == ".." || name->starts_with("../") || name->find("/../") != std::string::npos) {
                info_.add(Rule::badShared, at, {text::format("\"{}\" leads out of the bundle", *name)});
            } else if (::access((path_ + '/' + *name).c_str(), F_OK) != 0) {
                info_.add(Rule::badShared, at, {text::format("there is no \"{}\" in the bundle", *name)});
            }
        };
        const plist::Path at = above / VTInfoKey::shared;
        if (found->string() != nullptr) return judge(*found, at);
        if (found->array() == nullptr) return;
        std::size_t place = 0;
        for (const value::Value& element : *found->array()) judge(element, at / std::to_string(place++));
    }

    void service(const value::Dictionary& info) {
        const value::Dictionary* const service = info.dictionary(VTInfoKey::moxService);
        if (service == nullptr) return;
        const plist::Path at{VTInfoKey::moxService};
        info_.judgeKeys(*service, Level::service, at);
        const value::Dictionary* const environment = service->dictionary("EnvironmentVariables");
        if (environment == nullptr) return;
        for (const auto& [name, text] : *environment) {
            if (text.string() != nullptr) continue;
            info_.add(Rule::oddKind, at / "EnvironmentVariables" / name,
                      {"is " + kindOf(text) + "; a string is wanted", {}, "string"});
        }
    }

    void version(const value::Dictionary& dictionary, const char* key, const plist::Path& above) {
        const std::string* const version = dictionary.string(key);
        const bool isOdd = version != nullptr && (version->empty() || version->front() < '0' || version->front() > '9');
        if (isOdd) info_.add(Rule::oddVersion, above / key, {text::format("\"{}\" begins with no digit", *version)});
    }

    void replaced(const value::Dictionary& held) {
        const auto judge = [&](const std::string& name) {
            const auto isIt = [&](const value::Dictionary& info) {
                const value::Dictionary* const top = info.dictionary(VTInfoKey::extension);
                const value::Dictionary* const several =
                    top != nullptr ? top->dictionary(VTInfoKey::multiple) : nullptr;
                const std::string* const own = top != nullptr ? top->string(kOwnIdentifier) : nullptr;
                const std::string* const identifier = info.string(bundle::kIdentifierKey);
                return (own != nullptr && *own == name) || (identifier != nullptr && *identifier == name) ||
                       (several != nullptr && several->contains(name));
            };
            if (anyInstalled(bundle::kInfoFile, isIt)) return;
            entitlements_.add(Rule::replacesNothing, {kReplaced},
                              {text::format("no plug-in \"{}\" is installed", name)});
        };
        if (const std::string* const one = held.string(kReplaced)) return judge(*one);
        const value::Array* const several = held.array(kReplaced);
        if (several == nullptr) return;
        for (const value::Value& one : *several) {
            if (one.string() != nullptr) judge(*one.string());
        }
    }

    const std::string path_;
    Findings info_, entitlements_;
    bool isData_ = false;
};

}  // namespace

void judgePlugIn(const std::string& path, Problems& problems) {
    PlugIn{path, problems}.judge();
}

}  // namespace verify
