#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/file/File.h"
#include "platform/file/UniqueFd.h"
#include "platform/lock/LockFile.h"
#include "platform/paths/Paths.h"
#include "platform/prefs/Preferences.h"
#include "tests/support/LogLines.h"
#include "tests/support/TemporaryDirectory.h"

namespace prefs {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kDomain[] = "halvern.test";
constexpr char kGood[] =
    "<plist version=\"1.0\"><dict><key>count</key><integer>1</integer>"
    "<key>other</key><array><real>0.5</real><data>AAE=</data></array></dict></plist>";

class Preferences : public testing::Test {
protected:
    Preferences() {
        paths::Directories directories;
        directories.config = root / "config";
        paths::setDirectories(directories);
        defaults.addSuite(kDomain);
        std::filesystem::create_directories(root / "config/preferences");
    }

    void store(std::string_view bytes) const { std::ofstream{path(), std::ios::binary} << bytes; }
    std::string stored() const {
        std::ifstream file{path(), std::ios::binary};
        return {std::istreambuf_iterator<char>{file}, {}};
    }
    std::string path() const { return pathOf(kDomain); }

    // What a program that asks again and again sees now: -1 for none.
    std::int64_t seen() {
        defaults.synchronise(kDomain);
        const auto value = defaults.copyValue("count", kDomain);
        return value ? value->integerValue().value_or(-2) : -1;
    }

    static std::optional<value::Error> setCount(std::int64_t count) {
        return update(kDomain, "count", [count](const auto&) { return std::optional<value::Value>{count}; });
    }

