#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/mox/View.h"
#include "platform/value/Value.h"

// Data as text, as RFC 4648 has it, with padding. Reading takes it without padding too.
std::string toBase64(mox::Bytes bytes);
std::optional<value::Data> fromBase64(std::string_view text);
