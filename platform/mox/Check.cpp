#include <algorithm>
#include <array>
#include <type_traits>
#include <vector>

#include <fmt/format.h>

#include "platform/mox/Object.h"
#include "platform/text/Utf8.h"

// The one place that looks at bytes from outside before they are believed. It walks without recursion, keeps a fixed
// stack of open containers, and allocates only to compare the keys of a dictionary whose keys do not ascend; by then
// every one of those keys has been seen to lie inside the frame.
namespace mox {

namespace {

constexpr std::size_t kDeepest = 128;  // no Limits ask for more

struct OpenContainer {
    const std::byte* start;  // its tag
    const std::byte* end;    // as its size says
    std::size_t left;        // elements or entries still to come
    bool isDictionary;
    bool ascending;  // so far, every key was greater than the one before
    // The key before, only while ascending. No string_view, whose construction in a whole stack of these would cost
    // more than the rest of a small check.
    const char* lastKey;
    std::size_t lastKeySize;
};
static_assert(std::is_trivially_default_constructible_v<OpenContainer>);

class Checker {
public:
    Checker(Bytes encoded, const Limits& limits)
        : begin_{encoded.data()}, at_{begin_}, end_{begin_ + encoded.size()}, limits_{limits} {}

    std::optional<value::Error> run() {
        if (isSound()) return {};
        return value::Error{"mox", 0, fmt::format("{} at offset {}", fault_, at_ - begin_)};
    }

private:
    // Each step answers whether what it came by is sound.
    bool isSound() {
        if (static_cast<std::size_t>(end_ - begin_) > limits_.bytes) return refuse("more bytes than the limit");
        if (!value()) return false;
        while (depth_ > 0) {
            OpenContainer& container = open_[depth_ - 1];
            if (container.left == 0) {
                if (!close(container)) return false;
                continue;
            }
            --container.left;
            if (container.isDictionary && !key(container)) return false;
            if (!value()) return false;
        }
        return at_ == end_ || refuse("bytes after the value");
    }

    bool refuse(const char* fault) {
        fault_ = fault;
        return false;
    }

    // What is left of the innermost container, or of everything.
    std::size_t left() const { return static_cast<std::size_t>((depth_ > 0 ? open_[depth_ - 1].end : end_) - at_); }

    bool value() {
        if (++values_ > limits_.values) return refuse("more values than the limit");
        if (left() < encoding::kTagSize) return refuse("a value is cut off");
        const Kind kind = static_cast<Kind>(*at_);
        switch (kind) {
            case Kind::boolean:
                if (left() < 2) return refuse("a value is cut off");
                if (std::to_integer<unsigned>(at_[1]) > 1) return refuse("a boolean that is neither 0 nor 1");
                return take(2);
            case Kind::signedInteger:
            case Kind::unsignedInteger:
            case Kind::real:
            case Kind::date: return take(9);
            case Kind::uuid: return take(17);
            case Kind::data:
                if (left() < 5) return refuse("a value is cut off");
                return take(std::size_t{5} + encoding::load<std::uint32_t>(at_ + 1));
            case Kind::string: return string();
            case Kind::array:
            case Kind::dictionary: return openContainer(kind);
            case Kind::message: return message();
            case Kind::error: break;  // made on this side only, never sent
        }
        return refuse("unknown kind");
    }

    bool take(std::size_t size) {
        if (left() < size) return refuse("a value is cut off");
        at_ += size;
        return true;
    }

    // A length and that many bytes of text, from `at_` on.
    bool text(std::string_view& read) {
        if (left() < encoding::kLengthSize) return refuse("a length is cut off");
        const std::size_t length = encoding::load<std::uint32_t>(at_);
        if (left() - encoding::kLengthSize < length) return refuse("a length beyond what is left");
        read = {reinterpret_cast<const char*>(at_ + encoding::kLengthSize), length};
        if (!text::isUtf8(read)) return refuse("text that is not UTF-8");
        at_ += encoding::kLengthSize + length;
        return true;
    }

