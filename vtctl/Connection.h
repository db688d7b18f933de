#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "Velto/VTDaemonClient.h"
#include "platform/mox/Dictionary.h"
#include "platform/mox/Object.h"
#include "vtctl/ExitStatus.h"

// How long sendAndWait() waits for a reply: half a minute unless it is said.
void setPatience(std::chrono::milliseconds patience);

// Sends one request and waits for its reply: a dictionary, or an error: the Mox layer's, or that none came in time.
mox::Object sendAndWait(VTDaemonClient& client, const mox::Dictionary& request);

// What to do about an error of a code; the codes that a verb has nothing to say about are left out.
using Advice = std::initializer_list<std::pair<std::int64_t, std::string_view>>;

// Whether a reply is a success; otherwise says on standard error what went wrong and what to do, and gives the status.
ExitStatus reportErrorIn(VTDaemonClient& client, const mox::Object& reply, const std::string& serviceName,
                         Advice advice = {});

// For verbs that send one request and print nothing when it succeeds.
ExitStatus sendAndReport(VTDaemonClient& client, const mox::Dictionary& request, const std::string& serviceName,
                         Advice advice);
