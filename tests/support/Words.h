#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <future>
#include <latch>
#include <limits>
#include <thread>

#include <gmock/gmock.h>

#include "platform/value/Value.h"
#include "tests/support/LogLines.h"
#include "tests/support/PrivateRoot.h"

// What nearly every test uses, so that none has to introduce it: files and processes, values, a directory or a whole
// root of its own, the log, and the words of expectations.
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

// Says that a part of a test, such as a row of its table, cannot be tried here. The test goes on and counts as skipped.
inline void skipPart(const std::string& why) {
    GTEST_SKIP() << why;
}

// Why there is no result, as people are told; empty when there is one.
template <typename Result>
std::string whyNot(const Result& result) {
    return result ? std::string{} : result.error().localizedDescription();
}
