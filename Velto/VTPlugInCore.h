#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Velto/VTAtomic.h"
#include "Velto/VTForm.h"
#include "Velto/VTInfoKeys.h"
#include "Velto/VTRecordImage.h"
#include "platform/value/Value.h"

// The record of one plug-in, shared by the daemon (which derives VTDPlugIn from it) and by hosts (which rebuild it from
// a form). It holds what identifies the plug-in, its bundle's info dictionary with two views of it, the user's
// annotations and the display names.
//
// The three dictionaries: `bundleInfoDictionary` is the bundle's; `topDictionary` is what it holds under "KXExtension";
// `plugInDictionary` is the top dictionary itself or, in a multiplexed bundle, the entry for `identifier` in the top
// dictionary's "Multiple". Replacing an inner one rewrites the outer ones around it.
//
// Texts: a text that is not set, or that holds another kind where it is read from a dictionary, is empty. URLs are
// absolute paths (see VTBundle.h).
//
// Ownership: shared; values are immutable, so that handing a dictionary in or out costs a reference count.
// Threading: every stored property but `topDictionary` and `plugInDictionary` is individually atomic; nothing is
// promised across properties. A record's dictionaries change only while it is being set up, by one thread.
// Errors: a setup that fails says why in the log, and its initialiser returns a null pointer.
class VTPlugInCore {
public:
    VTPlugInCore() = default;  // empty: for a setup to follow
    virtual ~VTPlugInCore();
    VTPlugInCore(const VTPlugInCore&) = delete;
    VTPlugInCore& operator=(const VTPlugInCore&) = delete;

    static std::shared_ptr<VTPlugInCore> initWithName(const std::optional<std::string>& identifier,
                                                      const std::optional<std::string>& url,
                                                      const std::optional<value::Value>& bundleInfo,
                                                      const std::optional<value::Dictionary>& info,
                                                      const std::optional<value::Uuid>& uuid);
    static std::shared_ptr<VTPlugInCore> initWithForm(const value::Dictionary& form);

    // Two records are equal when their UUIDs are. Asking this of a record without one is a programming error.
    bool operator==(const VTPlugInCore& other) const;
    std::size_t hash() const;

    // --- Setup

    // What a bundle and the registry say. `info` is not consulted: the plug-in dictionary always comes from the
    // bundle's own. Without a UUID the record gets a fresh random one.
    [[nodiscard]] virtual bool setupWithName(const std::optional<std::string>& identifier,
                                             const std::optional<std::string>& url,
                                             const std::optional<value::Value>& bundleInfo,
                                             const std::optional<value::Dictionary>& info,
                                             const std::optional<value::Uuid>& uuid);
    [[nodiscard]] virtual bool setupWithForm(const value::Dictionary& form);

    // What was worked out before (VTRecordImage.h): the record is a view of it until something is set. Dictionaries are
    // decoded when somebody asks for one whole.
    void setupWithImage(VTRecordImage image, const value::Uuid& uuid);

    // Derives the three dictionaries; false when one of them is not there, or no dictionary.
    virtual bool setDictionaries(const value::Value& bundleInfo);

    // For subclasses, before setDictionaries(); here it returns what it is given.
    virtual value::Dictionary normalizeInfoDictionary(const value::Dictionary& bundleInfo) const;

    // --- The extension point's SDK dictionary

    // Merges the SDK dictionary of `sdkSpec` under the bundle's own, then brings the result into canonical form. Once,
    // right after the setup. An SDK that leaves the record without a plug-in dictionary (it brings a "Multiple" that
    // has no entry for this identifier) leaves it uncanonicalised and without one, so that diagnose() refuses it: what
    // the extension point demands of its plug-ins must not be lost by dropping the SDK. So does one that is there and
    // cannot be read.
    virtual void resolveSDK();

    // Tells which SDK resolveSDK() has found (sdk::Part); 0 before it, and when there is none.
    std::uint64_t sdkDigest() const { return stored().sdkDigest.load(); }

    static constexpr char kSdkDirectoryVariable[] = "VTTEST_SDK";  // of the environment

