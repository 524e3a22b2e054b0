#include "Arrays.h"

#include <sched.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <thread>

namespace kxpy
{
namespace
{
py::array asArray(py::handle object, const char* name)
{
    try
    {
        return py::module_::import("numpy").attr("asarray")(object);
    }
    catch (py::error_already_set& error)
    {
        throw py::type_error(std::string(name) + " must be an array of numbers: " + error.what());
    }
}

char dtypeKind(const py::array& array)
{
    return array.dtype().kind();
}

std::string dtypeText(const py::array& array)
{
    return py::str(array.dtype()).cast<std::string>();
}
} // namespace

std::string shapeText(const Shape& shape)
{
    std::string text = "(";
    for (size_t i = 0; i < shape.size(); ++i)
        text += (i ? ", " : "") + std::to_string(shape[i]);
    return text + (shape.size() == 1 ? ",)" : ")");
}

std::string shapeText(const py::array& array)
{
    return shapeText(Shape(array.shape(), array.shape() + array.ndim()));
}

py::array realArray(py::handle object, const char* name)
{
    py::array array = asArray(object, name);
    const char kind = dtypeKind(array);
    if (kind != 'f' && kind != 'i' && kind != 'u')
        throw py::type_error(std::string(name) + " must hold real numbers, got an array of dtype " + dtypeText(array));
    return array;
}

py::array integerArray(py::handle object, const char* name)
{
    py::array array = asArray(object, name);
    const char kind = dtypeKind(array);
    if (kind != 'i' && kind != 'u')
        throw py::type_error(std::string(name) + " must hold integers, got an array of dtype " + dtypeText(array));
    return array;
}

py::array_t<float> contiguousFloats(const py::array& array)
{
    return py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(array);
}

namespace
{
/// Whether the rows of a float32 array can be read where they are: the numbers of a row
/// next to each other, and the rows one fixed step apart (a column slice such as
/// rays[:, :3] of an (N, 6) array, or a broadcast row). The step, in floats, goes to step.
bool inPlaceRows(const py::array& array, py::ssize_t& step)
{
    const py::ssize_t axes = array.ndim();
    if (!py::isinstance<py::array_t<float>>(array) || !array.dtype().attr("isnative").cast<bool>() ||
        array.strides(axes - 1) != py::ssize_t(sizeof(float)) ||
        reinterpret_cast<uintptr_t>(array.data()) % alignof(float) != 0)
        return false;
    step = 0;
    bool first = true;
    py::ssize_t inner = 1;  // rows one step of the current axis passes over
    for (py::ssize_t axis = axes - 2; axis >= 0; --axis)
    {
        const py::ssize_t extent = array.shape(axis), stride = array.strides(axis);
        if (extent != 1)
        {
            if (first)
            {
                if (stride < 0 || stride % py::ssize_t(sizeof(float)) != 0)
                    return false;
                step = stride / py::ssize_t(sizeof(float));
                first = false;
            }
            else if (stride != step * py::ssize_t(sizeof(float)) * inner)
                return false;
        }
        inner *= extent;
    }
    return true;
}
} // namespace

Rows rows(py::handle object, const char* name, py::ssize_t width)
{
    const py::array array = realArray(object, name);
    if (array.ndim() < 1 || array.shape(array.ndim() - 1) != width)
        throw py::value_error(std::string(name) + " must have shape (..., " + std::to_string(width) + "), got " +
                              shapeText(array));
    Rows result;
    result.leading.assign(array.shape(), array.shape() + array.ndim() - 1);
    result.count = static_cast<size_t>(array.size() / width);
    py::ssize_t step = 0;
    if (inPlaceRows(array, step))
    {
        result.array = py::array_t<float>::ensure(array);
        result.stride = static_cast<size_t>(step);
    }
    else
    {
        result.array = contiguousFloats(array);
        result.stride = static_cast<size_t>(width);
    }
    result.data = result.array.data();
    return result;
}

RayBatch rayBatch(py::handle origins, py::handle directions)
{
    RayBatch batch;
    batch.origins = rows(origins, "origins", 3);
    batch.directions = rows(directions, "directions", 3);
    if (batch.origins.leading == batch.directions.leading)
    {
        batch.leading = batch.origins.leading;
    }
    else if (batch.origins.leading.empty())
    {
        batch.origins.stride = 0;
        batch.leading = batch.directions.leading;
    }
    else if (batch.directions.leading.empty())
    {
        batch.directions.stride = 0;
        batch.leading = batch.origins.leading;
    }
    else
    {
        Shape o = batch.origins.leading, d = batch.directions.leading;
        o.push_back(3);
        d.push_back(3);
        throw py::value_error("origins and directions must have the same shape, or one of them (3,); got " +
                              shapeText(o) + " and " + shapeText(d));
    }
    batch.count = 1;
    for (py::ssize_t extent : batch.leading)
        batch.count *= static_cast<size_t>(extent);
    return batch;
}

unsigned threadCount(long long threads)
{
    if (threads < 0)
        throw py::value_error("threads must be 0 (every core) or more, got " + std::to_string(threads));
    if (threads > 0)
        return static_cast<unsigned>(std::min<long long>(threads, 0xFFFFFFFFll));
    cpu_set_t cores;
    if (sched_getaffinity(0, sizeof cores, &cores) == 0 && CPU_COUNT(&cores) > 0)
        return static_cast<unsigned>(CPU_COUNT(&cores));
    const unsigned all = std::thread::hardware_concurrency();
    return all ? all : 1;
}

float checkedLimit(double value, const char* name)
{
    if (std::isnan(value))
        throw py::value_error(std::string(name) + " must be a number, got nan");
    return static_cast<float>(value);
}
} // namespace kxpy
