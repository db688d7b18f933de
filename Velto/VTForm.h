#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mox/Encoder.h"
#include "platform/value/Value.h"

// The keys of a form.
namespace VTFormKey {

// Always present.
inline constexpr char hubProtocolVersion[] = "hubProtocolVersion";   // unsigned
inline constexpr char path[] = "path";                               // string
inline constexpr char systemResident[] = "systemResident";           // boolean
inline constexpr char identifier[] = "identifier";                   // string
inline constexpr char originalIdentifier[] = "original-identifier";  // string
inline constexpr char version[] = "version";                         // string
inline constexpr char bundleInfo[] = "bundleInfo";                   // dictionary, without "QFBundleInfoPlistURL"
inline constexpr char info[] = "info";                               // dictionary: the plug-in dictionary
inline constexpr char uuid[] = "uuid";                               // string: the canonical 36 characters
inline constexpr char lastModified[] = "lastmodified";               // signed: seconds since 1970
inline constexpr char annotations[] = "annotations";                 // dictionary, empty when there are none

// Present when the record has them; all strings.
inline constexpr char containingPath[] = "containingPath";
inline constexpr char localizedContainingName[] = "localizedContainingDisplayName";
inline constexpr char localizedName[] = "localizedDisplayName";
inline constexpr char localizedShortName[] = "localizedShortName";

// Added to a form before it is sent.
inline constexpr char extensions[] = "extensions";  // dictionary: entry of "Shared" to token
inline constexpr char overrider[] = "overrider";    // string: the "uuid" of the plug-in that replaces this one
inline constexpr char overriding[] = "overriding";  // string: the "identifier" of the plug-in that this one replaces

// Read from a form, never written by the daemon.
inline constexpr char hash[] = "hash";                // data: the code-directory hash
inline constexpr char requirement[] = "requirement";  // string: the code-signing requirement

}  // namespace VTFormKey

// The dictionary by which a plug-in's record travels from the daemon to its clients, in two parts: a base that never
// changes, encoded for the wire once and shared by every form of the same record, and the four entries that a request
// adds or replaces ("annotations", "extensions", "overrider", "overriding"). A discovery reply therefore costs a copy
// of bytes for each plug-in, and a form that waits for its reply costs no second tree of values.
//
// Ownership: a value; copying it shares the base. The base may be shared between threads, a form belongs to one.
class VTForm {
public:
    class Base;

    // The entries of the dictionary; of what discovery reads, a value of another kind reads as empty, false or 0.
    explicit VTForm(const value::Dictionary& form);

    // The form of a base with "annotations".
    VTForm(std::shared_ptr<const Base> base, value::Dictionary annotations);

    // Sets one of the four entries that are not the base's; another key is a programming error.
    void set(std::string_view key, value::Value value);

    // What discovery reads.
    const std::string& identifier() const;
    const std::string& version() const;
    const std::string& uuid() const;  // as text
    bool systemResident() const;
    std::int32_t lastModified() const;

    // The whole form, built anew: for a rebuild in the same process, for dumps and for tests.
    value::Dictionary dictionary() const;

    // Appends the whole form as one dictionary, its keys in ascending order as everywhere.
    void encode(mox::Encoder& encoder) const;
    std::size_t encodedSizeHint() const;  // what encode() appends, or a little more

    const std::shared_ptr<const Base>& base() const { return base_; }

private:
    static constexpr std::size_t kAdditions = 4;

    std::shared_ptr<const Base> base_;
    std::array<std::optional<value::Value>, kAdditions> additions_;  // in the order of their keys
};

// What a record's export never changes until the record does. Immutable; any thread.
class VTForm::Base {
public:
    // Encodes every entry but the four that forms add.
    explicit Base(const value::Dictionary& form);

    std::size_t encodedSize() const { return entries_.size(); }

private:
    friend class VTForm;

    // Where, in ascending order of the keys, an addition of that key goes.
    struct Gap {
        std::size_t offset = 0;  // of the bytes before it
        std::size_t count = 0;   // of the entries before it
    };

    std::vector<std::byte> entries_;  // keys and values as they lie in an encoded dictionary
    std::size_t count_ = 0;
    std::array<Gap, kAdditions> gaps_;

    std::string identifier_;
    std::string version_;
    std::string uuid_;
    bool systemResident_ = false;
    std::int32_t lastModified_ = 0;
};
