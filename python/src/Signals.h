// Ctrl-C while the GIL is released: Python only sets a flag in its C signal handler and runs
// the Python-level handler (which raises KeyboardInterrupt) when someone checks.
#ifndef KXPY_SIGNALS_H
#define KXPY_SIGNALS_H

#include <kxCancelInterface.h>

#include <pybind11/pybind11.h>

#include <functional>
#include <memory>

namespace kxpy
{
/// A cancellation source for the library's builders: each poll takes the GIL for a moment
/// and lets Python run its signal handlers. Once a handler raised (KeyboardInterrupt for
/// Ctrl-C) it answers true for good and keeps the raised exception for
/// raiseIfInterrupted. Handlers run only on the main thread; elsewhere it never cancels.
/// Made and destroyed holding the GIL.
class PythonSignals : public kx::kxCancelInterfaceReadOnly
{
public:
    bool shouldCancel() const override;

    /// Holding the GIL: throws the exception a signal handler raised, if one did.
    void raiseIfInterrupted() const;

private:
    mutable std::unique_ptr<pybind11::error_already_set> mRaised;
};
/// Runs work without the GIL on a thread of its own while the caller's thread watches
/// Python's signals; Ctrl-C raises the tool's interrupt flag, which the mesh reader and the
/// scene generator poll, and then KeyboardInterrupt here. Call it holding the GIL.
void runWatchingSignals(const std::function<void()>& work);
} // namespace kxpy

#endif
