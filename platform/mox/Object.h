#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/file/UniqueFd.h"
#include "platform/mox/View.h"
#include "platform/value/Value.h"

namespace mox {

// How much a decoder accepts. Every bound is held before anything is allocated.
struct Limits {
    std::size_t bytes;
    std::size_t depth;
    std::size_t values;
};
inline constexpr Limits kRequestLimits{std::size_t{1} << 20, 32, 100'000};
inline constexpr Limits kReplyLimits{std::size_t{1} << 30, 96, 200'000'000};

// Checks one encoded value that must fill the bytes: tags, counts and lengths against what is left, depth, number of
// values, UTF-8, keys that stand twice. Nothing when it is sound, else what is wrong and at which offset.
std::optional<value::Error> check(Bytes encoded, const Limits& limits);

// An immutable Mox value that shares the bytes it lies in; a reference count to copy, readable from any thread. Either
// a value or, where a connection failed, an error.
class Object {
public:
    // The plain conversion: a property-list value becomes the structurally equal Mox value.
    explicit Object(const value::Value& value);

    // One that lies in what somebody else keeps: it was checked or made by an Encoder, and shares its owner's life.
    explicit Object(std::shared_ptr<const std::byte> encoded) : encoded_{std::move(encoded)} {}

    // Takes over bytes from outside when check() accepts them.
    static value::Result<Object> decode(std::vector<std::byte> encoded, const Limits& limits);

    // Copies bytes that check() has accepted, into one allocation.
    static Object copyOf(Bytes encoded);

    // Takes over one value that an Encoder made.
    static Object adopt(std::vector<std::byte> encoded);

    View view() const { return View{encoded_.get()}; }
    bool isDictionary() const { return view().isDictionary(); }
    bool isError() const { return view().kind() == Kind::error; }

    // The same bytes, shared: a part of this object as an object of its own.
    Object part(View inside) const;

    // A descriptor that came with a reply; shared with copies of the object. Null when none came.
    const std::shared_ptr<const file::UniqueFd>& descriptor() const { return descriptor_; }
    void setDescriptor(std::shared_ptr<const file::UniqueFd> descriptor) { descriptor_ = std::move(descriptor); }

private:
    std::shared_ptr<const std::byte> encoded_;  // where the value begins; owns all that it lies in
    std::shared_ptr<const file::UniqueFd> descriptor_;
};

// The text that "%@" stands for where a message is dumped; bounded in size.
std::string description(View view);

// The errors that a connection's events and reply closures carry (Object::isError), of the domain "mox".
enum class ErrorCode : std::int64_t { connectionInvalid = 1, connectionInterrupted = 2, terminationImminent = 3 };
bool isError(const Object& object, ErrorCode code);

// The Mox layer's description text of an error object.
std::string errorDescription(const Object& error);

}  // namespace mox
