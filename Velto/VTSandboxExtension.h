#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "Velto/VTAtomic.h"

// A host's holder of a token that the daemon issued. Not consumed (handle 0) until consume(); a consumed extension
// never outlives its holder, and a token can be consumed again after expel().
//
// Threading: the two properties are individually atomic; consume() and expel() are for one thread at a time.
class VTSandboxExtension {
public:
    explicit VTSandboxExtension(std::string token);  // initWithExtension
    ~VTSandboxExtension();
    VTSandboxExtension(const VTSandboxExtension&) = delete;
    VTSandboxExtension& operator=(const VTSandboxExtension&) = delete;

    std::string token() const { return token_.load(); }
    void setToken(std::string token) { token_.store(std::move(token)); }
    std::int64_t handle() const { return handle_.load(); }
    void setHandle(std::int64_t handle) { handle_.store(handle); }

    void consume();  // nothing when consumed; else takes whatever handle the platform gives, -1 (refused) included
    void expel();    // nothing when not consumed

private:
    VTAtomic<std::string> token_;
    VTAtomic<std::int64_t> handle_;
};