    // The file of that name in the directory that VTTEST_SDK names, asked for on each call, else the registry's entry.
    // Nothing also when that cannot be read.
    static std::optional<value::Dictionary> readSDKDictionary(const std::string& name);

    // The target with the SDK's entries underneath, at every depth. A target value that is no dictionary stays where
    // the SDK has one.
    virtual value::Dictionary mergeDictionary(const value::Dictionary& sdk, const value::Dictionary& target) const;

    // Whether the SDK's value replaces the plug-in's own.
    virtual bool sdkOverridesKey(std::string_view key) const;

    // The paths of both, each once, the target's first. A single path is a list of one; what is neither a list nor a
    // path, and any element that is no path, counts for nothing.
    virtual value::Array mergeSharedResources(const value::Value& sdk, const value::Value& target) const;

    // Adds what every record has: an attributes dictionary with format and version, and an app extension's defaults.
    virtual void canonicalize();

    // --- Form

    // The form of this record; never leaves an error, and returns nothing only where a subclass decides so. Exporting
    // an unchanged record again shares what was encoded before. A version or original identifier that is not set is an
    // empty text in the form. (Not called `export`, which the language keeps for itself.)
    virtual std::optional<VTForm> exportForm(std::optional<value::Error>* error = nullptr) const;

    // Takes over the form's annotations, or their absence; nothing else.
    virtual void updateFromForm(const value::Dictionary& form);

    // --- Checks and hooks

    // Why the record is not usable, as an error with code VTErrorConfiguration, or nothing when it is.
    [[nodiscard]] virtual std::optional<value::Error> diagnose() const;

    // Maps one annotation to a value, or removes it. A record without annotations stays without.
    virtual void setAnnotation(std::string_view name, std::optional<value::Value> value);

    // For the client framework, which knows the type of its interface objects; nothing here.
    virtual void augmentInterface(const std::shared_ptr<void>& interface) const;

    // --- Stored properties

    bool onSystemVolume() const {
        return isOwn(kOnSystemVolume) ? stored().onSystemVolume.load() : image_->onSystemVolume();
    }
    void setOnSystemVolume(bool value) { change(kOnSystemVolume, &Stored::onSystemVolume, value); }
    const value::Dictionary& topDictionary() const;  // empty when not set
    virtual void setTopDictionary(value::Dictionary dictionary);
    const value::Dictionary& plugInDictionary() const;  // empty when not set
    virtual void setPlugInDictionary(value::Dictionary dictionary);
    std::string identifier() const {
        return isOwn(kIdentifier) ? stored().identifier.load() : std::string{image_->identifier()};
    }
    void setIdentifier(std::string value) { change(kIdentifier, &Stored::identifier, std::move(value)); }
    // Under which the registry first knew the plug-in: its bundle's own identifier where that has one. It differs from
    // `identifier` in a multiplexed bundle, whose plug-ins have their own. Set by whoever builds the record, after the
    // setup; empty until then.
    std::string originalIdentifier() const {
        return isOwn(kOriginalIdentifier) ? stored().originalIdentifier.load()
                                          : std::string{image_->originalIdentifier()};
    }
    void setOriginalIdentifier(std::string value) {
        change(kOriginalIdentifier, &Stored::originalIdentifier, std::move(value));
    }
    std::string url() const { return isOwn(kUrl) ? stored().url.load() : std::string{image_->path()}; }
    void setUrl(std::string value) { change(kUrl, &Stored::url, std::move(value)); }
    std::optional<std::string> containingUrl() const;  // of the application around it; nothing when it lies in none
    void setContainingUrl(std::optional<std::string> value) {
        change(kContainingUrl, &Stored::containingUrl, std::move(value));
    }
    value::Dictionary bundleInfoDictionary() const;
    void setBundleInfoDictionary(value::Dictionary value);
    std::uint32_t hubProtocolVersion() const {  // of the plug-in protocol: 1 or 2 in the daemon, from a form any
        return isOwn(kHubProtocolVersion) ? stored().hubProtocolVersion.load() : image_->hubProtocolVersion();
    }
    void setHubProtocolVersion(std::uint32_t value) { change(kHubProtocolVersion, &Stored::hubProtocolVersion, value); }
    virtual std::string localizedName() const {
        return isOwn(kName) ? stored().localizedName.load() : std::string{image_->localizedName()};
    }
    virtual void setLocalizedName(std::string value) { change(kName, &Stored::localizedName, std::move(value)); }
    virtual std::string localizedShortName() const {
        return isOwn(kShortName) ? stored().localizedShortName.load() : std::string{image_->localizedShortName()};
    }
    virtual void setLocalizedShortName(std::string value) {
        change(kShortName, &Stored::localizedShortName, std::move(value));
    }
    virtual std::string localizedContainingName() const {
        return isOwn(kContainingName) ? stored().localizedContainingName.load()
                                      : std::string{image_->localizedContainingName()};
    }
    virtual void setLocalizedContainingName(std::string value) {
        change(kContainingName, &Stored::localizedContainingName, std::move(value));
    }
    std::optional<value::Dictionary> annotations() const { return stored().annotations.load(); }
    void setAnnotations(std::optional<value::Dictionary> value) { changeable().annotations.store(std::move(value)); }
    std::int32_t lastModified() const {  // when it was registered: seconds since 1970, UTC
        return isOwn(kLastModified) ? stored().lastModified.load() : image_->lastModified();
    }
    void setLastModified(std::int32_t value) { change(kLastModified, &Stored::lastModified, value); }
    value::Uuid uuid() const;  // a programming error before the setup
    void setUuid(value::Uuid value) { change(kUuid, &Stored::uuid, std::optional{value}); }
    // The hash of the plug-in's code and what its signature demands: only ever from a form, never worked out here.
    std::optional<value::Data> cdhash() const { return stored().cdhash.load(); }
    void setCdhash(std::optional<value::Data> value) { changeable().cdhash.store(std::move(value)); }
    std::string requirement() const { return stored().requirement.load(); }
    void setRequirement(std::string value) { changeable().requirement.store(std::move(value)); }

