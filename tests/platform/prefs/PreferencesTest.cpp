#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>

#include "platform/file/File.h"
#include "platform/lock/LockFile.h"
#include "platform/prefs/Preferences.h"
#include "tests/support/Words.h"

namespace prefs {
namespace {

constexpr char kDomain[] = "halvern.test";

class Preferences : public testing::Test {
protected:
    Preferences() { defaults.addSuite(kDomain); }

    // In place, as an editor does.
    void store(std::int64_t count) const { root.writeList(inRoot, Dictionary{{"count", count}}); }

    // What a program that asks again and again sees now: -1 for none.
    std::int64_t seen() {
        defaults.synchronise(kDomain);
        const auto value = defaults.copyValue("count", kDomain);
        return value ? value->integerValue().value_or(-2) : -1;
    }

    // Adds to the count, as a program does that changes what is stored.
    static std::optional<value::Error> add(std::int64_t count) {
        return update(kDomain, "count", [count](const std::optional<Value>& stored) {
            return std::optional<Value>{(stored ? *stored->integerValue() : 0) + count};
        });
    }

    const support::PrivateRoot root;
    const std::string path = pathOf(kDomain), inRoot = fs::path{path}.lexically_relative(root.path());
    UserDefaults defaults;
    support::LogLines log;
};

TEST_F(Preferences, ShowEveryChangeHoweverSoonAfterTheLast) {
    EXPECT_EQ(seen(), -1);
    for (std::int64_t i = 0; i < 10; ++i) {
        store(i);
        EXPECT_EQ(seen(), i) << "written within a tick of the clock";
    }
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_EQ(add(1), std::nullopt);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(seen(), 9) << "no descriptor to be had says nothing of the file: what was known stays";
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(seen(), 10);
    fs::remove(path);
    EXPECT_EQ(seen(), -1);
}

TEST_F(Preferences, AreNotOpenedWhileUnchanged) {
    store(1);
    while (!file::settled(*file::stampOf(path))) std::this_thread::yield();
    EXPECT_EQ(seen(), 1);
    const file::UniqueFd watch{::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
    if (!watch) GTEST_SKIP() << "nothing can be watched here";
    ASSERT_GE(::inotify_add_watch(watch.get(), path.c_str(), IN_OPEN), 0);
    pollfd opened{watch.get(), POLLIN, 0};
    EXPECT_FALSE(defaults.synchronise(kDomain));
    EXPECT_EQ(::poll(&opened, 1, 0), 0);
    ASSERT_TRUE(read(kDomain, "count"));
    EXPECT_EQ(::poll(&opened, 1, 0), 1) << "the watch does see who opens it";
}

// One that makes no sense counts as empty for those who read, with one line for each change, and is kept from those who
// would replace it.
TEST_F(Preferences, ThatCannotBeReadAreEmptyAndNeverReplaced) {
    const struct {
        const char* reason;
        std::function<void()> make;
    } rows[] = {
        {"line 1", [&] { fs::rename(root.write("new", "no list"), path); }},
        {"not a dictionary", [&] { fs::rename(root.writeList("new", Array{}), path); }},
        {"large", [&] { fs::rename(root.write("new", std::string(std::size_t{5} << 20, ' ')), path); }},
        {"not a regular file", [&] { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); }},
        {"irectory", [&] { fs::create_directory(path); }},
        {"No such file", [&] { fs::create_symlink("gone", path); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reason);
        fs::remove(path);
        store(1);
        EXPECT_EQ(seen(), 1);
        fs::remove(path);
        row.make();
        for (int i = 0; i < 3; ++i) EXPECT_EQ(seen(), -1);
        EXPECT_THAT(log.take(), ElementsAre(AllOf(HasSubstr(path), HasSubstr(row.reason))));

        const auto before = fs::symlink_status(path).type();
        const auto error = add(1);
        ASSERT_TRUE(error);
        EXPECT_THAT(error->localizedDescription(), AllOf(HasSubstr(path), HasSubstr("move it away")));
        EXPECT_EQ(fs::symlink_status(path).type(), before);
        EXPECT_FALSE(read(kDomain, "count"));
    }
    EXPECT_FALSE(fs::exists(fs::path{path}.replace_filename("gone")));
}

TEST_F(Preferences, LoseNoChangeWhenManyProcessesMakeThem) {
    constexpr int kProcesses = 4, kChanges = 10;
    for (int i = 0; i < kProcesses; ++i) {
        if (::fork() != 0) continue;
        for (int n = 0; n < kChanges; ++n) {
            if (add(1)) ::_exit(1);
        }
        ::_exit(0);
    }
    for (int status = 0; ::wait(&status) > 0;) EXPECT_EQ(status, 0);
    EXPECT_EQ(seen(), kProcesses * kChanges);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(Preferences, AreNotWaitedForForever) {
    store(1);
    const auto lock = lock::LockFile::take(fs::path{path}.replace_extension(".lock"));
    ASSERT_TRUE(lock);
    const auto error = add(1);
    EXPECT_THAT(error ? error->localizedDescription() : "", HasSubstr("process " + std::to_string(::getpid())));
}

}  // namespace
}  // namespace prefs
