#pragma once

#include <sys/types.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Velto/VTAtomic.h"
#include "Velto/VTForm.h"
#include "Velto/VTPlugInCore.h"
#include "platform/dravo/Dravo.h"
#include "platform/value/Value.h"
#include "vtd/VTDAnnotationSource.h"
#include "vtd/rules/Complaints.h"
#include "vtd/rules/Rules.h"

class BundleInfo;
class Host;
class VTDMoxClient;

// Entitlements of a plug-in that say how the user's choices apply to it.
inline constexpr char kReplacePlugInEntitlement[] = "halvern.developer.replace-plugin";
inline constexpr char kAutoElectEntitlement[] = "halvern.developer.auto-elect-plugin";

// The key under which annotations are stored: the identifier, or the one that the plug-in says it replaces (by a single
// text, which could be an identifier: at most 1,024 bytes, none of them a control character, and fit for a file).
// Refers to one of the arguments.
const std::string& annotationKeyFor(const std::string& identifier, const value::Dictionary& entitlements);

// The daemon's record of one installed plug-in: the shared record, built from the registry's record and the bundle's
// info dictionary, with what only the registry knows (display names, entitlements, the data container), the rule
// language, the decision whether a host may use it, and the extensions for shared resources.
//
// Ownership: built and cached by the database; holds its registry record; refers to its annotation source weakly.
// Threading: built on the database's queue, then used by requests on the service queue, one at a time: what is filled
// on first read (display names, resolved resources, the age rating) has no lock of its own but for the properties'
// atomicity. Errors: a plug-in that cannot be used makes no record; the reason is logged.
class VTDPlugIn : public VTPlugInCore {
public:
    // Null when the plug-in has no bundle, no usable description, or is mis-configured. Info.plist is read beneath the
    // directory that the registry's record is of.
    static std::shared_ptr<VTDPlugIn> initWithDVData(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy);

    // The same for one of many, whose bundle's info may have been read for another. When it makes no record, the
    // refusal lasts if only another bundle or SDK could change it.
    enum class Refusal : std::uint8_t { passing, lasting };
    static std::shared_ptr<VTDPlugIn> initWithDVData(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy,
                                                     BundleInfo& bundleInfo, Refusal& refusal);

    // The same from the image that was kept of it (DVVeltoProxy::image); null when there is none, or its plug-in wants
    // a look at the disk. No file of the bundle is read.
    static std::shared_ptr<VTDPlugIn> initWithImage(const std::shared_ptr<const dravo::DVVeltoProxy>& proxy);

    // Keeps an image of the record with the registry's, for whoever comes next.
    void keepImage() const;

    // The dictionary without the build tools' keys ("DT..."); empty for none.
    static value::Dictionary prunedInfoDictionaryFor(const std::optional<value::Dictionary>& info);

    // Whether it was made of what the registry knows. Else Info.plist or the SDK was changing just then: the record
    // serves whoever asked, but nobody would announce when it no longer says what the disk does.
    bool isAsRegistered() const { return isAsRegistered_.load(); }
    void setIsAsRegistered(bool value) { isAsRegistered_.store(value); }

    // --- Display names: the registry's, asked until it knows one. Empty while it does not.

    std::string localizedName() const override;
    void setLocalizedName(std::string value) override {
        localizedName_.store(std::move(value));
        noteOwnNames();
    }
    std::string localizedShortName() const override;
    void setLocalizedShortName(std::string value) override {
        localizedShortName_.store(std::move(value));
        noteOwnNames();
    }
    std::string localizedContainingName() const override;
    void setLocalizedContainingName(std::string value) override {
        localizedContainingName_.store(std::move(value));
        noteOwnNames();
    }

    // --- Shared resources

    // Adds "extensions" when the plug-in shares anything: shared name to token, without those that were refused.
    void augmentForm(VTForm& form) const;

    // Each name is looked for in the very directory that the registry's record is of. Of a plug-in that shares its
    // bundle and nothing else, as extensions do, the token is kept: it stays good for as long as that record, which
    // goes when another directory takes the bundle's place.
    value::Dictionary issueResourceExtensions(const value::Value& shared) const;

    // What augmentForm() costs, in units of effort: it follows from what the bundle says, and not from who asks.
    std::uint64_t priceOfTokens() const;

    // --- Entitlements, as the registry reports them at each call

    value::Dictionary entitlements() const { return dvproxy()->entitlements(); }
    std::optional<value::Value> valueForEntitlement(std::string_view name) const;
    bool hasEntitlement(std::string_view name) const;  // present and not equal to false
    std::string annotationKey() const;

