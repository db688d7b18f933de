#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <iterator>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Velto/VTAnnotationChange.h"
#include "Velto/VTDaemonClient.h"
#include "platform/paths/Paths.h"
#include "platform/plist/Plist.h"
#include "tests/support/LogLines.h"
#include "tests/support/Mounts.h"
#include "tests/support/SystemCalls.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/vtd/DaemonProcess.h"
#include "vtd/VTDAnnotationStore.h"

// What "annotate" promises, kept by real processes on real file systems: a change that was answered is in the file,
// whenever the daemon is killed; a disk that takes nothing loses nothing; who observes is told.
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using value::Dictionary;
using Clock = std::chrono::steady_clock;

struct Notice {
    std::uint64_t posts;  // so far
    Clock::time_point at;
};

class Saves : public testing::Test {
protected:
    // Before there is any thread, since threads keep the namespace they were made in and forks lose the threads.
    static void SetUpTestSuite() {
        hasMounts_ = support::enterMountNamespace();
        root_ = new support::TemporaryDirectory;
        paths::setDirectories(
            {*root_ / "run", *root_ / "state", *root_ / "config", *root_ / "user", *root_ / "system", true});
        for (const std::string name : {"one", "two"}) {
            root_->write("system/PlugIns/" + name + "/Info.plist",
                         *plist::writeXml(Dictionary{{"QFBundleIdentifier", name},
                                                     {"KXExtension", Dictionary{{"KXExtensionProtocol", "#Data"}}}}));
        }
        std::array<int, 2> ends{};
        ASSERT_EQ(::pipe(ends.data()), 0);
        notices_ = file::UniqueFd{ends[0]};
        observer_ = ::fork();
        if (observer_ == 0) observe(ends[1]);
        ::close(ends[1]);
    }
    static void TearDownTestSuite() {
        ::kill(observer_, SIGKILL);
        ::waitpid(observer_, nullptr, 0);
        delete root_;
    }

    // A daemon on the file, and who asks it.
    struct Service {
        explicit Service(const std::string& path) : daemon{root_->path(), {"-d", path}} {
            if (!daemon.awaitReady()) throw std::runtime_error{"no daemon"};
        }

        // The error that is answered, or nothing; `answered` is set when the answer comes.
        std::future<std::string> annotate(const std::vector<value::Uuid>& uuids, int election,
                                          std::size_t ballast = 0) {
            const Dictionary annotations{{"election", election},
                                         {"extension", Dictionary{{"x", std::string(ballast, 'x')}}}};
            const auto promise = std::make_shared<std::promise<std::string>>();
            client.setPluginAnnotations(uuids, annotations, [this, promise](const mox::Object& reply) {
                const auto error = VTDaemonClient::errorInReply(reply);
                repliedAt = Clock::now();
                if (!error) answered = true;
                promise->set_value(error ? error->localizedDescription() : "");
            });
            return promise->get_future();
        }

        // Of "one" and "two".
        std::vector<value::Uuid> uuids() {
            std::promise<std::vector<value::Uuid>> found;
            client.matchPlugIns({}, 0, [&](const mox::Object& reply) {
                std::vector<value::Uuid> all;
                const auto matches = reply.view().find(VTKey::matches);
                if (matches && matches->message()) {
                    matches->message()->forEachElement(
                        [&](mox::View form) { all.push_back(*value::Uuid::parse(*form.find("uuid")->string())); });
                }
                found.set_value(all);
            });
            return found.get_future().get();
        }

        std::atomic<bool> answered{false};
        std::atomic<Clock::time_point> repliedAt{};
        DaemonProcess daemon;
        VTDaemonClient client;
    };

    // What a daemon that starts now would load.
    static Dictionary storedTable(const std::string& path) {
        const auto root = plist::readFile(path);
        const Dictionary* const table = root && root->dictionary() ? root->dictionary()->dictionary("data") : nullptr;
        return table != nullptr ? *table : Dictionary{{"unreadable", true}};
    }

    static int electionOf(const Dictionary& table, const char* identifier) {
        const Dictionary* const record = table.dictionary(identifier);
        const value::Value* const election = record != nullptr ? record->find("election") : nullptr;
        return election != nullptr ? static_cast<int>(election->integerValue().value_or(-1)) : -1;
    }

    static std::string bytesOf(const std::string& path) {
        std::ifstream stream{path, std::ios::binary};
        return {std::istreambuf_iterator{stream}, {}};
    }

    // How often the observer's threads went to sleep so far.
    static std::uint64_t sleepsOfObserver() {
        std::uint64_t sleeps = 0;
        for (const auto& task : std::filesystem::directory_iterator{"/proc/" + std::to_string(observer_) + "/task"}) {
            std::ifstream status{task.path() / "status"};
            for (std::string line; std::getline(status, line);) {
                if (line.starts_with("voluntary_ctxt_switches:")) sleeps += std::stoull(line.substr(24));
            }
        }
        return sleeps;
    }

