#include "platform/effort/Effort.h"

#include <algorithm>
#include <utility>

namespace effort {

namespace {
constinit thread_local Account* current = nullptr;
}

bool Account::take(std::uint64_t units) {
    const std::uint64_t taken = std::min(units, left_);
    left_ -= taken;
    spent_ += taken;
    if (outer_ != nullptr) static_cast<void>(outer_->take(taken));
    return left_ != 0;
}

void Account::grantShares(std::size_t things) {
    if (!isSpent()) left_ += things * kShare;
}

Charging::Charging(Account& account) : before_{std::exchange(current, &account)} {}

Charging::~Charging() {
    current = before_;
}

Uncharged::Uncharged() : before_{std::exchange(current, nullptr)} {}

Uncharged::~Uncharged() {
    current = before_;
}

bool take(std::uint64_t units) {
    return current == nullptr || current->take(units);
}

bool isSpent() {
    return current != nullptr && current->isSpent();
}

}  // namespace effort
