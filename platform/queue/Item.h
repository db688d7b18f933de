#pragma once

#include <cstdint>
#include <memory>
#include <utility>

namespace queue {

// One thing to do in a queue's turn. Intrusive, so that events and timers are queued without allocating.
class Item {
public:
    enum class Kind : std::uint8_t { work, waiter };

    explicit Item(Kind kind = Kind::work) : kind_{kind} {}
    Item(const Item&) = delete;
    Item& operator=(const Item&) = delete;
    virtual ~Item() = default;

    // Called once for each time it was queued, in the queue's turn. The item may be gone, or queued again, afterwards.
    virtual void run() noexcept = 0;

    bool isWaiter() const { return kind_ == Kind::waiter; }

private:
    friend class ItemList;
    const Kind kind_;
    Item* next_ = nullptr;
};

// A closure as an item, or as what a queue derives from one, in one allocation that it frees itself.
template <typename F, typename Base = Item>
class Closure final : public Base {
public:
    explicit Closure(F work) : work_{std::move(work)} {}

    // What the closure captured goes in the queue's turn too: a later sync() finds it gone.
    void run() noexcept override {
        const std::unique_ptr<Closure> self{this};
        work_();
    }

private:
    F work_;
};

}  // namespace queue