    support::LogLines log_;

    static inline bool hasMounts_ = false;
    static inline support::TemporaryDirectory* root_ = nullptr;
    static inline file::UniqueFd notices_;

private:
    // Another process that observes, and tells of it through the pipe.
    [[noreturn]] static void observe(int pipe) {
        Notice notice{0, {}};
        const auto observer =
            VTObserveAnnotationChanges(std::make_shared<queue::SerialQueue>("observer"), [&](std::uint64_t changes) {
                notice = {notice.posts + changes, Clock::now()};
                if (::write(pipe, &notice, sizeof notice) != sizeof notice) ::_exit(1);
            });
        const Notice first{0, {}};
        if (!observer || ::write(pipe, &first, sizeof first) != sizeof first) ::_exit(1);
        for (;;) ::pause();
    }

    static inline pid_t observer_ = -1;
};

constexpr std::size_t kBallast = 20'000;

// What every kill must leave: the state before, or the one after; and that after it, once it was answered.
int checkedElection(const Dictionary& table, int before, bool answered) {
    const Dictionary* const record = table.dictionary("one");
    const Dictionary* const extension = record != nullptr ? record->dictionary("extension") : nullptr;
    const std::string* const ballast = extension != nullptr ? extension->string("x") : nullptr;
    EXPECT_TRUE(ballast != nullptr && ballast->size() == kBallast) << "torn";
    const int found = record != nullptr && record->find("election") != nullptr
                          ? static_cast<int>(record->find("election")->integerValue().value_or(-1))
                          : -1;
    EXPECT_TRUE(found == before + 1 || (found == before && !answered))
        << found << " after " << before << (answered ? ", answered" : "");
    return found;
}

TEST_F(Saves, AreWholeAndKeptWhereverTheyAreKilled) {
    constexpr std::size_t kKills = 1'000;
    // In memory where that can be had: what the disk has is another question than what the file has.
    const std::string directory = *root_ / "killed";
    std::filesystem::create_directory(directory);
    std::optional<support::Mount> memory;
    if (hasMounts_) memory.emplace(support::Mount::small(directory, "64m"));
    const std::string path = directory + "/Annotations";

    // The store by itself, in a process that saves once it is told to and then says that it has.
    const auto save = [&](int election, std::size_t killAt) {
        std::array<int, 4> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0 || ::pipe2(&ends[2], O_CLOEXEC | O_NONBLOCK) != 0) throw errno;
        const std::array<file::UniqueFd, 4> pipes{file::UniqueFd{ends[0]}, file::UniqueFd{ends[1]},
                                                  file::UniqueFd{ends[2]}, file::UniqueFd{ends[3]}};
        const auto receive = [&](std::size_t end) {
            char byte = 0;
            return ::read(ends.at(end), &byte, 1) == 1;
        };
        const auto tell = [&](std::size_t end) { return ::write(ends.at(end), "!", 1) == 1; };
        const pid_t child = ::fork();
        if (child == 0) {
            const auto store = VTDAnnotationStore::initWithDatabase(path);
            const Dictionary annotation{{"election", election},
                                        {"extension", Dictionary{{"x", std::string(kBallast, 'x')}}}};
            if (!store || !tell(3) || !receive(0)) ::_exit(1);
            (*store)->setAnnotation(annotation, "one");
            tell(3);
            for (;;) ::pause();
        }
        while (!receive(2)) ::usleep(20);
        return support::followAndKill(
            child, killAt, [&] { tell(1); }, [&] { return receive(2); });
    };
    const auto undisturbed = save(1, 0);
    int election = checkedElection(storedTable(path), 0, undisturbed.answered);

    std::size_t kills = 0;
    std::size_t ofStore = 0;
    const auto killStore = [&](std::size_t until) {
        for (; kills < until; ++kills, ++ofStore) {
            const auto followed = save(election + 1, ofStore % undisturbed.stops + 1);
            election = checkedElection(storedTable(path), election, followed.answered);
        }
    };
    killStore(kKills * 19 / 20);  // before the client below makes threads, which a fork would lose

    // The whole daemon, once at each of its stops.
    std::size_t daemonStops = 1;
    for (std::size_t killAt = 0; killAt < daemonStops; ++killAt) {
        Service service{path};
        const auto uuids = service.uuids();
        std::future<std::string> reply;
        const auto followed = support::followAndKill(
            service.daemon.release(), killAt,
            [&] { reply = service.annotate({uuids.front()}, election + 1, kBallast); },
            [&] { return service.answered.load(); });
        reply.wait();
        election = checkedElection(storedTable(path), election, service.answered);
        ++kills;
        if (killAt > 0) continue;
        daemonStops = followed.stops;
        std::vector<long> order;
        std::copy_if(followed.calls.begin(), followed.calls.end(), std::back_inserter(order),
                     [](long call) { return call == SYS_fsync || call == SYS_renameat || call == SYS_sendto; });
        EXPECT_THAT(order, ElementsAre(SYS_sendto, SYS_fsync, SYS_renameat, SYS_fsync, SYS_sendto))
            << "the log's line, the save, and only then the reply";
    }
    killStore(kKills);
    std::cout << undisturbed.calls.size() << " calls of a save times " << ofStore / undisturbed.calls.size()
              << " kills, and " << daemonStops / 2 << " calls of the daemon times 2 kills: " << kills << " kills\n";
}

