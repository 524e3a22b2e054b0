// What can stop a run, and the exit status each one maps to.
#ifndef KXBVH_ERRORS_H
#define KXBVH_ERRORS_H

#include <stdexcept>
#include <string>

namespace kxbvh
{
enum ExitStatus
{
    eExitOk = 0,
    eExitFailure = 1,
    eExitBadInput = 2,
    eExitCancelled = 130 // what shells report for a process stopped by SIGINT
};

/// The user's input (a file, a mesh, an option value) cannot be used.
class InputError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The work ran but its result could not be delivered (for instance an unwritable output).
class OutputError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The user pressed Ctrl-C; what names the step that was interrupted.
class Cancelled : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};
} // namespace kxbvh

#endif
