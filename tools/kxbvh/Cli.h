// The command line: subcommands, their options and checks, and the dispatch.
#ifndef KXBVH_CLI_H
#define KXBVH_CLI_H

namespace kxbvh
{
/// Parses the arguments and runs the chosen subcommand. Returns the exit status of a
/// parse (0 after --help or --version, 2 for a bad option); the subcommands report their
/// failures by throwing (see Errors.h).
int runCommandLine(int argc, char** argv);
} // namespace kxbvh

#endif
