#pragma once

#include <istream>
#include <string>

#include "vtctl/ExitStatus.h"

// `vtctl call NAME [JSON]`: one request made of the object's members. Nothing is checked on this side, so that
// malformed requests can be sent.
ExitStatus runCall(const std::string& serviceName, const std::string& name, const std::string& object);

// `vtctl call -`: a request for each line of the input, in order, over one connection that stays open until the input
// ends; a reply a line, as it arrives.
ExitStatus runCallLines(const std::string& serviceName, std::istream& lines);
