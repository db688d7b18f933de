#pragma once

#include <cstddef>

// The process activity count: how many things are going on for whose sake this process must not be ended as idle.
//
// Nothing on Linux asks for it from outside: whoever supervises the daemon leaves it running until told otherwise, and
// the daemon does not end by itself. It is what an idle exit would have to ask, and what tells a test that something
// was given back.
namespace activity {

// One thing that is going on, for as long as it lives. Any thread.
class Activity {
public:
    Activity();
    ~Activity();
    Activity(const Activity&) = delete;
    Activity& operator=(const Activity&) = delete;
};

// How many there are now. Any thread.
std::size_t count();

}  // namespace activity
