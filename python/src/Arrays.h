// numpy arrays at the module's boundary: what callers may pass, and the one message each
// mistake gets.
#ifndef KXPY_ARRAYS_H
#define KXPY_ARRAYS_H

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kxpy
{
namespace py = pybind11;

using Shape = std::vector<py::ssize_t>;

/// "(4, 3)", as numpy prints shapes.
std::string shapeText(const py::array& array);
std::string shapeText(const Shape& shape);

/// The object as a numpy array of real numbers (any float, signed or unsigned integer
/// dtype; lists are accepted). TypeError naming `name` and the dtype otherwise.
py::array realArray(py::handle object, const char* name);

/// As realArray, for integers only.
py::array integerArray(py::handle object, const char* name);

/// float32, C-contiguous: the array itself when it is already so, else one converted copy.
py::array_t<float> contiguousFloats(const py::array& array);

/// Rows of `width` floats under any leading shape, or a single row (shape (width,)) given
/// for every element of a batch (stride 0).
struct Rows
{
    py::array_t<float> array;  // keeps the data alive
    const float* data = nullptr;
    size_t count = 0;
    size_t stride = 0;  // floats from one row to the next: width, or 0 when broadcast
    Shape leading;      // the shape without its last axis

    const float* row(size_t i) const { return data + i * stride; }
};

/// Checks the shape (..., width) and converts once when needed. ValueError naming `name`
/// and the shape it got.
Rows rows(py::handle object, const char* name, py::ssize_t width);

/// Pairs origins with directions: equal shapes, or one of the two a single row of three
/// that goes with every row of the other. ValueError otherwise.
struct RayBatch
{
    Rows origins;
    Rows directions;
    size_t count = 0;
    Shape leading;
};

RayBatch rayBatch(py::handle origins, py::handle directions);

/// Output arrays, C-contiguous, of shape leading + tail.
template <typename T>
py::array_t<T> output(const Shape& leading, std::initializer_list<py::ssize_t> tail = {})
{
    Shape shape = leading;
    shape.insert(shape.end(), tail.begin(), tail.end());
    return py::array_t<T>(shape);
}

/// threads >= 0; 0 means every core this process may run on.
unsigned threadCount(long long threads);

/// ValueError unless the value is a number (not NaN).
float checkedLimit(double value, const char* name);
} // namespace kxpy

#endif
