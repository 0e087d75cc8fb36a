// The compression paths built into the GOST R 34.11-2012 core, and the one
// the hashers of this process use. Internal to the core: the hashing library
// picks its path itself; tests, benchmarks and gost-hash may force one.
#pragma once

#include <cstddef>
#include <string_view>

namespace nds::gost {

struct CompressImpl;

struct Path {
    const char* name;
    // Null when this CPU runs the path; else why it does not.
    const char* missing;
    const CompressImpl* impl;
};

struct PathList {
    Path items[3];
    std::size_t count;
};

// Every path built in, fastest first. The first one this CPU runs is the one
// chosen at start-up.
const PathList& Paths();

// Makes `name` the path of every hash computed from now on, in every thread.
// False, and nothing changed, for a name not built in or one this CPU does
// not run.
bool UsePath(std::string_view name);

// Back to the path chosen at start-up.
void UseDefaultPath();

}  // namespace nds::gost
