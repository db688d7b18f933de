#include "Velto/VTSandboxExtension.h"

#include <utility>

#include "platform/sandbox/Sandbox.h"

VTSandboxExtension::VTSandboxExtension(std::string token) : token_{std::move(token)} {}

VTSandboxExtension::~VTSandboxExtension() {
    expel();
}

void VTSandboxExtension::consume() {
    if (handle() != 0) return;
    setHandle(sandbox::consume(token()));
}

void VTSandboxExtension::expel() {
    const std::int64_t consumed = handle();
    if (consumed == 0) return;
    sandbox::release(consumed);
    setHandle(0);
}
