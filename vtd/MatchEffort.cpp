#include "vtd/MatchEffort.h"

thread_local constinit MatchEffort* MatchEffort::current = nullptr;

MatchEffort::MatchEffort() {
    current = this;
}

MatchEffort::~MatchEffort() {
    current = nullptr;
}
