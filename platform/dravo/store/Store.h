#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/dravo/records/Facts.h"
#include "platform/dravo/records/Records.h"
#include "platform/dravo/store/Database.h"

namespace dravo {

// The registry's memory over restarts: Registry.db in the state directory, one row for each application, bundle,
// plug-in and registration. It is read whole at the start and then only written, a transaction at a time. Belongs to
// one queue.
class Store {
public:
    struct Contents {
        std::vector<std::pair<std::string, ApplicationFacts>> applications;  // by path
        std::vector<std::pair<std::string, BundleFacts>> bundles;
        std::vector<std::string> registrations;  // paths
        std::int64_t lastRow = 0;                // the highest number of a row that was ever used
        bool isNew = false;                      // there was no store, or none that could be read
    };
    struct Opened {
        std::unique_ptr<Store> store;
        Contents contents;
    };

    // A store of an earlier version is upgraded in place, in one transaction. A damaged one, or one of a later version,
    // is kept beside the new one under another name that the log gives.
    static value::Result<Opened> open(const std::string& path);

    // For a store in which damage shows later: keeps it likewise and makes an empty one. Nobody else has it open.
    static value::Result<Opened> openAnew(const std::string& path, const std::string& why);

    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    struct Changes {
        std::vector<std::shared_ptr<const ApplicationRecord>> applicationsGone, applicationsNew;
        std::vector<std::shared_ptr<const BundleRecord>> bundlesGone, bundlesNew;
        std::vector<std::string> registrationsGone, registrationsNew;  // paths
        bool everything = false;  // what is new is all there is: the rows of before are dropped
    };

    // All of it or nothing; on disk when it returns nothing.
    [[nodiscard]] std::optional<value::Error> save(const Changes& changes);

private:
    struct Statements;
    explicit Store(Database database);

    static value::Result<Opened> openOnce(const std::string& path);
    static value::Result<Contents> load(Database& database);
    std::optional<value::Error> write(const Changes& changes);
    std::optional<value::Error> writeBundle(const BundleRecord& bundle);

    Database database_;
    std::unique_ptr<Statements> statements_;
};

}  // namespace dravo
