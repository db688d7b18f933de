#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "fuzz/HostileWorld.h"
#include "fuzz/Steering.h"
#include "platform/mox/Encoder.h"

namespace fuzz {

// Makes requests of every type as its input steers: sound as messages, within the bounds of one, and as costly as may
// be: long lists, repeats, keys in the worst order, patterns of one operator too many, paths through links.
class RequestGenerator {
public:
    RequestGenerator(Steering& steering, const HostileWorld& world) : steering_{steering}, world_{world} {}

    // One encoded dictionary. `token` is the hold that the client took last, or none.
    std::vector<std::byte> next(const value::Uuid& token);

    // Whether the last one adds or removes bundles, annotates plug-ins, or enables them.
    bool registers() const { return registers_; }
    bool annotates() const { return annotates_; }
    bool enables() const { return enables_; }

    // Whether one was of such a kind that it may have left something behind.
    bool mayHaveChangedState() const { return changesState_; }
    bool mayHaveAdded() const { return adds_; }

private:
    using Container = mox::Encoder::Container;

    std::size_t amount(std::size_t most);
    void flags(std::size_t count);
    void rules();
    void uuids();
    void paths(const std::vector<std::string>& known);
    void tokens(const value::Uuid& token);
    void annotations();
    void pattern(std::size_t depth);
    void anything(std::size_t depth);
    std::string text();
    std::string filling();
    template <typename Entry>
    void dictionary(std::size_t count, std::string_view stem, Entry&& entry);
    template <typename Element>
    void array(std::size_t count, Element&& element, std::size_t bytes = 0);
    void key(std::string_view name) { encoder_.key(request_, name); }
    bool isFull() const;

    Steering& steering_;
    const HostileWorld& world_;
    mox::Encoder encoder_;
    Container request_{};
    std::size_t values_ = 0;
    bool changesState_ = false;
    bool adds_ = false;
    bool registers_ = false;
    bool annotates_ = false;
    bool enables_ = false;
};

}  // namespace fuzz
