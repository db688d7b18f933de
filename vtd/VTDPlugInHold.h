#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/activity/Activity.h"
#include "platform/mox/Charges.h"
#include "platform/value/Uuid.h"

class VTDMoxClient;
class VTDPlugIn;

// One hold: while the server's table has it, its plug-ins are hidden from discovery and refused to hosts. While it
// exists it is an activity of the process, and charged to the client's connection.
//
// Ownership: the server's table owns it; it refers to its client weakly and owns its records.
// Threading: every member may be called from any thread.
class VTDPlugInHold {
public:
    // Records compare as such: by UUID.
    struct Hash {
        std::size_t operator()(const std::shared_ptr<VTDPlugIn>& plugIn) const;
    };
    struct Equal {
        bool operator()(const std::shared_ptr<VTDPlugIn>& a, const std::shared_ptr<VTDPlugIn>& b) const;
    };
    using PlugIns = std::unordered_set<std::shared_ptr<VTDPlugIn>, Hash, Equal>;

    // initWithPlugIns:forClient:
    VTDPlugInHold(const std::vector<std::shared_ptr<VTDPlugIn>>& plugIns, const std::shared_ptr<VTDMoxClient>& client);
    VTDPlugInHold(const VTDPlugInHold&) = delete;
    VTDPlugInHold& operator=(const VTDPlugInHold&) = delete;

    const value::Uuid& uuid() const { return uuid_; }  // the token: nobody can guess it
    const PlugIns& blocked() const { return blocked_; }
    void setBlocked(PlugIns blocked) { blocked_ = std::move(blocked); }      // before it is in the table
    std::shared_ptr<VTDMoxClient> client() const { return client_.lock(); }  // null once it is gone
    mox::Charge chargeFor(const VTDPlugIn& plugIn) const;                    // of the client, for the record's content
    std::chrono::system_clock::time_point created() const { return created_; }

    // Two are the same hold when their tokens are.
    bool operator==(const VTDPlugInHold& other) const { return uuid_ == other.uuid_; }

private:
    const value::Uuid uuid_ = value::Uuid::random();
    const std::weak_ptr<VTDMoxClient> client_;
    const std::chrono::system_clock::time_point created_ = std::chrono::system_clock::now();
    const activity::Activity activity_;
    const mox::Charge charge_;

    PlugIns blocked_;
};

template <>
struct std::hash<VTDPlugInHold> {
    std::size_t operator()(const VTDPlugInHold& hold) const { return std::hash<value::Uuid>{}(hold.uuid()); }
};
