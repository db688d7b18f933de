#pragma once

#include <istream>
#include <string>

#include "vtctl/ExitStatus.h"

// `vtctl call NAME [JSON]`: one request made of the object's members. Nothing is checked on this side, so that
// malformed requests can be sent.
ExitStatus runCall(const std::string& serviceName, const std::string& name, const std::string& object);

// `vtctl call -`: a request for each line of the input, in order, over one connection that stays open until the input
// ends, and is made again when it breaks. For each an answer of one line, as it arrives: the reply, or an object with
// "outcome" ("unknown", or "not sent" for a line that is no request) and "error".
ExitStatus runCallLines(const std::string& serviceName, std::istream& lines);
