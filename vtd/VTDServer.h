#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "Velto/VTAtomic.h"
#include "platform/logging/Log.h"
#include "platform/mox/Connection.h"
#include "platform/queue/SerialQueue.h"
#include "platform/queue/Turns.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/text/Described.h"
#include "platform/text/Format.h"
#include "vtd/VTDHoldTable.h"
#include "vtd/VTDUserPrefs.h"
#include "vtd/VTDatabase.h"

class VTDMoxClient;

// The daemon: at once the plug-in database and the service that clients talk to. Listens on the named service, makes a
// client object of each connection, and runs every request on its service queue.
//
// Ownership: the process holds the one server; clients hold it, too. It refers to its clients nowhere: they live as
// long as their connections.
// Threading: every member may be called from any thread, but for run(), which is the main thread's. Queues:
//     "mox"      builds one client for each new connection
//     "service"  user-initiated: every request from dispatch to reply, one at a time; those of one connection in order
//         of arrival, those of different ones by turns
//     "serverSync"  the hold table, entered synchronously; what runs there waits for no other queue
//     "releases"  what is left of dead clients' holds, behind all else
// Errors: a server that cannot be built is a null pointer, and the log says why.
class VTDServer : public VTDatabase, public VTDatabaseDelegate {
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

    // Appends the closure to the service queue. Requests get there by turns(), a piece of work at a time.
    template <typename F>
    void submitWork(F&& work) const {
        mainQueue_->async(std::forward<F>(work));
    }

    // --- Holds (VTDServer_Holds.cpp). Each enters syncQueue by itself; each hold that comes or goes is one
    // notification.

    // Whether any hold, of whomever, covers the plug-in. One load while there are no holds at all.
    bool holdOnPlugIn(const VTDPlugIn& plugIn) const;

    // Puts the hold into the table. False, and nothing, when its client has died meanwhile: what unholdClient() has
    // once released a client's holds, it gets no more.
    bool addHold(const std::shared_ptr<VTDPlugInHold>& hold);

    // Whoever knows a token may release its hold; an unknown one is nothing. Many of one request cost one turn.
    void unholdToken(const value::Uuid& token);
    void unholdTokens(std::span<const value::Uuid> tokens);

    // The client is dead: releases all of its holds, at once; what that leaves to do may take until later. `done` runs
    // behind it.
    void unholdClient(VTDMoxClient& client, queue::SerialQueue::Work done);

    // The server is its own database's delegate: has the service manager forget what was registered of plug-ins that
    // go. Its answers come on the service queue; one that tells of a failure is logged.
    void removedPlugIns(const dravo::PluginList& plugIns) override;

    // --- Properties

    std::uint32_t verbose() const { return verbose_.load(); }
    void setVerbose(std::uint32_t verbose) { verbose_.store(verbose); }
    const std::shared_ptr<queue::SerialQueue>& moxQueue() const { return moxQueue_; }
    const std::shared_ptr<queue::SerialQueue>& mainQueue() const { return mainQueue_; }
    const std::shared_ptr<queue::Turns>& turns() const { return turns_; }  // at mainQueue
    const std::shared_ptr<queue::SerialQueue>& syncQueue() const { return syncQueue_; }
    const std::shared_ptr<mox::Listener>& service() const { return service_; }
    const VTDHoldTable& holds() const { return holds_; }  // on syncQueue
    const std::shared_ptr<VTDUserPrefs>& userPrefs() const { return userPrefs_; }

private:
    VTDServer(std::shared_ptr<VTDAnnotationStore> annotations, std::shared_ptr<dravo::DVApplicationWorkspace> workspace,
              const std::string& service);

    struct Release;
    void releasePart(std::shared_ptr<Release> release);
    void sayReleased(std::vector<VTDHoldTable::Hold> holds);

    const std::string name_;  // of the service
    const std::shared_ptr<queue::SerialQueue> moxQueue_;
    const std::shared_ptr<queue::SerialQueue> mainQueue_;
    const std::shared_ptr<queue::Turns> turns_;
    const std::shared_ptr<queue::SerialQueue> syncQueue_;
    const std::shared_ptr<queue::SerialQueue> releaseQueue_;
    const std::shared_ptr<mox::Listener> service_;
    const std::shared_ptr<sandbox::Service> sandbox_;  // where those who hold our tokens ask for files
    const std::shared_ptr<VTDUserPrefs> userPrefs_;

    VTAtomic<std::uint32_t> verbose_;

    VTDHoldTable holds_;                  // on syncQueue
    VTAtomic<std::size_t> holdCount_{0};  // its size: changed on syncQueue, read anywhere
};
