#include "bench/Table.h"

#include <fmt/format.h>

namespace bench {

namespace {

struct Line {
    std::string what, figure, peer, ratio, reach;
};

Line lineOf(const Row& row, bool& within) {
    const bool compared = !row.peer.empty();
    const double measured = compared ? row.figure / row.peerFigure : row.figure;
    within = row.reach == 0 || (row.atLeast ? measured >= row.reach : measured <= row.reach);
    Line line;
    line.what = row.what;
    line.figure = fmt::format("{:.4g} {}", row.figure, row.unit);
    if (compared) {
        line.peer = fmt::format("{:.4g} {} ({})", row.peerFigure, row.unit, row.peer);
        line.ratio = fmt::format("{:.2f}x", measured);
    }
    if (row.reach != 0) {
        line.reach = fmt::format("{} {:.4g}{}{}", row.atLeast ? "at least" : "at most", row.reach,
                                 compared ? "x" : " " + row.unit, within ? "" : "  MISSED");
    }
    return line;
}

}  // namespace

bool print(const std::vector<Row>& rows) {
    bool all = true;
    fmt::print("\n{:<58} {:>16} {:>44} {:>7}  {}\n", "what", "figure", "floor or peer", "ratio", "reach");
    for (const Row& row : rows) {
        bool within = false;
        const Line line = lineOf(row, within);
        all = all && within;
        fmt::print("{:<58} {:>16} {:>44} {:>7}  {}\n", line.what, line.figure, line.peer, line.ratio, line.reach);
    }
    return all;
}

}  // namespace bench