    [[nodiscard]] std::optional<value::Error> diagnose() const override;

    // --- Busy instances (VTDPlugIn_Busy.cpp)

    // What tells a client that a running instance of the plug-in's bundle is busy: its bundle identifier, under the key
    // of process assertions. Nothing when none is. Asked of the disk at each call.
    std::optional<value::Dictionary> checkBusy() const;

    // --- The rule language (VTDPlugIn_Match.cpp; vtd/rules). Nothing fails: what makes no sense is not matched.

    // The first rule that the plug-in does not satisfy, in the rules' order; null when it matches. For the many
    // plug-ins of one request; what follows is for one, and reads the rules for it.
    const rules::Rules::Rule* unmatchedRule(const rules::Rules& rules, rules::Complaints& complaints) const;

    // What the plug-in has where the rule asks, as far as it is a value of its own; for people, and not for speed.
    std::optional<value::Value> valueFor(const rules::Rules::Rule& rule) const;

    bool match(const std::optional<value::Dictionary>& rules) const;  // no rules match everything
    bool matchKey(std::string_view name, const value::Value& pattern) const;
    bool matchValuePatterns(std::string_view value, const value::Value& patterns) const;
    bool matchValuePattern(std::string_view value, std::string_view pattern) const;
    bool matchDictionary(const value::Value& rule, const value::Dictionary& items) const;

    // --- Host authorization (VTDPlugIn_Host.cpp)

    // Nothing when the client may use the plug-in, else why not, in words.
    std::optional<std::string> allowForClient(const VTDMoxClient& client) const;

    // Why a host may not use a plug-in.
    struct HostRefusal {
        enum class Cause : std::uint8_t { badRestriction, restriction, entitlement, ageRating };
        Cause cause;
        const rules::Rules::Rule* rule = nullptr;   // `restriction`: of the host's, the first that is not met
        std::optional<value::Value> demanded = {};  // `entitlement`: what the host does not have

        std::string message() const;
    };

    // For the many plug-ins of one request, which asks for the device's restriction once: first what the host's own
    // entitlement restricts it to, then the entitlement that the plug-in demands, then the device's restriction.
    std::optional<HostRefusal> refusalForHost(const Host& host, std::optional<std::int64_t> maximumRating,
                                              rules::Complaints& complaints) const;

    // Whether the containing application is rated above the maximum that the device allows.
    bool ageRestricted() const;
    bool ageRestricted(std::optional<std::int64_t> maximumRating) const;

    // The rank of the containing application's age rating, -1 when it is not known; read once for a record.
    std::int64_t containerAgeRestriction() const;

    // --- Launch preparation (VTDPlugIn_Launch.cpp)

    // Registers the plug-in's executable with the service manager for the host process, with the environment and the
    // sandbox profile that its process is to have. An error (VTErrorRequest) when the bundle has no regular executable
    // file of its own, or when the service manager refuses, which is logged.
    [[nodiscard]] std::optional<value::Error> enableForPid(pid_t pid) const;

    // What that costs (platform/effort/Effort.h): the files that it reads again, the application's for a keyboard that
    // wants open access.
    std::uint64_t effortToEnable() const;

    // The privacy services that the user granted to the containing application; none without one, or when that cannot
    // be found out, which is logged.
    std::set<std::string> allowedWexaServices() const;

    // Where "KXUserElection" is asked; without one nothing was ever decided.
    void setAnnotationSource(std::weak_ptr<VTDAnnotationSource> source) { annotationSource_.store(std::move(source)); }

    std::shared_ptr<const dravo::DVVeltoProxy> dvproxy() const { return dvproxy_.load(); }
    void setDvproxy(std::shared_ptr<const dravo::DVVeltoProxy> proxy) { dvproxy_.store(std::move(proxy)); }

private:
    bool isMet(const rules::Rules& rules, const rules::Rules::Rule& rule, rules::Complaints& complaints) const;

    mutable VTAtomic<std::string> localizedName_;
    mutable VTAtomic<std::string> localizedShortName_;
    mutable VTAtomic<std::string> localizedContainingName_;
    mutable VTAtomic<value::Dictionary> bundleExtension_;  // empty until it was issued
    static constexpr std::int64_t kNotAsked = std::numeric_limits<std::int64_t>::min();
    mutable VTAtomic<std::int64_t> containerAgeRestriction_{kNotAsked};
    VTAtomic<bool> isAsRegistered_{false};
    VTAtomic<std::shared_ptr<const dravo::DVVeltoProxy>> dvproxy_;
    VTAtomic<std::weak_ptr<VTDAnnotationSource>> annotationSource_;
};
