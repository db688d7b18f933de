#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/file/UniqueFd.h"
#include "platform/readiness/Readiness.h"

namespace {

// A service manager's end of the conversation, listening at the address that NOTIFY_SOCKET is given.
class Manager {
public:
    explicit Manager(const std::string& name) : socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)} {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name.front() == '@') address.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), length), 0) << name;
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }
    ~Manager() { ::unsetenv("NOTIFY_SOCKET"); }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    std::string heard() const {
        std::array<char, 64> buffer{};
        const ssize_t got = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        return std::string{buffer.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
    }

private:
    const file::UniqueFd socket_;
};

TEST(Readiness, IsTellingTheSocketThatTheServiceManagerNamed) {
    const std::string file = std::filesystem::temp_directory_path() / ("vtd-ready-" + std::to_string(::getpid()));
    for (const std::string& name : {file, "@vtd-ready-" + std::to_string(::getpid())}) {
        const Manager manager{name};
        EXPECT_FALSE(readiness::announce()) << name;
        EXPECT_EQ(manager.heard(), "READY=1") << name;
    }
    std::filesystem::remove(file);
}

TEST(Readiness, IsSilentWhenNobodyAskedAndAnErrorWhenTheNameLeadsNowhere) {
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(readiness::announce());
    for (const std::string& name :
         {std::string{"relative"}, "/" + std::string(200, 'x'), std::string{"/nowhere/at/all"}}) {
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
        EXPECT_TRUE(readiness::announce()) << name;
    }
    ::unsetenv("NOTIFY_SOCKET");
}

}  // namespace
