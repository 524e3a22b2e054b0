#include "PythonLog.h"

#include <kxLog.h>

#include <pybind11/pybind11.h>

namespace kxpy
{
namespace py = pybind11;

namespace
{
int pythonLevel(int level)
{
    switch (level)
    {
    case 0:
        return 10;  // DEBUG
    case 1:
        return 20;  // INFO
    case 2:
        return 40;  // ERROR
    case 3:
        return 30;  // WARNING
    default:
        return 50;  // CRITICAL
    }
}

class PythonLog : public kx::kxLog
{
public:
    void Write(LogEntry& entry, bool) override
    {
        py::gil_scoped_acquire gil;
        // An exception may be waiting to be raised (Ctrl-C seen by a poll): keep it aside.
        const py::error_scope pending;
        try
        {
            const std::string name = entry.category.empty() ? "kxbvh" : "kxbvh." + entry.category;
            py::module_::import("logging").attr("getLogger")(name).attr("log")(pythonLevel(entry.level),
                                                                               entry.message);
        }
        catch (py::error_already_set& error)
        {
            // A failing handler must not take a build down (logging reports its own errors),
            // but Ctrl-C pressed while a line was written must still stop the build: it is
            // raised again for the next poll of the cancellation interface.
            if (error.matches(PyExc_KeyboardInterrupt))
                PyErr_SetInterrupt();
        }
    }
};
} // namespace

void routeLibraryLogToPython()
{
    // Never destroyed: lines may come until the very end of the process.
    static PythonLog* log = new PythonLog;
    kx::kxLog::msInstance = log;
}
} // namespace kxpy
