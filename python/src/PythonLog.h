// The library's log lines (the linear builder's memory figures, query errors) go to Python's
// logging module, logger "kxbvh.<category>", instead of standard output.
#ifndef KXPY_PYTHONLOG_H
#define KXPY_PYTHONLOG_H

namespace kxpy
{
/// Installs the process-wide log of the library's platform, once.
void routeLibraryLogToPython();
} // namespace kxpy

#endif
