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
    static constexpr std::size_t kAdditions = 4;

    // The entries of the dictionary; of what discovery reads, a value of another kind reads as empty, false or 0.
    explicit VTForm(const value::Dictionary& form);

    // The form of a base with "annotations".
    VTForm(std::shared_ptr<const Base> base, value::Dictionary annotations);

    // Sets one of the four entries that are not the base's; another key is a programming error.
    void set(std::string_view key, value::Value value);

    // What discovery reads. The texts are the base's.
    std::string_view identifier() const;
    std::string_view version() const;
    std::string_view uuid() const;  // as text
    bool systemResident() const;
    std::int32_t lastModified() const;

    // The whole form, built anew: for a rebuild in the same process, for dumps and for tests.
    value::Dictionary dictionary() const;

    // Appends the whole form as one dictionary, its keys in ascending order as everywhere.
    void encode(mox::Encoder& encoder) const;
    std::size_t encodedSizeHint() const;  // what encode() appends, or a little more

    const std::shared_ptr<const Base>& base() const { return base_; }

private:
    std::shared_ptr<const Base> base_;
    std::array<std::optional<value::Value>, kAdditions> additions_;  // in the order of their keys
};

// What a record's export never changes until the record does: an encoded dictionary of every entry but the four that
// forms add. Immutable; any thread.
class VTForm::Base {
public:
    // Where in the encoded dictionary lies what is asked of it. Plain numbers, which can be kept beside the bytes.
    struct Layout {
        // Where, in ascending order of the keys, an addition of that key goes.
        struct Gap {
            std::uint32_t offset = 0;  // of the bytes before it
            std::uint32_t count = 0;   // of the entries before it
        };
        struct Text {
            std::uint32_t offset = 0;
            std::uint32_t size = 0;
        };

        std::array<Gap, kAdditions> gaps;
        Text identifier;
        Text version;
        Text uuid;
        std::int32_t lastModified = 0;
        std::uint32_t systemResident = 0;
    };

    explicit Base(const value::Dictionary& form);

    // Of what another base has encoded. The bytes must have been checked, the layout must be of them, and the owner
    // keeps them.
    Base(const Layout& layout, mox::Bytes encoded, std::shared_ptr<const void> owner)
        : owner_{std::move(owner)}, encoded_{encoded}, layout_{layout} {}

    Base(const Base&) = delete;
    Base& operator=(const Base&) = delete;

    const Layout& layout() const { return layout_; }
    mox::Bytes encoded() const { return encoded_; }
    mox::View view() const { return mox::View{encoded_.data()}; }
    const std::shared_ptr<const void>& owner() const { return owner_; }

private:
    friend class VTForm;

    std::string_view text(Layout::Text text) const {
        return {reinterpret_cast<const char*>(encoded_.data()) + text.offset, text.size};
    }

    std::shared_ptr<const void> owner_;
    mox::Bytes encoded_;
    Layout layout_;
};
