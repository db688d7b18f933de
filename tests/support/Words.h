#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include "platform/value/Value.h"

// The words that nearly every test uses, so that none has to introduce them.
using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using value::Array;
using value::Dictionary;
using value::Value;

namespace fs = std::filesystem;
using namespace std::string_literals;
using Texts = std::vector<std::string>;

// Why there is no result, as people are told; empty when there is one.
template <typename Result>
std::string whyNot(const Result& result) {
    return result ? std::string{} : result.error().localizedDescription();
}
