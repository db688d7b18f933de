#pragma once

#include <atomic>
#include <type_traits>
#include <utility>

// A property that is individually atomic: a reader sees the value of some store, whole. Nothing is promised across two
// properties.
//
// Scalars are lock-free. Other values lie under a lock of one byte, held for a copy or a swap and nothing else: the
// value that a store replaces is destroyed after the lock is given back, so that no destructor runs under it.
template <typename T, bool isScalar = std::is_scalar_v<T>>
class VTAtomic {
public:
    VTAtomic() = default;
    explicit VTAtomic(T value) : value_{std::move(value)} {}

    T load() const {
        const Lock lock{busy_};
        return value_;
    }

    void store(T value) {
        const Lock lock{busy_};
        std::swap(value_, value);
    }

private:
    class Lock {
    public:
        explicit Lock(std::atomic_flag& busy) : busy_{busy} {
            while (busy_.test_and_set(std::memory_order_acquire)) busy_.wait(true, std::memory_order_relaxed);
        }
        ~Lock() {
            busy_.clear(std::memory_order_release);
            busy_.notify_one();
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        std::atomic_flag& busy_;
    };

    T value_{};
    mutable std::atomic_flag busy_;
};

template <typename T>
class VTAtomic<T, true> {
public:
    VTAtomic() = default;
    explicit VTAtomic(T value) : value_{value} {}

    T load() const { return value_.load(std::memory_order_acquire); }
    void store(T value) { value_.store(value, std::memory_order_release); }

private:
    std::atomic<T> value_{};
};