    const support::TemporaryDirectory root;
    UserDefaults defaults;
    support::LogLines log;
};

TEST_F(Preferences, LieInOneFileForEachDomainAndHost) {
    char host[256] = {};
    ASSERT_EQ(::gethostname(host, sizeof host - 1), 0);
    EXPECT_EQ(path(), root / "config/preferences/halvern.test." + host + ".plist");
    for (const std::string& domain : {std::string{"../../up/domain"}, std::string(3000, 'd')}) {
        EXPECT_EQ(std::filesystem::path{pathOf(domain)}.parent_path(), root / "config/preferences");
        EXPECT_EQ(update(domain, "k", [](const auto&) { return std::optional<value::Value>{7}; }), std::nullopt);
        EXPECT_EQ(*read(domain, "k"), value::Value{7});
    }
}

TEST_F(Preferences, ShowEveryChangeHoweverSoonAfterTheLast) {
    EXPECT_EQ(seen(), -1);
    for (std::int64_t i = 0; i < 10; ++i) {
        ASSERT_EQ(setCount(i), std::nullopt);
        EXPECT_EQ(seen(), i);
        store("<plist version=\"1.0\"><dict><key>count</key><integer>" + std::to_string(9 - i) +
              "</integer></dict></plist>");
        EXPECT_EQ(seen(), 9 - i) << "written in place, within a tick of the clock";
    }
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_EQ(setCount(10), std::nullopt);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(seen(), 0) << "no descriptor to be had says nothing of the file: what was known stays";
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(seen(), 10);
    std::filesystem::remove(path());
    EXPECT_EQ(seen(), -1);
}

TEST_F(Preferences, AreNotOpenedWhileUnchanged) {
    store(kGood);
    while (!file::settled(*file::stampOf(path()))) std::this_thread::yield();
    EXPECT_EQ(seen(), 1);
    const file::UniqueFd watch{::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
    ASSERT_GE(::inotify_add_watch(watch.get(), path().c_str(), IN_OPEN), 0);
    pollfd opened{watch.get(), POLLIN, 0};
    EXPECT_FALSE(defaults.synchronise(kDomain));
    EXPECT_EQ(seen(), 1);
    EXPECT_EQ(::poll(&opened, 1, 0), 0);
    ASSERT_TRUE(read(kDomain, "count"));
    EXPECT_EQ(::poll(&opened, 1, 0), 1) << "the watch does see who opens it";
}

// One that makes no sense counts as empty for those who read, with one line for each change, and is kept from those who
// would replace it.
TEST_F(Preferences, ThatCannotBeReadAreEmptyAndNeverReplaced) {
    const struct {
        const char* name;
        std::function<void()> make;
        const char* reason;
    } rows[] = {
        {"no list", [&] { store("no list"); }, "line 1"},
        {"cut", [&] { store(std::string_view{kGood}.substr(0, 60)); }, "line 1"},
        {"empty", [&] { store(""); }, "reading"},
        {"another kind", [&] { store("<plist version=\"1.0\"><array/></plist>"); }, "not a dictionary"},
        {"too large", [&] { store(std::string(std::size_t{5} << 20, ' ')); }, "large"},
        {"a pipe", [&] { ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0); }, "not a regular file"},
        {"a directory", [&] { std::filesystem::create_directory(path()); }, "irectory"},
        {"a link that leads nowhere", [&] { std::filesystem::create_symlink("gone", path()); }, "No such file"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove(path());
        store(kGood);
        EXPECT_EQ(seen(), 1);
        std::filesystem::remove(path());
        log.take();
        row.make();
        for (int i = 0; i < 3; ++i) EXPECT_EQ(seen(), -1);
        EXPECT_THAT(log.take(), ElementsAre(testing::AllOf(HasSubstr(path()), HasSubstr(row.reason))));

        const auto before = std::filesystem::symlink_status(path()).type();
        const auto error = setCount(2);
        ASSERT_TRUE(error);
        EXPECT_THAT(error->localizedDescription(), testing::AllOf(HasSubstr(path()), HasSubstr("move it away")));
        EXPECT_EQ(std::filesystem::symlink_status(path()).type(), before);
        EXPECT_FALSE(read(kDomain, "count"));
    }
    EXPECT_FALSE(std::filesystem::exists(root / "config/preferences/gone"));
}

TEST_F(Preferences, ChangeOneKeyAndKeepTheRest) {
    store(kGood);
    const auto other = *read(kDomain, "other");
    ASSERT_TRUE(other);
    EXPECT_EQ(setCount(5), std::nullopt);
    EXPECT_EQ(*read(kDomain, "count"), value::Value{5});

    const std::string before = stored();
    const value::Error refusal{"test", 3, "no such exclusion"};
    EXPECT_EQ(update(kDomain, "count", [&](const auto&) { return refusal; }), refusal);
    EXPECT_EQ(stored(), before);

    EXPECT_EQ(update(kDomain, "count", [](const auto&) { return std::optional<value::Value>{}; }), std::nullopt);
    EXPECT_EQ(*read(kDomain, "count"), std::nullopt);
    EXPECT_EQ(*read(kDomain, "other"), other);
}

TEST_F(Preferences, LoseNoChangeWhenManyProcessesMakeThem) {
    constexpr int kProcesses = 4;
    constexpr int kChanges = 10;
    for (int i = 0; i < kProcesses; ++i) {
        if (::fork() != 0) continue;
        bool good = true;
        for (int n = 0; n < kChanges; ++n) {
            good = good && !update(kDomain, "count", [](const std::optional<value::Value>& count) {
                       return std::optional<value::Value>{(count ? count->integerValue().value_or(0) : 0) + 1};
                   });
        }
        ::_exit(good ? 0 : 1);
    }
    for (int status = 0; ::wait(&status) > 0;) EXPECT_EQ(status, 0);
    EXPECT_EQ(seen(), kProcesses * kChanges);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Preferences, AreNotWaitedForForever) {
    const auto lock = lock::LockFile::take(path().substr(0, path().size() - 5) + "lock");
    ASSERT_TRUE(lock);
    const auto error = setCount(1);
    ASSERT_TRUE(error);
    EXPECT_THAT(error->localizedDescription(), HasSubstr("process " + std::to_string(::getpid())));
    EXPECT_EQ(seen(), -1);
}

}  // namespace
}  // namespace prefs
