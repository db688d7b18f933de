#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/dravo/store/Images.h"
#include "tests/support/LogLines.h"
#include "tests/support/TemporaryDirectory.h"

namespace dravo {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

std::string textOf(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bool isSound(std::span<const std::byte> bytes) {
    return textOf(bytes).starts_with("image ");
}

Images::Key keyOf(std::uint8_t number, std::uint64_t madeOf = 1) {
    return {value::Uuid{{number}}, {madeOf, number}};
}

std::string contentOf(std::uint8_t number, std::size_t size = 40) {
    return "image " + std::to_string(number) + std::string(size, static_cast<char>('a' + number % 26));
}

void keep(Images& images, std::uint8_t number, const std::string& content, std::uint64_t madeOf = 1) {
    Images::Place place{0};
    images.keep(keyOf(number, madeOf), std::as_bytes(std::span{content}), place);
}

std::optional<std::string> find(Images& images, std::uint8_t number, std::uint64_t madeOf = 1) {
    Images::Place place{0};
    const auto found = images.find(keyOf(number, madeOf), place, isSound);
    if (!found) return {};
    const auto again = images.at(place);
    EXPECT_TRUE(!again || textOf(again->bytes) == textOf(found->bytes));  // unless it was moved just now
    return textOf(found->bytes);
}

std::string readFile(const std::string& path) {
    std::ifstream file{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{file}, {}};
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream{path, std::ios::binary} << bytes;
}

TEST(Images, AreFoundAgainAsTheyWereKeptOrNotAtAllWhateverHappensToTheFile) {
    const support::TemporaryDirectory directory;
    const std::string path = directory / "images";
    support::LogLines log;
    {
        Images images{path};
        for (std::uint8_t i = 0; i < 3; ++i) keep(images, i, contentOf(i));
        keep(images, 3, "not sound");
        EXPECT_EQ(find(images, 1, 2), std::nullopt) << "made of something else";
        EXPECT_THAT(log.take(), IsEmpty());
    }
    const std::string good = readFile(path);
    std::vector<std::string> files{good, "", std::string(2 * good.size(), '\0'), good + good, good.substr(0, 32)};
    for (std::size_t i = 0; i < good.size(); ++i) {
        files.push_back(good.substr(0, i));
        files.push_back(good);
        files.back()[i] = static_cast<char>(files.back()[i] ^ 0x40);
    }
    for (std::size_t round = 0; round < files.size(); ++round) {
        SCOPED_TRACE(round);
        writeFile(path, files[round]);
        {
            Images images{path};
            std::size_t found = 0;
            for (std::uint8_t i = 0; i < 3; ++i) {
                const auto image = find(images, i);
                found += image ? 1 : 0;
                EXPECT_TRUE(!image || *image == contentOf(i));
            }
            EXPECT_EQ(find(images, 3), std::nullopt);
            EXPECT_TRUE(found == 3 || round > 0);
            keep(images, 7, contentOf(7));
        }
        Images images{path};
        EXPECT_EQ(find(images, 7), contentOf(7)) << "it is of use again";
        EXPECT_LE(log.take().size(), 3U);
    }
}

TEST(Images, SurviveAWriterThatIsKilled) {
    const support::TemporaryDirectory directory;
    const std::string path = directory / "images";
    support::LogLines log;
    for (int round = 0; round < 100; ++round) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            Images images{path};
            for (std::uint8_t i = 0;; ++i) {
                keep(images, i, contentOf(i, 20'000));
                if (i % 64 == 63) images.compact();
            }
        }
        ::usleep(static_cast<useconds_t>(500 + round * 177 % 3000));
        ::kill(child, SIGKILL);
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        Images images{path};
        for (int i = 0; i < 256; ++i) {
            const auto number = static_cast<std::uint8_t>(i);
            const auto image = find(images, number);
            ASSERT_TRUE(!image || *image == contentOf(number, 20'000));
        }
    }
}

TEST(Images, AreCompactedWhileOthersReadThem) {
    const support::TemporaryDirectory directory;
    const std::string path = directory / "images";
    support::LogLines log;
    Images images{path};
    const std::string large = contentOf(0, 200'000);
    for (std::uint64_t madeOf = 1; madeOf <= 20; ++madeOf) keep(images, 0, large, madeOf);
    keep(images, 1, contentOf(1));
    keep(images, 2, contentOf(2));
    Images::Place place{0};
    const auto before = images.find(keyOf(0, 20), place, isSound);
    std::atomic<bool> isDone{false};
    std::thread reader{[&] {
        while (!isDone) EXPECT_EQ(find(images, 1), contentOf(1));
    }};
    images.forgetOthers([](const value::Uuid& uuid) { return uuid != keyOf(2).uuid; });
    images.compact();
    isDone = true;
    reader.join();
    EXPECT_LT(std::filesystem::file_size(path), 2 * large.size());
    EXPECT_EQ(textOf(before->bytes), large) << "what was handed out stays";
    EXPECT_EQ(textOf(images.at(place)->bytes), large) << "and is found there";
    EXPECT_EQ(find(images, 0, 20), large);
    EXPECT_EQ(find(images, 2), std::nullopt);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(Images, AreNotTakenForSoundBecauseTheyWereCopied) {
    const support::TemporaryDirectory directory;
    const std::string path = directory / "images";
    support::LogLines log;
    {
        Images images{path};
        keep(images, 0, contentOf(0));
        keep(images, 1, contentOf(1));
    }
    std::string damaged = readFile(path);
    damaged[damaged.find("image 0") + 9] = 'X';
    writeFile(path, damaged);
    Images images{path};
    images.compact();
    EXPECT_EQ(find(images, 0), std::nullopt);
    EXPECT_EQ(find(images, 1), contentOf(1));
}

TEST(Images, StayAsTheyWereFoundWhateverHappensToTheFileMeanwhile) {
    const support::TemporaryDirectory directory;
    const std::string path = directory / "images";
    support::LogLines log;
    for (const std::size_t left : {0U, 100U, 1U << 20}) {
        Images images{path};
        keep(images, 1, contentOf(1));
        keep(images, 2, contentOf(2));
        Images::Place place{0};
        ASSERT_TRUE(images.find(keyOf(1), place, isSound));
        std::filesystem::resize_file(path, std::min<std::size_t>(left, readFile(path).size()));
        std::fstream{path, std::ios::in | std::ios::out | std::ios::binary} << std::string(left, '\xff');
        EXPECT_EQ(textOf(images.at(place)->bytes), contentOf(1)) << left;
        EXPECT_EQ(find(images, 2), std::nullopt) << left;
        keep(images, 2, contentOf(2));
        EXPECT_EQ(find(images, 2), contentOf(2)) << left;
    }
}

TEST(Images, AreNotKeptWhereThereIsNoRoomAndTheLogSaysSoOnce) {
    const support::TemporaryDirectory directory;
    support::LogLines log;
    std::filesystem::create_directory(directory / "other");
    Images nothing{directory / "other"};
    keep(nothing, 0, contentOf(0));
    EXPECT_EQ(find(nothing, 0), std::nullopt);
    EXPECT_THAT(log.take(), SizeIs(1));

    Images images{directory / "images"};
    keep(images, 0, contentOf(0));
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit little{1000, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
    for (std::uint8_t i = 1; i < 5; ++i) keep(images, i, contentOf(i, 2000));
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(find(images, 0), contentOf(0));
    EXPECT_EQ(find(images, 1), std::nullopt);
    EXPECT_THAT(log.take(), SizeIs(1));
    keep(images, 5, contentOf(5));
    EXPECT_EQ(find(images, 5), contentOf(5));
}

}  // namespace
}  // namespace dravo
