#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "platform/file/UniqueFd.h"
#include "platform/queue/Reactor.h"

namespace dravo {

// What a change on disk concerns, and so what has to be looked at again.
struct Topic {
    enum class Kind : std::uint8_t {
        root,        // a directory whose entries are looked at one by one (Applications/, the system volume's PlugIns/)
        entry,       // one entry of a root
        registered,  // a bundle registered by its path
        sdk          // the dictionaries of extension points
    };
    Kind kind = Kind::root;
    std::string path;
    friend bool operator==(const Topic&, const Topic&) = default;
    friend bool operator<(const Topic& a, const Topic& b) {
        return std::tie(a.kind, a.path) < std::tie(b.kind, b.path);
    }
};

// Watches directories and tells which topic a change concerns. Belongs to the queue that it was made for.
class Watcher {
public:
    // The name of what changed in a directory that is watched as such; empty when it is the directory itself.
    using Changed = std::function<void(const Topic& topic, std::string_view name)>;
    // Anything may have changed: notices were lost, or a directory above what is watched has gone elsewhere.
    using Overflow = std::function<void()>;

    // Null when the system has no watches to give.
    static std::unique_ptr<Watcher> create(const std::shared_ptr<queue::SerialQueue>& queue, Changed changed,
                                           Overflow overflow);
    ~Watcher();

    // Whether a watch was refused for want of room, so that changes may go unnoticed. Until it is forgotten: who looks
    // at everything from then on asks for all watches again.
    bool exhausted() const { return exhausted_; }
    void forgetExhaustion() { exhausted_ = false; }

private:
    struct Held {                          // by a topic
        std::vector<int> watches;          // of directories
        std::vector<std::string> beneath;  // paths whose ancestors it holds
        bool empty() const { return watches.empty() && beneath.empty(); }
    };

public:
    // One look at a topic: the directories it names are watched from before they are read, and what the topic watched
    // until then and does not name again is let go of at the end. Without a watcher it does nothing.
    class Look {
    public:
        Look(Watcher* watcher, const Topic& topic);
        ~Look();
        Look(const Look&) = delete;
        Look& operator=(const Look&) = delete;

        // Not through a link. Whether it is watched now.
        bool directory(const std::string& path);

        // That a directory above the path is moved away, or goes, counts.
        void above(const std::string& path);

        // The directory, or as long as it is missing the nearest one above it that exists, in which only the next step
        // towards it counts. With those above it.
        void towards(const std::string& path);

        // The entry of that name in its directory, and whatever it is written with. With those above it.
        void entry(const std::string& path);

    private:
        Watcher* const watcher_;
        const Topic& topic_;
        Held before_;
    };

private:
    struct Interest {
        const Topic* topic;  // the key in topics_
        std::string only;    // the one name that counts; empty: every name
    };

    Watcher(file::UniqueFd descriptor, Changed changed, Overflow overflow);
    void read();
    void tell(int watch, std::uint32_t mask, std::string_view name);
    bool add(const Topic& topic, const std::string& path, const std::string& only, std::uint32_t flags);
    void letGo(int watch, const Topic& topic);

    // The ancestors are watched once for all that lie beneath them, since thousands may.
    struct Ancestor {
        int watch = -1;  // none: to be had when it is next held
        std::size_t holders = 0;
    };
    void holdAbove(const std::string& path);
    void releaseAbove(const std::string& path);
    void watchAncestor(const std::string& path, Ancestor& ancestor);
    bool dropAncestor(int watch);

    const file::UniqueFd descriptor_;
    const Changed changed_;
    const Overflow overflow_;
    std::unique_ptr<queue::Watch> watch_;
    bool exhausted_ = false;
    struct TopicHash {
        std::size_t operator()(const Topic& topic) const { return std::hash<std::string>{}(topic.path); }
    };
    std::unordered_map<Topic, Held, TopicHash> topics_;
    std::unordered_map<int, std::vector<Interest>> interests_;
    std::unordered_map<std::string, Ancestor> ancestors_;  // by path
    std::unordered_map<int, std::string> ancestorPaths_;   // by watch
};

}  // namespace dravo
