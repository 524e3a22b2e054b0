// Ctrl-C handling: the first SIGINT only raises a flag that long work polls; a second one
// ends the process at once, for work that cannot be interrupted.
#ifndef KXBVH_INTERRUPT_H
#define KXBVH_INTERRUPT_H

namespace kxbvh
{
void installInterruptHandler();

/// The byte the handler sets, as a relaxed atomic byte; the library's cancellation
/// proxies read it the same way.
char* interruptFlag();

bool interrupted();

/// Throws Cancelled naming the step when Ctrl-C was pressed.
void throwIfInterrupted(const char* step);
} // namespace kxbvh

#endif
