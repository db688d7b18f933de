#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Velto/VTAtomic.h"

// Issues a token that lets the process that consumes it read the path. Nothing when the platform refuses; errno then
// says why and is left for the caller's message. Only in the daemon's process.
std::optional<std::string> VTIssueReadExtension(const std::string& url);

// The consumer's holder of a token. Not consumed (handle 0) until consume(); a consumed extension never outlives its
// holder, and a token can be consumed again after expel().
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
