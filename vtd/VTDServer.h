#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Velto/VTAtomic.h"
#include "platform/logging/Log.h"
#include "platform/mox/Connection.h"
#include "platform/queue/SerialQueue.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/text/Described.h"
#include "platform/text/Format.h"
#include "vtd/VTDUserPrefs.h"
#include "vtd/VTDatabase.h"

// The daemon: at once the plug-in database and the service that clients talk to. Listens on the named service, makes a
// client object of each connection, and runs every request on its service queue.
//
// Ownership: the process holds the one server; clients hold it, too. It refers to its clients nowhere: they live as
// long as their connections.
// Threading: every member may be called from any thread, but for run(), which is the main thread's. Queues:
//     "mox"      builds one client for each new connection
//     "service"  user-initiated: every request from dispatch to reply, one at a time in order of arrival
// Errors: a server that cannot be built is a null pointer, and the log says why.
class VTDServer : public VTDatabase {
public:
    // The server that was built last; null before. Any thread.
    static std::shared_ptr<VTDServer> server();

    // Builds the server, its listener not yet started. Null when the database cannot be built.
    static std::shared_ptr<VTDServer> initForService(const std::string& service,
                                                     const std::optional<std::string>& database);

    // Starts listening, and says that the service is ready; or why it cannot listen.
    [[nodiscard]] std::optional<value::Error> start();

    // Starts, then gives the calling thread to the pool forever. Comes back only with the reason why it cannot listen.
    [[nodiscard]] std::optional<value::Error> run();

    // --- The log. "{}" of an object is its description.

    // One line at the level; the text is already made.
    void log(logging::Level level, const std::string& text) const { logging::write(level, text); }

    // Always written, at notice level.
    template <typename... Args>
    void log(text::Pattern<Args...> pattern, Args&&... args) const {
        log(logging::Level::notice, text::format(pattern, std::forward<Args>(args)...));
    }

    // Written at informational level when verbose; else costs one load and formats nothing.
    template <typename... Args>
    void debug(text::Pattern<Args...> pattern, Args&&... args) const {
        if (verbose() == 0) [[likely]]
            return;
        log(logging::Level::info, text::format(pattern, std::forward<Args>(args)...));
    }

    // Appends the closure to the service queue: the one road by which request work gets there.
    void submitWork(std::function<void()> work) const { mainQueue_->async(std::move(work)); }

    // --- Properties

    std::uint32_t verbose() const { return verbose_.load(); }
    void setVerbose(std::uint32_t verbose) { verbose_.store(verbose); }
    const std::shared_ptr<queue::SerialQueue>& moxQueue() const { return moxQueue_; }
    const std::shared_ptr<queue::SerialQueue>& mainQueue() const { return mainQueue_; }
    const std::shared_ptr<mox::Listener>& service() const { return service_; }
    const std::shared_ptr<VTDUserPrefs>& userPrefs() const { return userPrefs_; }

private:
    VTDServer(std::shared_ptr<VTDAnnotationStore> annotations, std::shared_ptr<dravo::DVApplicationWorkspace> workspace,
              const std::string& service);

    const std::shared_ptr<queue::SerialQueue> moxQueue_;
    const std::shared_ptr<queue::SerialQueue> mainQueue_;
    const std::shared_ptr<mox::Listener> service_;
    const std::shared_ptr<sandbox::Service> sandbox_;  // where those who hold our tokens ask for files
    const std::shared_ptr<VTDUserPrefs> userPrefs_;

    VTAtomic<std::uint32_t> verbose_;
};
