#pragma once

#include "platform/plist/Plist.h"
#include "tests/support/Words.h"

namespace plist {

inline void expectValue(const value::Result<Value>& root, const Value& value, const std::string& input) {
    ASSERT_TRUE(root) << input << whyNot(root);
    EXPECT_EQ(*root, value) << input;
    EXPECT_EQ(root->kind(), value.kind()) << input;
}

template <typename Result>
void expectRefusal(const Result& result, ErrorCode code, const char* message) {
    ASSERT_FALSE(result) << message;
    EXPECT_EQ(result.error().code, static_cast<std::int64_t>(code)) << message;
    EXPECT_THAT(whyNot(result), HasSubstr(message));
}

}  // namespace plist
