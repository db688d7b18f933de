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
    virtual ~VTPlugInCore() = default;
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
    std::uint64_t sdkDigest() const { return sdkDigest_.load(); }

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

    bool onSystemVolume() const { return onSystemVolume_.load(); }
    void setOnSystemVolume(bool value) { change(onSystemVolume_, value); }
    const value::Dictionary& topDictionary() const;  // empty when not set
    virtual void setTopDictionary(value::Dictionary dictionary);
    const value::Dictionary& plugInDictionary() const;  // empty when not set
    virtual void setPlugInDictionary(value::Dictionary dictionary);
    std::string identifier() const { return identifier_.load(); }
    void setIdentifier(std::string value) { change(identifier_, std::move(value)); }
    std::string originalIdentifier() const { return originalIdentifier_.load(); }
    void setOriginalIdentifier(std::string value) { change(originalIdentifier_, std::move(value)); }
    std::string url() const { return url_.load(); }
    void setUrl(std::string value) { change(url_, std::move(value)); }
    std::optional<std::string> containingUrl() const { return containingUrl_.load(); }
    void setContainingUrl(std::optional<std::string> value) { change(containingUrl_, std::move(value)); }
    value::Dictionary bundleInfoDictionary() const { return bundleInfoDictionary_.load(); }
    void setBundleInfoDictionary(value::Dictionary value) { change(bundleInfoDictionary_, std::move(value)); }
    std::uint32_t hubProtocolVersion() const { return hubProtocolVersion_.load(); }
    void setHubProtocolVersion(std::uint32_t value) { change(hubProtocolVersion_, value); }
    virtual std::string localizedName() const { return localizedName_.load(); }
    virtual void setLocalizedName(std::string value) { localizedName_.store(std::move(value)); }
    virtual std::string localizedShortName() const { return localizedShortName_.load(); }
    virtual void setLocalizedShortName(std::string value) { localizedShortName_.store(std::move(value)); }
    virtual std::string localizedContainingName() const { return localizedContainingName_.load(); }
    virtual void setLocalizedContainingName(std::string value) { localizedContainingName_.store(std::move(value)); }
    std::optional<value::Dictionary> annotations() const { return annotations_.load(); }
    void setAnnotations(std::optional<value::Dictionary> value) { annotations_.store(std::move(value)); }
    std::int32_t lastModified() const { return lastModified_.load(); }
    void setLastModified(std::int32_t value) { change(lastModified_, value); }
    value::Uuid uuid() const;  // a programming error before the setup
    void setUuid(value::Uuid value) { change(uuid_, std::optional{value}); }
    std::optional<value::Data> cdhash() const { return cdhash_.load(); }
    void setCdhash(std::optional<value::Data> value) { cdhash_.store(std::move(value)); }
    std::string requirement() const { return requirement_.load(); }
    void setRequirement(std::string value) { requirement_.store(std::move(value)); }

    // --- Derived properties, worked out on every call

    std::string path() const;  // the url without slashes at its end
    std::string containingPath() const { return containingUrl().value_or(std::string{}); }
    value::Dictionary attributes() const;
    std::string version() const;  // that of the attributes; a number as its text
    std::string protocolSpec() const;
    std::optional<value::Value> sdkSpec() const;  // of any kind
    std::string embeddedCodePath() const { return {}; }
    std::string embeddedProtocolSpec() const;
    bool isAppExtension() const;
    bool isMultiplexed() const;
    bool isHybrid() const;
    bool isDedicated() const;
    bool isData() const;
    value::Date timestamp() const;
    bool oldStyle() const;  // a record without either style of description is a programming error

private:
    struct ExportedForm;

    void noteChange() { changes_.fetch_add(1, std::memory_order_acq_rel); }

    template <typename T>
    void change(VTAtomic<T>& property, T value) {
        property.store(std::move(value));
        noteChange();
    }

    // In the dictionaries' own order: not atomic, see above.
    std::optional<value::Dictionary> topDictionary_;
    std::optional<value::Dictionary> plugInDictionary_;

    VTAtomic<bool> onSystemVolume_;
    VTAtomic<std::string> identifier_;
    VTAtomic<std::string> originalIdentifier_;
    VTAtomic<std::string> url_;
    VTAtomic<std::optional<std::string>> containingUrl_;
    VTAtomic<value::Dictionary> bundleInfoDictionary_;
    VTAtomic<std::uint32_t> hubProtocolVersion_;
    VTAtomic<std::string> localizedName_;
    VTAtomic<std::string> localizedShortName_;
    VTAtomic<std::string> localizedContainingName_;
    VTAtomic<std::optional<value::Dictionary>> annotations_;
    VTAtomic<std::int32_t> lastModified_;
    VTAtomic<std::optional<value::Uuid>> uuid_;
    VTAtomic<std::optional<value::Data>> cdhash_;
    VTAtomic<std::string> requirement_;
    std::atomic<std::uint64_t> sdkDigest_{0};
    VTAtomic<std::optional<value::Error>> sdkFault_;  // why the extension point's SDK could not be read

    // What the last export encoded, good for as long as nothing changed that it was made from.
    std::atomic<std::uint64_t> changes_{0};
    mutable VTAtomic<std::shared_ptr<const ExportedForm>> exportedForm_;
};

template <>
struct std::hash<VTPlugInCore> {
    std::size_t operator()(const VTPlugInCore& plugIn) const { return plugIn.hash(); }
};
