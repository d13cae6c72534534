// Pixel type names, and the NumPy shapes and dtypes of the card's frames.
#include "FrameLayout.h"

#include <array>
#include <limits>

namespace py = pybind11;

namespace kvpcie::python {
namespace {

struct Named {
    const char* name;
    ePixelType type;
};
constexpr std::array<Named, 7> kNames{{{"UYVY422", UYVY422},
                                       {"Y8", Y8},
                                       {"Y16", Y16},
                                       {"Y16_Y8", Y16_Y8},
                                       {"Y16&Y8", Y16_Y8},
                                       {"BGR24", BGR24},
                                       {"PIXEL32", PIXEL32}}};

std::string ShapeText(const std::vector<py::ssize_t>& shape) {
    std::string text = "(";
    for (std::size_t d = 0; d < shape.size(); ++d) {
        text += (d > 0 ? ", " : "") + std::to_string(shape[d]);
    }
    return text + (shape.size() == 1 ? ",)" : ")");
}

std::string ShapeText(const py::array& frame) {
    return ShapeText(std::vector<py::ssize_t>(frame.shape(), frame.shape() + frame.ndim()));
}

}  // namespace

std::optional<ePixelType> PixelTypeByName(const std::string& name) {
    for (const Named& named : kNames) {
        if (name == named.name) {
            return named.type;
        }
    }
    return std::nullopt;
}

const char* NameOf(ePixelType type) {
    for (const Named& named : kNames) {
        if (named.type == type) {
            return named.name;
        }
    }
    return "?";
}

std::vector<py::ssize_t> ShapeOf(ePixelType type, int width, int height) {
    switch (type) {
        case Y8:
        case Y16:
            return {height, width};
        default:
            return {height, width, KvBytesPerPixel(type)};
    }
}

py::dtype DtypeOf(ePixelType type) {
    return type == Y16 ? py::dtype::of<std::uint16_t>() : py::dtype::of<std::uint8_t>();
}

FrameGeometry GeometryOf(const py::array& frame, const std::optional<std::string>& named) {
    const bool bytes = frame.dtype().is(py::dtype::of<std::uint8_t>());
    const bool words = frame.dtype().is(py::dtype::of<std::uint16_t>());
    if (!bytes && !words) {
        throw py::value_error("a frame is a uint8 or uint16 array, not " +
                              std::string(py::str(frame.dtype())));
    }
    if (frame.ndim() != 2 && frame.ndim() != 3) {
        throw py::value_error("a frame has the shape (height, width) or (height, width, bytes), "
                              "not " + ShapeText(frame));
    }
    const auto limit = py::ssize_t{std::numeric_limits<int>::max()};
    if (frame.shape(0) < 1 || frame.shape(1) < 1 || frame.shape(0) > limit ||
        frame.shape(1) > limit) {
        throw py::value_error("a frame of shape " + ShapeText(frame) + " has no pixels to play");
    }
    FrameGeometry geometry{Y8, static_cast<int>(frame.shape(1)), static_cast<int>(frame.shape(0))};
    if (named) {
        const auto type = PixelTypeByName(*named);
        if (!type) {
            throw py::value_error("unknown pixel type \"" + *named +
                                  "\" (UYVY422, Y8, Y16, Y16_Y8, BGR24 or PIXEL32)");
        }
        geometry.type = *type;
    } else if (frame.ndim() == 2) {
        geometry.type = words ? Y16 : Y8;
    } else {
        switch (frame.shape(2)) {
            case 2:
                geometry.type = UYVY422;
                break;
            case 3:
                geometry.type = BGR24;
                break;
            case 4:
                geometry.type = PIXEL32;
                break;
            default:
                throw py::value_error("a frame's third dimension is 2 (UYVY422), 3 (BGR24) or 4 "
                                      "(PIXEL32) bytes, not " + std::to_string(frame.shape(2)));
        }
    }
    const auto expected = ShapeOf(geometry.type, geometry.width, geometry.height);
    const bool shapeFits =
        static_cast<std::size_t>(frame.ndim()) == expected.size() &&
        (frame.ndim() == 2 || frame.shape(2) == expected[2]);
    if (!shapeFits || !frame.dtype().is(DtypeOf(geometry.type))) {
        throw py::value_error(std::string("a ") + NameOf(geometry.type) + " frame of " +
                              std::to_string(geometry.width) + "x" +
                              std::to_string(geometry.height) + " is an array of shape " +
                              ShapeText(expected) +
                              " and dtype " + std::string(py::str(DtypeOf(geometry.type))) +
                              ", not " + ShapeText(frame) + " " +
                              std::string(py::str(frame.dtype())));
    }
    return geometry;
}

}  // namespace kvpcie::python