TEST_F(Saves, ThatTheDiskDoesNotTakeAreAnsweredLoggedAndMadeUpFor) {
    if (!hasMounts_) GTEST_SKIP() << "no namespaces to be had here";
    for (const bool full : {true, false}) {
        SCOPED_TRACE(full ? "full" : "read-only");
        const std::string directory = *root_ / (full ? "full" : "read-only");
        std::filesystem::create_directory(directory);
        const support::Mount disk = support::Mount::small(directory, "64k");
        const std::string path = directory + "/Annotations";
        Service service{path};
        const auto uuids = service.uuids();
        ASSERT_EQ(uuids.size(), 2U);
        EXPECT_EQ(service.annotate({uuids[0]}, 1).get(), "");
        const std::string before = bytesOf(path);
        EXPECT_EQ(electionOf(storedTable(path), "one"), 1);
        service.daemon.takeWrites();
        {
            std::optional<support::Mount> readOnly;
            const std::string ballast = full ? disk.fill() : "";
            if (!full) readOnly.emplace(support::Mount::bind(directory, directory)).setReadOnly(true);
            for (int round = 0; round < 2; ++round) {
                EXPECT_EQ(service.annotate({uuids[0]}, 2, 9'000).get(), "");
                EXPECT_THAT(
                    service.daemon.takeWrites(),
                    Contains(testing::AllOf(HasSubstr("unable to save annotations:" + path + " error:"),
                                            HasSubstr(full ? "No space left on device" : "Read-only file system"))));
            }
            EXPECT_EQ(bytesOf(path), before);
            if (full) std::filesystem::remove(ballast);
        }
        EXPECT_EQ(service.annotate({uuids[1]}, 1).get(), "");
        const Dictionary table = storedTable(path);
        EXPECT_EQ(electionOf(table, "one"), 2);
        EXPECT_EQ(electionOf(table, "two"), 1);
        std::vector<std::string> left;
        for (const auto& entry : std::filesystem::directory_iterator{directory})
            left.push_back(entry.path().filename());
        EXPECT_THAT(left, testing::UnorderedElementsAre("Annotations", "Annotations.lock"));
    }
}

TEST_F(Saves, AreToldToAnotherProcessWithinTenMillisecondsAndNoneIsLost) {
    constexpr unsigned kRequests = 100;
    Service service{*root_ / "told"};
    const auto uuids = service.uuids();
    const auto next = [&] {
        Notice notice{};
        if (::read(notices_.get(), &notice, sizeof notice) != sizeof notice) throw std::runtime_error{"no observer"};
        return notice;
    };
    Notice notice = next();
    const auto pollable = [&] {
        pollfd watched{notices_.get(), POLLIN, 0};
        return ::poll(&watched, 1, 0) > 0;
    };
    while (pollable()) notice = next();  // those of the tests before
    const std::uint64_t start = notice.posts;

    std::vector<Clock::duration> delays;
    for (unsigned i = 1; i <= kRequests; ++i) {
        ASSERT_EQ(service.annotate(uuids, static_cast<int>(i % 3)).get(), "");
        while (notice.posts < start + uuids.size() * i) notice = next();
        delays.push_back(notice.at - service.repliedAt.load());
    }
    EXPECT_EQ(notice.posts, start + uuids.size() * kRequests);
    std::sort(delays.begin(), delays.end());
    const auto milliseconds = [](Clock::duration delay) {
        return std::chrono::duration<double, std::milli>{delay}.count();
    };
    std::cout << "told " << milliseconds(delays[kRequests / 2]) << " ms after the reply (median), "
              << milliseconds(delays.back()) << " ms (worst)\n";
    EXPECT_LT(milliseconds(delays[kRequests * 9 / 10]), 10);

    const std::uint64_t sleeps = sleepsOfObserver();
    std::this_thread::sleep_for(std::chrono::milliseconds{200});
    EXPECT_LE(sleepsOfObserver(), sleeps + 5) << "who observes sleeps until there is something to see";
    EXPECT_FALSE(pollable());
}

}  // namespace
