#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/plist/KeptFile.h"
#include "platform/value/Value.h"

// The preferences store: what programs of the user keep for the user, by domain and key. A domain is one property list,
// a dictionary, preferences/DOMAIN.HOST.plist in the config directory, for the current user and the current host.
//
// Threading: any thread, any number of processes: readers see the old or the new content, and of several that change a
// domain at once none loses the other's change.
namespace prefs {

// Where a domain lies now: the host's name may change while a program runs.
std::string pathOf(std::string_view domain);

// The value under a key, nothing when there is none, or why the domain's file cannot be read (the text names it). For
// programs that ask once; one that asks again and again holds a UserDefaults.
value::Result<std::optional<value::Value>> read(std::string_view domain, std::string_view key);

// Makes of what is stored under a key (nothing: not there) what is to be stored there (nothing: take it away), or an
// error, upon which nothing is changed and which update() returns as it is. Runs with the domain locked: it must not
// use the store.
using Change = std::function<value::Result<std::optional<value::Value>>(const std::optional<value::Value>& stored)>;

// Changes one key of a domain under a lock, and replaces the file whole, all other keys kept. A file that cannot be
// read is never replaced. Waits two seconds for another process that changes the domain, then says which one it is.
// When it returns without an error, the next read of any process sees the change, and it is on the disk. Errors are for
// people to read: they name the file and, where there is something to do about it, what.
[[nodiscard]] std::optional<value::Error> update(std::string_view domain, std::string_view key, const Change& change);

// Domains as a program reads them again and again: a look at the directory entry tells that a file is unchanged, and
// only a changed one is read. Derive from it to give keys a name and a type.
class UserDefaults {
public:
    UserDefaults() = default;
    virtual ~UserDefaults() = default;
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    void addSuite(std::string domain);  // the domain takes part from now on

    // Brings a domain of the suites up to date with what other processes have stored; whether anything may have changed
    // since the last time. A file that cannot be read, or is no dictionary, counts as an empty domain and is logged
    // once for each change of it.
    bool synchronise(std::string_view domain);

    // The value under a key as of the last synchronise().
    std::optional<value::Value> copyValue(std::string_view key, std::string_view domain) const;

private:
    struct Domain {
        std::string host;  // whose file it is
        std::optional<plist::KeptFile> file;
        value::Dictionary content;
    };

    mutable std::mutex mutex_;
    std::unordered_map<std::string, Domain> domains_;
};

}  // namespace prefs
