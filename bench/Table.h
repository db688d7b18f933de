#pragma once

#include <string>
#include <vector>

namespace bench {

// One line of the table: a figure beside its floor or peer of the same run, and what it should reach.
struct Row {
    std::string what;
    double figure = 0;
    std::string unit;
    std::string peer;       // what it is measured against; empty for none
    double peerFigure = 0;  // in the same unit
    double reach = 0;       // the bound: of the ratio to the peer when there is one, else of the figure
    bool atLeast = false;   // whether the bound is a lower one
};

// Prints the rows as a table, each with its ratio and whether it is within its reach. Answers whether all are.
bool print(const std::vector<Row>& rows);

}  // namespace bench
