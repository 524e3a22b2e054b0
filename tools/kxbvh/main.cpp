// kxbvh: what kxCommonAddOns does for a mesh, from the command line.
#include "Cli.h"
#include "Errors.h"
#include "Interrupt.h"

#include <cstdio>
#include <exception>
#include <new>
#include <stdexcept>

int main(int argc, char** argv)
{
    using namespace kxbvh;
    installInterruptHandler();
    try
    {
        return runCommandLine(argc, argv);
    }
    catch (const InputError& e)
    {
        std::fprintf(stderr, "kxbvh: error: %s\n", e.what());
        return eExitBadInput;
    }
    catch (const OutputError& e)
    {
        std::fprintf(stderr, "kxbvh: error: %s\n", e.what());
        return eExitFailure;
    }
    catch (const Cancelled& e)
    {
        std::fprintf(stderr, "kxbvh: %s\n", e.what());
        return eExitCancelled;
    }
    catch (const std::bad_alloc&)
    {
        std::fprintf(stderr, "kxbvh: error: out of memory (try a smaller mesh or picture)\n");
        return eExitFailure;
    }
    catch (const std::length_error& e)
    {
        std::fprintf(stderr, "kxbvh: error: the mesh is too large for the library's arrays (%s)\n", e.what());
        return eExitFailure;
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "kxbvh: error: %s\n", e.what());
        return eExitFailure;
    }
}
