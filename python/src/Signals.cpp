#include "Signals.h"

#include <pybind11/pybind11.h>

namespace kxpy
{
namespace py = pybind11;

bool PythonSignals::shouldCancel() const
{
    if (!mRaised)
    {
        py::gil_scoped_acquire gil;
        if (PyErr_CheckSignals() != 0)
            mRaised = std::make_unique<py::error_already_set>();
    }
    return mRaised != nullptr;
}

void PythonSignals::raiseIfInterrupted() const
{
    if (mRaised)
        throw *mRaised;
}
} // namespace kxpy
