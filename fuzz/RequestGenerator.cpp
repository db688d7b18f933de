#include "fuzz/RequestGenerator.h"

#include <algorithm>
#include <array>

#include "Velto/VTProtocol.h"
#include "platform/mox/Object.h"

namespace fuzz {

namespace {

// What a request may have, and a little less: what is larger ends the connection, and is another target's.
constexpr std::size_t kMostBytes = mox::kRequestLimits.bytes - 4'096;
constexpr std::size_t kMostValues = mox::kRequestLimits.values - 100;

constexpr std::array kAttributes = {
    "KXExtensionPointName", "KXExtensionIdentifier", "KXUserElection", "Version", "Long", "Number", "List", "Rule"};

}  // namespace

bool RequestGenerator::isFull() const {
    return encoder_.size() > kMostBytes || values_ > kMostValues;
}

std::vector<std::byte> RequestGenerator::next(const value::Uuid& token) {
    using Make = void (*)(RequestGenerator&, const value::Uuid&);
    struct Kind {
        const char* name;
        Make make;
    };
    static constexpr Kind kKinds[] = {
        {VTRequest::match, [](RequestGenerator& to, const value::Uuid&) { to.flags(4), to.rules(); }},
        {VTRequest::ready, [](RequestGenerator& to, const value::Uuid&) { to.uuids(); }},
        {VTRequest::access, [](RequestGenerator& to, const value::Uuid&) { to.uuids(); }},
        {VTRequest::annotate, [](RequestGenerator& to, const value::Uuid&) { to.annotations(), to.uuids(); }},
        {VTRequest::lock, [](RequestGenerator& to, const value::Uuid&) { to.flags(3), to.paths(to.world_.paths); }},
        {VTRequest::lock, [](RequestGenerator& to, const value::Uuid& held) { to.tokens(held); }},
        {VTRequest::add, [](RequestGenerator& to, const value::Uuid&) { to.paths(to.world_.addable); }},
        {VTRequest::remove, [](RequestGenerator& to, const value::Uuid&) { to.paths(to.world_.addable); }},
        {VTRequest::bulk, [](RequestGenerator& to, const value::Uuid&) { to.flags(2); }},
        {"none", [](RequestGenerator& to, const value::Uuid&) { to.rules(), to.uuids(); }},
    };
    encoder_ = {};
    values_ = 0;
    request_ = encoder_.beginDictionary();
    const std::size_t number = steering_.below(std::size(kKinds));
    const Kind& kind = kKinds[number];
    changesState_ = changesState_ || (number >= 3 && number <= 7);
    registers_ = kind.name == std::string_view{VTRequest::add} || kind.name == std::string_view{VTRequest::remove};
    annotates_ = kind.name == std::string_view{VTRequest::annotate};
    enables_ = kind.name == std::string_view{VTRequest::ready};
    adds_ = adds_ || kind.name == std::string_view{VTRequest::add};
    key(VTKey::request);
    encoder_.string(kind.name);
    key(VTKey::version);
    encoder_.value(std::uint64_t{steering_.below(8) == 7 ? 2U : 3U});
    kind.make(*this, token);
    encoder_.end(request_);
    return encoder_.take();
}

// Up to so much, or where an input is to be quick a part of that.
std::size_t RequestGenerator::amount(std::size_t most) {
    constexpr std::size_t kOneIn = 16;
    return steering_.amount(world_.isCrowded ? most : most / kOneIn);
}

void RequestGenerator::flags(std::size_t count) {
    static constexpr std::uint64_t kFlags[] = {0, 2, 1, 0x200};
    key(VTKey::flags);
    encoder_.value(kFlags[steering_.below(std::min(count, std::size(kFlags)))]);
}

// Keys in ascending, descending or scattered order. The values come from one choice, or each from its own.
template <typename Entry>
void RequestGenerator::dictionary(std::size_t count, std::string_view stem, Entry&& entry) {
    constexpr std::size_t kScatter = 65'537, kPrime = 100'003;  // each number becomes another, below that prime
    const std::size_t order = steering_.below(3);
    count = std::min(count, kMostValues);
    auto container = encoder_.beginDictionary();
    for (std::size_t i = 0; i < count && !isFull(); ++i) {
        const std::size_t place = order == 0 ? i : order == 1 ? count - i : i * kScatter % kPrime;
        const std::string digits = std::to_string(100'000 + place);
        encoder_.key(container, std::string{stem} + digits);
        ++values_;
        entry();
    }
    encoder_.end(container);
}

// Of elements that take so many bytes each, where that is known and much.
template <typename Element>
void RequestGenerator::array(std::size_t count, Element&& element, std::size_t bytes) {
    auto container = encoder_.beginArray();
    for (std::size_t i = 0; i < count && !isFull() && encoder_.size() + bytes <= kMostBytes; ++i) {
        mox::Encoder::element(container);
        ++values_;
        element(i);
    }
    encoder_.end(container);
}

void RequestGenerator::rules() {
    key(VTKey::rules);
    switch (steering_.below(4)) {
        case 0: {  // of attributes that plug-ins have
            const std::size_t first = steering_.below(kAttributes.size());
            const std::size_t count = steering_.below(kAttributes.size()) + 1;
            auto container = encoder_.beginDictionary();
            for (std::size_t i = 0; i < count; ++i) {
                encoder_.key(container, kAttributes[(first + i) % kAttributes.size()]);
                pattern(0);
            }
            return encoder_.end(container);
        }
        case 1: return dictionary(amount(99'000), "", [this] { encoder_.value(false); });
        case 2: return dictionary(amount(90'000), "", [this] { pattern(0); });
        default: return anything(0);
    }
}

std::string RequestGenerator::filling() {
    static constexpr std::string_view kPieces[] = {"1", ".", "1.", "a", "\x01", "\x7F", "\xC3\xA9", "<", "&", "%"};
    const std::string_view piece = steering_.pick(kPieces);
    const std::size_t bytes = std::min(amount(900'000), kMostBytes - std::min(kMostBytes, encoder_.size()));
    std::string text;
    while (text.size() + piece.size() <= bytes) text += piece;
    return text;
}

std::string RequestGenerator::text() {
    static constexpr const char* kOperators[] = {
        "", "=", "<>", "<", ">", "<=", ">=", "?", "?ZT-IS:", "?ZT-CONFORMS:", "\x01"};
    static constexpr const char* kOperands[] = {"one", "1.10b", "3", "org.example.type1", "p7", ""};
    const std::string op = steering_.pick(kOperators);
    return steering_.below(2) == 0 ? op + steering_.pick(kOperands) : op + filling();
}

void RequestGenerator::pattern(std::size_t depth) {
    constexpr std::size_t kDeepest = 25;
    if (isFull() || steering_.isAtEnd()) return encoder_.value(false);
    switch (steering_.below(depth < kDeepest ? 6 : 3)) {
        case 0: return encoder_.string(text());
        case 1: return encoder_.value(steering_.below(2) == 0);
        case 2: return encoder_.value(static_cast<std::int64_t>(steering_.below(256)) - 128);
        case 3: {  // one text again and again
            const std::string one = text();
            return array(
                amount(90'000), [&](std::size_t) { encoder_.string(one); }, one.size());
        }
        case 4: return array(amount(30), [&](std::size_t) { pattern(depth + 1); });
        default: return dictionary(amount(90'000), "org.example.", [this] { encoder_.value(1); });
    }
}

void RequestGenerator::anything(std::size_t depth) {
    switch (steering_.below(4)) {
        case 0: return encoder_.value(value::Uuid{});
        case 1: return encoder_.value(1e300);
        case 2: return encoder_.value(value::Date{1e12});
        default: return pattern(depth);
    }
}

void RequestGenerator::uuids() {
    key(VTKey::uuids);
    const std::size_t count = amount(61'000), style = steering_.below(4), first = steering_.below(256);
    const auto& known = world_.plugIns;
    array(count, [&](std::size_t i) {
        switch (style) {
            case 0: return encoder_.value(known[first % known.size()]);
            case 1: return encoder_.value(known[(first + i) % known.size()]);
            case 2: return encoder_.value(i < first ? known[i % known.size()] : value::Uuid{});
            default: return i < first ? encoder_.value(known[i % known.size()]) : encoder_.string("none");
        }
    });
}

void RequestGenerator::tokens(const value::Uuid& token) {
    key(VTKey::uuids);
    const bool right = steering_.below(2) == 0;
    array(amount(61'000), [&](std::size_t) { encoder_.value(right ? token : world_.plugIns.front()); });
}

void RequestGenerator::paths(const std::vector<std::string>& known) {
    key(VTKey::paths);
    const auto& list = steering_.below(2) == 0 ? known : world_.paths;
    const std::size_t count = amount(47'000), first = steering_.below(list.size()), style = steering_.below(4);
    const std::string behind = style == 2 ? "/./././" : style == 3 ? "/" + filling() : "";
    array(
        count, [&](std::size_t i) { encoder_.string(list[(first + (style == 0 ? 0 : i)) % list.size()] + behind); },
        behind.size());
}

void RequestGenerator::annotations() {
    key(VTKey::annotations);
    auto container = encoder_.beginDictionary();
    if (const std::size_t election = steering_.below(6); election > 0) {
        encoder_.key(container, "election");
        election < 4 ? encoder_.value(static_cast<std::int64_t>(election)) : anything(0);
    }
    const std::size_t extension = steering_.below(4);
    if (extension > 0) encoder_.key(container, "extension");
    if (extension == 1) dictionary(amount(90'000), "", [this] { encoder_.value(true); });
    if (extension == 2) dictionary(1, "", [this] { encoder_.string(filling()); });
    if (extension == 3) dictionary(amount(30), "", [this] { anything(0); });
    encoder_.end(container);
}

}  // namespace fuzz
