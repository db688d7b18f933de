#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "Velto/VTForm.h"
#include "platform/mox/View.h"

class VTPlugInCore;

// What a record says, worked out once and then read where it lies: the base of its form as it will be sent, and where
// in it the entries of its dictionaries are. A record that is set up from an image is a view of it; nothing is decoded
// that nobody asks for, and exporting it costs no encoding.
//
// The bytes are this build's own: offsets and numbers as they lie in memory, then the encoded base. They may come from
// a file, which whoever keeps them says is the build's, but are checked before they are believed.
//
// Ownership: a value, copied freely; it shares the bytes. Immutable; any thread.
class VTRecordImage {
public:
    // Of a record that is set up. Nothing when its form does not say all that the record does (its info dictionary has
    // entries that forms leave out, say), or is too large.
    static std::optional<std::vector<std::byte>> compile(const VTPlugInCore& record);

    // Whether the bytes are an image. Takes time in proportion to their number.
    static bool check(mox::Bytes bytes);

    // Of bytes that compile() made or check() has accepted, which the owner keeps.
    VTRecordImage(mox::Bytes bytes, std::shared_ptr<const void> owner);

    const std::shared_ptr<const VTForm::Base>& base() const { return base_; }

    // Texts of the record; empty when it has none.
    std::string_view identifier() const { return text(Text::identifier); }
    std::string_view originalIdentifier() const { return text(Text::originalIdentifier); }
    std::string_view path() const { return text(Text::path); }
    std::string_view containingPath() const { return text(Text::containingPath); }
    std::string_view version() const { return text(Text::version); }
    std::string_view localizedName() const { return text(Text::localizedName); }
    std::string_view localizedShortName() const { return text(Text::localizedShortName); }
    std::string_view localizedContainingName() const { return text(Text::localizedContainingName); }
    std::int32_t lastModified() const { return base_->layout().lastModified; }
    bool onSystemVolume() const { return base_->layout().systemResident != 0; }
    std::uint32_t hubProtocolVersion() const;

    // Entries of the record's dictionaries, each found in logarithmic time; nothing when there is none of that name.
    std::optional<mox::View> inBundleInfo(std::string_view key) const { return find(List::bundleInfo, key); }
    std::optional<mox::View> inPlugIn(std::string_view key) const { return find(List::plugIn, key); }
    std::optional<mox::View> inAttributes(std::string_view key) const { return find(List::attributes, key); }

    // Whole.
    mox::View bundleInfo() const;
    mox::View plugIn() const;

private:
    enum class Text : std::uint8_t {
        identifier,
        originalIdentifier,
        path,
        containingPath,
        version,
        localizedName,
        localizedShortName,
        localizedContainingName,
    };
    enum class List : std::uint8_t { bundleInfo, plugIn, attributes };
    struct Header;

    const Header& header() const;
    std::string_view text(Text which) const;
    std::optional<mox::View> find(List which, std::string_view key) const;

    const std::byte* bytes_;
    std::shared_ptr<const VTForm::Base> base_;
};
