#include <exception>
#include <iostream>
#include <set>

#include "bench/Host.h"
#include "bench/Rows.h"
#include "platform/logging/Log.h"

// vtd_bench [GROUP...]: runs the measurements named, or all of them, and prints them as one table.
int main(int argc, char** argv) {
    using Rows = std::vector<bench::Row>;
    const std::vector<std::pair<std::string, Rows (*)()>> groups{
        {"request", [] { return Rows{bench::smallRequest()}; }},
        {"load",
         [] {
             return Rows{bench::manyClients(), bench::besideBadClients()};
         }},
        {"match", bench::discoveries},
        {"policy", bench::policies},
        {"record", [] { return Rows{bench::buildingOneRecord()}; }},
        {"annotate", [] { return Rows{bench::annotating()}; }},
        {"start", bench::startsAndScans},
        {"memory", bench::residentMemory},
    };
    // A daemon that is still starting is tried again and again; that is no news.
    logging::setSink([](logging::Level, std::string_view) {});
    if (bench::ranAsHost(argc, argv)) return 0;
    const std::set<std::string> wanted{argv + 1, argv + argc};
    Rows rows;
    for (const auto& [name, measure] : groups) {
        if (!wanted.empty() && wanted.count(name) == 0) continue;
        std::cerr << "measuring " << name << " ...\n";
        try {
            for (bench::Row& row : measure()) rows.push_back(std::move(row));
        } catch (const std::exception& error) {
            std::cerr << name << ": " << error.what() << "\n";
            return 2;
        }
    }
    return bench::print(rows) ? 0 : 1;
}
