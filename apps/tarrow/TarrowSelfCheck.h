#pragma once
// `tarrow selfcheck`: exercises the platform layer end to end on this machine
// (defaults on disk, property lists, keyed archives, localisation, calendar,
// digests, URLs, operations on the main run loop) and prints one line per
// check. Returns the process exit status: 0 when every check passed.

#include <ostream>

int TarrowSelfCheck(std::ostream& out);
