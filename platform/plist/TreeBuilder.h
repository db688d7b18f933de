#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/plist/Plist.h"
#include "platform/value/Value.h"

namespace plist {

// Why a list is refused; the decoder adds where.
struct Fault {
    ErrorCode code = ErrorCode::malformed;
    std::string what;
};

value::Error errorOf(const Fault& fault, std::string_view where);

// Assembles a value from the events of a decoder, in document order and without recursion. Keeps the grammar that both
// encodings share (one root; in a dictionary a key before each value and none twice) and the limits of depth and
// number. After a fault the builder is of no further use.
class TreeBuilder {
public:
    explicit TreeBuilder(const Limits& limits);
    TreeBuilder(const TreeBuilder&) = delete;
    TreeBuilder& operator=(const TreeBuilder&) = delete;
    ~TreeBuilder();

    [[nodiscard]] std::optional<Fault> openArray() { return open(Container::array); }
    [[nodiscard]] std::optional<Fault> openDictionary() { return open(Container::dictionary); }
    [[nodiscard]] std::optional<Fault> addKey(std::string key);
    [[nodiscard]] std::optional<Fault> add(value::Value value);
    [[nodiscard]] std::optional<Fault> close();  // the innermost container

    std::size_t depth() const { return open_.size(); }
    bool isInArray() const { return isIn(Container::array); }
    bool isInDictionary() const { return isIn(Container::dictionary); }
    bool complete() const { return hasRoot_ && open_.empty(); }
    value::Value takeRoot() { return std::move(root_); }  // once, when complete

private:
    enum class Container : bool { array, dictionary };
    struct Open {
        Container container;
        bool awaitsValue;        // a dictionary whose last key has none yet
        std::size_t firstEntry;  // among the pending ones
    };

    bool isIn(Container container) const { return !open_.empty() && open_.back().container == container; }
    std::optional<Fault> open(Container container);
    std::optional<Fault> countValue();
    std::optional<Fault> checkPlace() const;
    void place(value::Value value);

    const Limits limits_;
    std::size_t values_ = 0;
    std::vector<Open> open_;

    // The elements so far of all open containers, those of inner ones on top; keys stay empty in arrays. One stack for
    // all lets each container be allocated once, at its size. Its room is kept for the thread's next list.
    using Pending = std::vector<value::Dictionary::Entry>;
    static Pending& spare();
    Pending pending_;

    value::Value root_ = false;
    bool hasRoot_ = false;
};

}  // namespace plist
