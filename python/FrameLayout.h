// Frames as NumPy arrays: the array shape and element type of each pixel type, and the pixel type
// an array stands for.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <pybind11/numpy.h>

#include <optional>
#include <string>
#include <vector>

namespace kvpcie::python {

// "UYVY422", "Y8", "Y16", "Y16_Y8" (or "Y16&Y8"), "BGR24", "PIXEL32".
std::optional<ePixelType> PixelTypeByName(const std::string& name);
const char* NameOf(ePixelType type);

// (h, w) uint8 for Y8, (h, w) uint16 for Y16, (h, w, 2) uint8 for UYVY422, (h, w, 3) uint8 for
// BGR24 and Y16_Y8, (h, w, 4) uint8 for PIXEL32.
std::vector<pybind11::ssize_t> ShapeOf(ePixelType type, int width, int height);
pybind11::dtype DtypeOf(ePixelType type);

// The pixel type, width and height of a frame array; `named` overrides the type where the
// array's shape alone is ambiguous. Throws ValueError saying what does not fit.
struct FrameGeometry {
    ePixelType type;
    int width;
    int height;
};
FrameGeometry GeometryOf(const pybind11::array& frame, const std::optional<std::string>& named);

}  // namespace kvpcie::python