    // --- Derived properties, worked out on every call from what is set at that moment
    //
    // Where an entry is named it is the plug-in dictionary's, unless said otherwise.

    std::string path() const;  // the url without slashes at its end
    std::string containingPath() const { return containingUrl().value_or(std::string{}); }
    value::Dictionary attributes() const;                // "KXExtensionAttributes"; empty when not there
    std::string version() const;                         // that of the attributes; a number as its text
    std::string protocolSpec() const;                    // "KXExtensionProtocol": what it speaks with its host
    std::optional<value::Value> sdkSpec() const;         // "KXExtensionPointIdentifier": names its SDK; of any kind
    std::string embeddedCodePath() const { return {}; }  // code for the host's own process: never any here
    std::string embeddedProtocolSpec() const;  // "EmbeddedProtocol", which such code speaks, else protocolSpec()
    bool isAppExtension() const;               // its path ends in ".appex", in lower case
    bool isMultiplexed() const;  // several plug-ins in one bundle: the top dictionary has "Multiple", of whatever kind
    bool isHybrid() const;       // it has "EmbeddedCode", of whatever kind; diagnose() refuses such
    bool isDedicated() const;    // "Dedicated": only the application around it finds it
    bool isData() const;         // its protocol is "#Data": it is never started
    value::Date timestamp() const;  // lastModified() as a point in time
    // Described under "Velto" and not under "KXExtension". A record with neither is a programming error; one that a
    // setup has accepted has the latter.
    bool oldStyle() const;

    // What the plug-in dictionary has under the key. What is no container costs next to nothing.
    std::optional<value::Value> plugInValue(std::string_view key) const;
    std::size_t plugInListSize(std::string_view key) const;  // elements of an array; 0 for every other kind
    bool plugInHasDictionary(std::string_view key) const;

    // The text that the bundle's info dictionary has under the key.
    std::optional<std::string> bundleInfoText(std::string_view key) const;
    std::size_t encodedBundleInfoSize() const;

