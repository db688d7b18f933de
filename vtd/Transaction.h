#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Velto/VTAtomic.h"
#include "platform/effort/Effort.h"
#include "platform/mox/Connection.h"
#include "platform/value/Value.h"
#include "vtd/VTDAnnotationRound.h"
#include "vtd/VTDatabase.h"

class RequestPaths;
class VTDMoxClient;
class VTDPlugIn;
class VTDServer;
class VTForm;

// One request: the message, the reply being built for it, the client it came from, and the version of the protocol it
// is written in. dispatch() checks it and calls the handler that bears its name; the handlers are members of this
// class, one file each in vtd/requests/.
//
// A handler runs on the service queue, reads the request, may fill the reply, and ends by calling done() or one of the
// fail() exactly once, directly or through processPaths() or a path handler.
//
// Ownership: owns its client, so that a handler never loses it; the connection may be gone all the same, and the reply
// is then dropped.
// Threading: the service queue's.
//
// Effort: what the request makes the daemon do is charged to one account, which is the current one during dispatch();
// what its paths have cost is on it by then. A handler judges it (mayGoOn) before it changes anything.
class Transaction {
public:
    // What is done with one path: `resolved` tells whether it is canonical, or as sent since it could not be resolved.
    // Answers whether to go on; one that answers false has already replied.
    using PathHandler = std::function<bool(const std::string& path, bool resolved)>;

    // What is done with one plug-in of a list of UUIDs. Answers whether to go on; one that answers false has already
    // replied.
    using PlugInHandler = std::function<bool(const std::shared_ptr<VTDPlugIn>& plugIn)>;

    // initWithRequest:forClient:, with what the request's paths lead to when its handler asks for that.
    Transaction(mox::Request request, std::shared_ptr<VTDMoxClient> client,
                std::shared_ptr<RequestPaths> paths = nullptr);
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void dispatch();

    // What the handler has begun it goes on with, in its client's next turn: it has not replied yet.
    bool isToGoOn() const { return isToGoOn_; }
    void goOn();

    // What is done with all the paths that went before, when there are no more of them or the next is malformed.
    // Answers whether that went well; else it has already replied.
    using Settlement = std::function<bool()>;

    // Hands each of the request's "paths" to the handler, in order, up to the first that is malformed (the request has
    // then failed) or that the handler refuses. Answers whether all went through and were settled.
    bool marshalPaths(
        const PathHandler& handler, const Settlement& settle = [] { return true; });

    // The same, and done() when all went well.
    bool processPaths(const PathHandler& handler, const Settlement& settle);

    // Hands the plug-in of each of the request's "uuids" to the handler, in order and each UUID once, up to the first
    // element that names none (the request has then failed) or that the handler refuses. Answers whether all went
    // through; it never calls done(). What reading them costs is judged before the first is handed on.
    bool processUuidList(const PlugInHandler& handler);

    // Whether what is installed is still what the record is of; else the request has failed as if nobody knew its UUID.
    // To be asked before a record is acted on: what goes from the disk is noticed only moments later.
    bool mustBeCurrent(const VTDPlugIn& plugIn);

    // Whether there is effort left; else the request has failed.
    bool mayGoOn();

    void done();  // saves what was decided about plug-ins, and sends the reply

    // Fills in the error and sends the reply. An error of the domain "Velto" brings its own code, and its message if it
    // has one; any other is sent under the code given here.
    void fail(std::int64_t code, const std::optional<std::string>& message);
    void fail(std::int64_t code, const value::Error& error);

    const std::shared_ptr<VTDMoxClient>& client() const { return client_; }
    const std::shared_ptr<VTDServer>& server() const;
    std::shared_ptr<mox::Connection> connection() const;  // null once it is gone
    mox::View request() const { return request_.view(); }
    mox::Reply& reply() { return reply_; }
    effort::Account& account() { return account_; }
    std::uint64_t version() const { return version_.load(); }
    void setVersion(std::uint64_t version) { version_.store(version); }

private:
    struct Handler;
    static const Handler* handlerNamed(std::string_view name);

    // The handlers, each in the file of its request.
    void addPlugIns();
    void removePlugIns();
    void bulkPlugIns();
    void matchPlugIns();
    void readyPlugIns();
    void accessPlugIns();
    void annotatePlugIns();
    void lockDownPlugIns();
    void releaseHolds(mox::View tokens);
    bool failForEffort();

    // Sets the form's "annotations" to the plug-in's, or to none.
    void addAnnotationForPlugIn(const VTDPlugIn& plugIn, VTForm& form) const;

    const std::shared_ptr<VTDMoxClient> client_;
    const mox::Request request_;
    VTDAnnotationRound annotationRound_;
    mox::Reply reply_;
    const std::shared_ptr<RequestPaths> paths_;  // null: the handler asks for none, or they are no list
    effort::Account own_;
    effort::Account& account_;  // that of the paths, where they have begun one
    VTAtomic<std::uint64_t> version_;
    const Handler* handler_ = nullptr;  // once it has begun
    bool isToGoOn_ = false;
    VTDatabase::Search search_;  // for candidates
};
