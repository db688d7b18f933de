#pragma once

#include <optional>
#include <string>

#include "Velto/VTDaemonClient.h"
#include "platform/mox/Dictionary.h"
#include "platform/mox/Object.h"
#include "vtctl/ExitStatus.h"

// Sends one request and waits for its reply: a dictionary, or the Mox layer's error.
mox::Object sendAndWait(VTDaemonClient& client, const mox::Dictionary& request);

// Whether a reply is a success; otherwise says on standard error what went wrong and what to do, and gives the status.
ExitStatus reportErrorIn(VTDaemonClient& client, const mox::Object& reply, const std::string& serviceName);