    // What the attributes, else the bundle's info dictionary, have under the key: calls `use` with a mox::View of it
    // where it lies, or with a pointer to a value::Value that is null when there is none. Answers what that answers.
    template <typename Use>
    auto withAttribute(std::string_view key, Use&& use) const {
        if (!isOwn(kDictionaries)) {
            auto found = image_->inAttributes(key);
            if (!found) found = image_->inBundleInfo(key);
            return found ? use(*found) : use(static_cast<const value::Value*>(nullptr));
        }
        const value::Dictionary own = attributes();
        if (const value::Value* found = own.find(key)) return use(found);
        const value::Dictionary info = bundleInfoDictionary();
        return use(info.find(key));
    }

protected:
    // For subclasses that answer the display names themselves: one was set that the image does not know.
    void noteOwnNames() { own_.fetch_or(kName | kShortName | kContainingName, std::memory_order_acq_rel); }

private:
    struct ExportedForm;

    // What was set. A view has none of it, which keeps it small: discovery makes one for each candidate.
    struct Stored {
        // In the dictionaries' own order: not atomic, see above.
        std::optional<value::Dictionary> topDictionary;
        std::optional<value::Dictionary> plugInDictionary;

        VTAtomic<bool> onSystemVolume;
        VTAtomic<std::string> identifier;
        VTAtomic<std::string> originalIdentifier;
        VTAtomic<std::string> url;
        VTAtomic<std::optional<std::string>> containingUrl;
        VTAtomic<value::Dictionary> bundleInfoDictionary;
        VTAtomic<std::uint32_t> hubProtocolVersion;
        VTAtomic<std::string> localizedName;
        VTAtomic<std::string> localizedShortName;
        VTAtomic<std::string> localizedContainingName;
        VTAtomic<std::optional<value::Dictionary>> annotations;
        VTAtomic<std::int32_t> lastModified;
        VTAtomic<std::optional<value::Uuid>> uuid;
        VTAtomic<std::optional<value::Data>> cdhash;
        VTAtomic<std::string> requirement;
        std::atomic<std::uint64_t> sdkDigest{0};
        VTAtomic<std::optional<value::Error>> sdkFault;  // why the extension point's SDK could not be read
    };

    // What was set since the record was set up from an image, and is no longer read there; without an image,
    // everything.
    enum Own : std::uint32_t {
        kOnSystemVolume = 1 << 0,
        kIdentifier = 1 << 1,
        kOriginalIdentifier = 1 << 2,
        kUrl = 1 << 3,
        kContainingUrl = 1 << 4,
        kDictionaries = 1 << 5,
        kHubProtocolVersion = 1 << 6,
        kLastModified = 1 << 7,
        kUuid = 1 << 8,
        kName = 1 << 9,
        kShortName = 1 << 10,
        kContainingName = 1 << 11,
        kEverything = ~0U,
    };
    const Stored& stored() const;
    Stored& changeable();
    bool isOwn(Own what) const { return (own_.load(std::memory_order_acquire) & what) != 0; }

    // The dictionaries of an image, decoded when they are first asked for.
    struct Decoded;
    const Decoded& decoded() const;
    void takeDictionariesOver();

    void noteChange() { changes_.fetch_add(1, std::memory_order_acq_rel); }

    template <typename T>
    void change(Own what, VTAtomic<T> Stored::*property, T value) {
        (changeable().*property).store(std::move(value));
        own_.fetch_or(what, std::memory_order_acq_rel);
        noteChange();
    }

    std::optional<VTRecordImage> image_;
    value::Uuid viewUuid_;  // of a view
    std::atomic<std::uint32_t> own_{kEverything};
    mutable std::atomic<const Decoded*> decoded_{nullptr};
    std::atomic<Stored*> stored_{nullptr};

    // What the last export encoded, good for as long as nothing changed that it was made from.
    std::atomic<std::uint64_t> changes_{0};
    mutable VTAtomic<std::shared_ptr<const ExportedForm>> exportedForm_;
};

template <>
struct std::hash<VTPlugInCore> {
    std::size_t operator()(const VTPlugInCore& plugIn) const { return plugIn.hash(); }
};
