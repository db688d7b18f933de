#pragma once

#include <vector>

#include "bench/Table.h"

// The measurements, one a source. Each starts what it needs, daemons as real processes, and leaves nothing behind.
namespace bench {

Row smallRequest();                 // RoundTrip.cpp
Row manyClients();                  // Load.cpp
Row besideBadClients();             // Load.cpp
std::vector<Row> discoveries();     // Match.cpp
std::vector<Row> policies();        // Policy.cpp
Row buildingOneRecord();            // Record.cpp
Row annotating();                   // Annotate.cpp
std::vector<Row> startsAndScans();  // Start.cpp
std::vector<Row> residentMemory();  // Memory.cpp

}  // namespace bench
