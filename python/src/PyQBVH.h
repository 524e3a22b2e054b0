// The Python class kxbvh.QBVH: a built four-wide hierarchy and its queries over batches.
#ifndef KXPY_PYQBVH_H
#define KXPY_PYQBVH_H

#include "Build.h"

#include <kxQBVH.h>

#include <string>

namespace kxpy
{
class PyQBVH
{
public:
    PyQBVH(const py::object& vertices, const py::object& triangles, const std::string& builder, long long leaf);

    py::dict intersect(const py::object& origins, const py::object& directions, double tmin, double tmax,
                       const std::string& side, long long threads) const;
    py::dict intersectSymmetric(const py::object& origins, const py::object& directions, double tmax,
                                long long threads) const;
    py::array occluded(const py::object& origins, const py::object& directions, double tmin, double tmax,
                       const std::string& side, long long threads) const;
    py::dict closestPoints(const py::object& points, double maxDistance, long long threads) const;
    py::object convexHull(const py::object& planes, long long threads) const;
    py::dict info() const;
    std::string repr() const;

private:
    kxQBVH mQBVH;
    Figures mFigures;
};

void bindQBVH(py::module_& module);
} // namespace kxpy

#endif