    bool string() {
        at_ += encoding::kTagSize;
        std::string_view ignored;
        return text(ignored);
    }

    bool message() {
        if (insideMessage_) return refuse("a message form inside another");
        insideMessage_ = true;
        messageDepth_ = depth_;
        at_ += encoding::kTagSize;
        if (!value()) return false;
        if (depth_ == messageDepth_) insideMessage_ = false;  // it was no container
        return true;
    }

    bool openContainer(Kind kind) {
        if (depth_ >= std::min(limits_.depth, kDeepest)) return refuse("deeper than the limit");
        if (left() < encoding::kContainerHeader) return refuse("a value is cut off");
        const std::size_t size = encoding::load<std::uint32_t>(at_ + encoding::kTagSize);
        const std::size_t count = encoding::load<std::uint32_t>(at_ + encoding::kTagSize + encoding::kLengthSize);
        if (left() - encoding::kTagSize - encoding::kLengthSize < size) return refuse("a size beyond what is left");
        if (size < encoding::kLengthSize) return refuse("a size without room for the count");
        const bool isDictionary = kind == Kind::dictionary;
        const std::size_t smallest = isDictionary ? encoding::kSmallestEntry : encoding::kSmallestValue;
        if (count > (size - encoding::kLengthSize) / smallest) return refuse("a count beyond what is left");
        OpenContainer& container = open_[depth_++];
        container = {at_, at_ + encoding::kTagSize + encoding::kLengthSize + size, count, isDictionary, true, nullptr,
                     0};
        at_ += encoding::kContainerHeader;
        return true;
    }

    bool key(OpenContainer& container) {
        const bool first = at_ == container.start + encoding::kContainerHeader;
        std::string_view read;
        if (!text(read)) return false;
        if (!container.ascending) return true;
        container.ascending = first || std::string_view{container.lastKey, container.lastKeySize} < read;
        container.lastKey = read.data();
        container.lastKeySize = read.size();
        return true;
    }

    bool close(OpenContainer& container) {
        if (at_ != container.end) return refuse("a container that does not end where its size says");
        if (!container.ascending && hasDuplicateKeys(View{container.start})) return refuse("a key that stands twice");
        --depth_;
        if (insideMessage_ && depth_ == messageDepth_) insideMessage_ = false;
        return true;
    }

    // Each with each, which for a request's few keys is the least.
    static bool hasDuplicateAmongFew(View dictionary) {
        std::size_t at = 0;
        return !dictionary.forEachEntry([&](std::string_view key, View) {
            std::size_t before = at++;
            return dictionary.forEachEntry([&](std::string_view earlier, View) {
                if (before == 0) return true;
                --before;
                return earlier != key;
            });
        });
    }

    static bool hasDuplicateKeys(View dictionary) {
        constexpr std::size_t kFew = 8;
        if (dictionary.count() <= kFew) return hasDuplicateAmongFew(dictionary);
        std::vector<std::string_view> keys;
        keys.reserve(dictionary.count());
        dictionary.forEachEntry([&](std::string_view key, View) { keys.push_back(key); });
        std::sort(keys.begin(), keys.end());
        return std::adjacent_find(keys.begin(), keys.end()) != keys.end();
    }

    const std::byte* const begin_;
    const std::byte* at_;
    const std::byte* const end_;
    const Limits limits_;
    const char* fault_ = nullptr;
    std::array<OpenContainer, kDeepest> open_;
    std::size_t depth_ = 0;
    std::size_t values_ = 0;
    bool insideMessage_ = false;
    std::size_t messageDepth_ = 0;  // how many containers were open where the message form began
};

}  // namespace

std::optional<value::Error> check(Bytes encoded, const Limits& limits) {
    return Checker{encoded, limits}.run();
}

}  // namespace mox
