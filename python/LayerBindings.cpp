// The layer types as Python classes. Each has `type` (the type's name),
// `type_guid`, `purpose` (the registered alias, or the GUID's text) and
// `version`, and its fields; the payload of a layer (pixels, vertices, blob
// bytes) is a read-only numpy view of the layer's buffer.

#include <KEL/DataLayer.h>
#include <KEL/DataLayerRegistry.h>
#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeOpaque.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/PurposeGuids.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <limits>
#include <string>
#include <type_traits>

#include "PythonSupport.h"

namespace kel_python {

namespace {

using namespace pybind11::literals;

template <class T>
using Array = py::array_t<T, py::array::c_style | py::array::forcecast>;

// Builds a layer, then sets the purpose (and the version, where given) that
// every layer constructor takes last.
template <class L>
std::shared_ptr<L> WithPurpose(std::shared_ptr<L> layer, const py::object& purpose, const KelCommon::Guid& fallback) {
    layer->SetPurposeGuid(PurposeFrom(purpose, fallback));
    return layer;
}

// `value` as a C-contiguous array of T. Numbers are never wrapped or cut to
// fit: an array (or sequence) of another kind than T's is a TypeError, and
// integers outside T's range a ValueError. Floating-point targets accept
// any real numbers (float64 vertices become float32).
template <class T>
Array<T> Strict(const py::object& value, const std::string& what) {
    const py::array given = py::array::ensure(value);
    if (!given) {
        throw py::type_error(what + " must be an array of " + std::string(py::str(py::dtype::of<T>())));
    }
    const char kind = given.dtype().kind();
    const bool integral = kind == 'i' || kind == 'u';
    if constexpr (std::is_floating_point_v<T>) {
        if (!integral && kind != 'f') {
            throw py::type_error(what + " must hold real numbers, not " + std::string(py::str(given.dtype())));
        }
    } else {
        if (!integral) {
            throw py::type_error(what + " must be an array of " + std::string(py::str(py::dtype::of<T>())) + ", not " +
                                 std::string(py::str(given.dtype())));
        }
        if (!given.dtype().is(py::dtype::of<T>()) && given.size() > 0) {
            const py::module_ np = py::module_::import("numpy");
            const auto low = np.attr("min")(given).template cast<long double>();
            const auto high = np.attr("max")(given).template cast<long double>();
            if (low < static_cast<long double>(std::numeric_limits<T>::min()) ||
                high > static_cast<long double>(std::numeric_limits<T>::max())) {
                throw py::value_error(what + " must lie in " + std::to_string(std::numeric_limits<T>::min()) + ".." +
                                      std::to_string(std::numeric_limits<T>::max()) + "; it holds " +
                                      std::string(py::str(np.attr("min")(given))) + ".." +
                                      std::string(py::str(np.attr("max")(given))));
            }
        }
    }
    return Array<T>::ensure(given);
}

py::array Pixels(const KEL::DataTypeTextureRGBA& t) {
    return ViewOf(t.GetPixels(), py::dtype::of<std::uint8_t>(),
                  {static_cast<py::ssize_t>(t.GetHeight()), static_cast<py::ssize_t>(t.GetWidth()), 4});
}

std::shared_ptr<KEL::DataTypeTextureRGBA> MakeTexture(const py::object& value, const py::object& purpose) {
    // 8-bit pixels only: an image of another type needs scaling, not a cast.
    const py::array given = py::array::ensure(value);
    if (!given || !given.dtype().is(py::dtype::of<std::uint8_t>())) {
        throw py::type_error("pixels must be a (height, width, 4) array of uint8" +
                             (given ? ", not " + std::string(py::str(given.dtype())) : std::string()));
    }
    const Array<std::uint8_t> pixels = Array<std::uint8_t>::ensure(given);
    if (pixels.ndim() != 3 || pixels.shape(2) != 4) {
        throw py::value_error("pixels must be a (height, width, 4) array of uint8");
    }
    return WithPurpose(
        std::make_shared<KEL::DataTypeTextureRGBA>(static_cast<std::uint32_t>(pixels.shape(1)),
                                                   static_cast<std::uint32_t>(pixels.shape(0)), BufferFrom(pixels)),
        purpose, KEL::PurposeGuid_PRIMARY_COLOR);
}

template <class T>
KelCommon::SharedBuffer Rows(const py::object& value, py::ssize_t columns, const char* what) {
    if (value.is_none()) {
        return {};
    }
    const Array<T> array = Strict<T>(value, what);
    if (array.ndim() != 2 || array.shape(1) != columns) {
        throw py::value_error(std::string(what) + " must be an (n, " + std::to_string(columns) + ") array");
    }
    return BufferFrom(array);
}

std::shared_ptr<KEL::DataTypeMesh> MakeMesh(const py::object& vertices, const py::object& indices,
                                            const py::object& texCoords, const py::object& purpose) {
    auto mesh = std::make_shared<KEL::DataTypeMesh>(Rows<float>(vertices, 3, "vertices"),
                                                    Rows<std::uint32_t>(indices, 3, "indices"),
                                                    Rows<float>(texCoords, 2, "tex_coords"));
    if (!mesh->GetTexCoords().empty() && mesh->GetTexCoords().size() / 2 != mesh->GetVertices().size() / 3) {
        throw py::value_error("tex_coords must hold one pair per vertex");
    }
    return WithPurpose(mesh, purpose, KEL::PurposeGuid_DYNAMIC);
}

py::array Pose(const KEL::DataTypeCameraParams& c) {
    py::array_t<double> pose({4, 4});
    std::copy(c.pose.begin(), c.pose.end(), pose.mutable_data());
    return pose;
}

void SetPose(KEL::DataTypeCameraParams& c, const Array<double>& pose) {
    if (pose.size() != 16) {
        throw py::value_error("pose must hold 16 numbers (a 4x4 matrix, row by row)");
    }
    std::copy(pose.data(), pose.data() + 16, c.pose.begin());
}

// The bytes of a bytes-like object or of a numpy array (in C order).
std::vector<std::uint8_t> Bytes(const py::object& value) {
    if (value.is_none()) {
        return {};
    }
    py::object source = value;
    if (py::isinstance<py::array>(value)) {
        source = py::module_::import("numpy").attr("ascontiguousarray")(value);
    }
    if (PyObject_CheckBuffer(source.ptr()) == 0) {
        throw py::type_error("expected bytes, a bytearray or a numpy array");
    }
    const py::buffer_info info = py::buffer(source).request();
    const auto* p = static_cast<const std::uint8_t*>(info.ptr);
    return {p, p + info.size * info.itemsize};
}

// What a layer is made of, for pickle: the stored parts that the container
// itself keeps (type, purpose, version, encoded fields and blobs), so that
// every layer type, known or not, travels the same way. Blobs go as the
// read-only numpy views of the layer's buffers: pickle protocol 5 hands them
// out of band (a process that receives them over the wire copies them once).
py::tuple LayerParts(const KEL::DataLayer& layer) {
    KEL::LayerEncoder encoder;
    layer.EncodeFields(encoder);
    const auto guidBytes = [](const KelCommon::Guid& g) {
        return py::bytes(reinterpret_cast<const char*>(g.Bytes().data()), g.Bytes().size());
    };
    py::list blobs;
    for (const auto& blob : encoder.Blobs()) {
        blobs.append(ViewOf(blob, py::dtype::of<std::uint8_t>(), {static_cast<py::ssize_t>(blob.size())}));
    }
    const auto& fields = encoder.Fields();
    return py::make_tuple(guidBytes(layer.GetTypeGuid()), guidBytes(layer.GetPurposeGuid()), layer.GetVersion(),
                          py::bytes(reinterpret_cast<const char*>(fields.data()), fields.size()), blobs);
}

KelCommon::Guid GuidFrom(const py::bytes& bytes) {
    const std::string text = bytes;
    std::array<std::uint8_t, KelCommon::Guid::kSize> raw{};
    if (text.size() != raw.size()) {
        throw py::value_error("a GUID takes 16 bytes");
    }
    std::copy(text.begin(), text.end(), raw.begin());
    return KelCommon::Guid(raw);
}

// The layer that LayerParts described, rebuilt as the reader rebuilds a
// stored one (a DataTypeOpaque for a type this runtime does not know).
std::shared_ptr<KEL::DataLayer> LayerFromParts(const py::bytes& type, const py::bytes& purpose, std::uint16_t version,
                                               const py::bytes& fields, const py::list& blobs) {
    std::vector<KelCommon::SharedBuffer> buffers;
    for (const auto& blob : blobs) {
        buffers.push_back(KelCommon::SharedBuffer::FromVector(Bytes(py::reinterpret_borrow<py::object>(blob))));
    }
    const std::string encoded = fields;
    auto layer = KEL::DataLayerRegistry::Instance().Decode(GuidFrom(type), GuidFrom(purpose), version,
                                                           reinterpret_cast<const std::uint8_t*>(encoded.data()),
                                                           encoded.size(), std::move(buffers));
    if (!layer) {
        throw py::value_error("the pickled layer's content does not decode");
    }
    return layer;
}

}  // namespace

void BindLayers(py::module_& m) {
    // Pickle finds it as kel._layer_from_parts (python/kel/__init__.py): a
    // function of an extension cannot be pickled by reference.
    m.def("_layer_from_parts", &LayerFromParts, "For pickle: the layer that Layer.__reduce__ described.");
    py::class_<KEL::DataLayer, std::shared_ptr<KEL::DataLayer>>(m, "Layer", "A data layer of an atom.")
        .def_property_readonly("type", &KEL::DataLayer::TypeName, "The layer type's name (\"TextureRGBA\").")
        .def_property_readonly("type_guid", [](const KEL::DataLayer& l) { return l.GetTypeGuid().ToString().str(); })
        .def_property(
            "purpose", [](const KEL::DataLayer& l) { return PurposeText(l.GetPurposeGuid()); },
            [](KEL::DataLayer& l, const py::object& p) { l.SetPurposeGuid(PurposeFrom(p, {})); },
            "The registered purpose alias (\"PRIMARY_COLOR\") or the GUID's text.")
        .def_property("version", &KEL::DataLayer::GetVersion, &KEL::DataLayer::SetVersion)
        .def_property_readonly("payload_size", &KEL::DataLayer::PayloadSize)
        .def("__reduce__",
             [](const KEL::DataLayer& l) {
                 return py::make_tuple(py::module_::import("kel").attr("_layer_from_parts"), LayerParts(l));
             })
        .def("__repr__", [](const KEL::DataLayer& l) {
            return "<kel." + l.TypeName() + " purpose=" + PurposeText(l.GetPurposeGuid()) +
                   " version=" + std::to_string(l.GetVersion()) + ">";
        });

    py::class_<KEL::DataTypeTextureRGBA, KEL::DataLayer, std::shared_ptr<KEL::DataTypeTextureRGBA>>(
        m, "TextureRGBA", "An 8-bit RGBA image; `pixels` is (height, width, 4) uint8.")
        .def(py::init(&MakeTexture), "pixels"_a, "purpose"_a = py::none())
        .def_property_readonly("width", &KEL::DataTypeTextureRGBA::GetWidth)
        .def_property_readonly("height", &KEL::DataTypeTextureRGBA::GetHeight)
        .def_property_readonly("pixels", &Pixels, "A read-only view of the image, rows top to bottom.");

    py::class_<KEL::DataTypeMesh, KEL::DataLayer, std::shared_ptr<KEL::DataTypeMesh>>(
        m, "Mesh", "A triangle mesh: (n, 3) float32 vertices, (m, 3) uint32 indices, optional (n, 2) tex_coords.")
        .def(py::init(&MakeMesh), "vertices"_a, "indices"_a, "tex_coords"_a = py::none(), "purpose"_a = py::none())
        .def_property_readonly("vertices",
                               [](const KEL::DataTypeMesh& mesh) {
                                   return ViewOf(mesh.GetVertices(), py::dtype::of<float>(),
                                                 {static_cast<py::ssize_t>(mesh.GetNumVertices()), 3});
                               })
        .def_property_readonly("indices",
                               [](const KEL::DataTypeMesh& mesh) {
                                   return ViewOf(mesh.GetIndices(), py::dtype::of<std::uint32_t>(),
                                                 {static_cast<py::ssize_t>(mesh.GetNumTriangles()), 3});
                               })
        .def_property_readonly("tex_coords", [](const KEL::DataTypeMesh& mesh) {
            return ViewOf(mesh.GetTexCoords(), py::dtype::of<float>(),
                          {static_cast<py::ssize_t>(mesh.GetTexCoords().size() / (2 * sizeof(float))), 2});
        });

    py::class_<KEL::DataTypeCameraParams, KEL::DataLayer, std::shared_ptr<KEL::DataTypeCameraParams>>(
        m, "CameraParams", "Pinhole intrinsics, distortion coefficients and a 4x4 pose.")
        .def(py::init([](std::uint32_t width, std::uint32_t height, double fx, double fy, double cx, double cy,
                         const std::vector<double>& distortion, const py::object& pose, std::uint16_t version,
                         const py::object& purpose) {
                 auto c = std::make_shared<KEL::DataTypeCameraParams>(
                     version, PurposeFrom(purpose, KEL::PurposeGuid_CAMERA_PRIMARY));
                 c->width = width;
                 c->height = height;
                 c->fx = fx;
                 c->fy = fy;
                 c->cx = cx;
                 c->cy = cy;
                 c->distortion = distortion;
                 if (!pose.is_none()) {
                     SetPose(*c, Array<double>::ensure(pose));
                 }
                 return c;
             }),
             "width"_a = 0, "height"_a = 0, "fx"_a = 0.0, "fy"_a = 0.0, "cx"_a = 0.0, "cy"_a = 0.0,
             "distortion"_a = std::vector<double>{}, "pose"_a = py::none(),
             "version"_a = KEL::DataTypeCameraParams::kCurrentVersion, "purpose"_a = py::none())
        .def_readwrite("width", &KEL::DataTypeCameraParams::width)
        .def_readwrite("height", &KEL::DataTypeCameraParams::height)
        .def_readwrite("fx", &KEL::DataTypeCameraParams::fx)
        .def_readwrite("fy", &KEL::DataTypeCameraParams::fy)
        .def_readwrite("cx", &KEL::DataTypeCameraParams::cx)
        .def_readwrite("cy", &KEL::DataTypeCameraParams::cy)
        .def_property(
            "distortion",
            [](const KEL::DataTypeCameraParams& c) {
                return py::array_t<double>(static_cast<py::ssize_t>(c.distortion.size()), c.distortion.data());
            },
            [](KEL::DataTypeCameraParams& c, const std::vector<double>& d) { c.distortion = d; })
        .def_property("pose", &Pose, &SetPose, "The 4x4 pose matrix (a copy; assign to change it).")
        .def_property_readonly("intrinsics", [](const KEL::DataTypeCameraParams& c) {
            py::array_t<double> k({3, 3});
            const double values[9] = {c.fx, 0, c.cx, 0, c.fy, c.cy, 0, 0, 1};
            std::copy(values, values + 9, k.mutable_data());
            return k;
        });

    py::class_<KEL::DataTypeStreamInfo, KEL::DataLayer, std::shared_ptr<KEL::DataTypeStreamInfo>>(
        m, "StreamInfo", "What describes a stream: its frame count, rate and name.")
        .def(py::init([](std::uint32_t numFrames, double frameRate, std::string name, const py::object& purpose) {
                 return std::make_shared<KEL::DataTypeStreamInfo>(numFrames, frameRate, std::move(name),
                                                                  PurposeFrom(purpose, KEL::PurposeGuid_STATIC));
             }),
             "num_frames"_a = 0, "frame_rate"_a = 0.0, "name"_a = "", "purpose"_a = py::none())
        .def_property("num_frames", &KEL::DataTypeStreamInfo::GetNumFrames, &KEL::DataTypeStreamInfo::SetNumFrames)
        .def_property("frame_rate", &KEL::DataTypeStreamInfo::GetFrameRate, &KEL::DataTypeStreamInfo::SetFrameRate)
        .def_property("name", &KEL::DataTypeStreamInfo::GetName, &KEL::DataTypeStreamInfo::SetName);

    py::class_<KEL::DataTypeRecordingInfo, KEL::DataLayer, std::shared_ptr<KEL::DataTypeRecordingInfo>>(
        m, "RecordingInfo", "When and with what a recording was made (start time in microseconds since 1970).")
        .def(py::init([](std::int64_t start, std::string device, std::string description, const py::object& purpose) {
                 return std::make_shared<KEL::DataTypeRecordingInfo>(start, std::move(device), std::move(description),
                                                                     PurposeFrom(purpose, KEL::PurposeGuid_STATIC));
             }),
             "start_time"_a = 0, "device"_a = "", "description"_a = "", "purpose"_a = py::none())
        .def_property_readonly("start_time", &KEL::DataTypeRecordingInfo::GetStartTime)
        .def_property_readonly("device", &KEL::DataTypeRecordingInfo::GetDevice)
        .def_property_readonly("description", &KEL::DataTypeRecordingInfo::GetDescription);

    py::class_<KEL::DataTypeStaticInfo, KEL::DataLayer, std::shared_ptr<KEL::DataTypeStaticInfo>>(
        m, "StaticInfo", "Key-value text that holds for the whole stream.")
        .def(py::init([](std::map<std::string, std::string> entries, const py::object& purpose) {
                 return std::make_shared<KEL::DataTypeStaticInfo>(std::move(entries),
                                                                  PurposeFrom(purpose, KEL::PurposeGuid_STATIC));
             }),
             "entries"_a = std::map<std::string, std::string>{}, "purpose"_a = py::none())
        .def_property_readonly("entries", &KEL::DataTypeStaticInfo::GetEntries)
        .def("set", &KEL::DataTypeStaticInfo::Set, "key"_a, "value"_a);

    py::class_<KEL::DataTypeBinary, KEL::DataLayer, std::shared_ptr<KEL::DataTypeBinary>>(
        m, "Binary", "A named attachment; `data` is a read-only uint8 view of its bytes.")
        .def(py::init([](std::string name, const py::object& data, const py::object& purpose) {
                 return std::make_shared<KEL::DataTypeBinary>(std::move(name),
                                                              KelCommon::SharedBuffer::FromVector(Bytes(data)),
                                                              PurposeFrom(purpose, KEL::PurposeGuid_STATIC));
             }),
             "name"_a = "", "data"_a = py::none(), "purpose"_a = py::none())
        .def_property_readonly("name", &KEL::DataTypeBinary::GetName)
        .def_property_readonly("data", [](const KEL::DataTypeBinary& b) {
            return ViewOf(b.GetData(), py::dtype::of<std::uint8_t>(), {static_cast<py::ssize_t>(b.GetData().size())});
        });

    py::class_<KEL::DataTypeCylinderCrop, KEL::DataLayer, std::shared_ptr<KEL::DataTypeCylinderCrop>>(
        m, "CylinderCrop", "A vertical cylinder that bounds the scene.")
        .def(py::init([](double cx, double cz, double r, double minY, double maxY, const py::object& purpose) {
                 return std::make_shared<KEL::DataTypeCylinderCrop>(cx, cz, r, minY, maxY,
                                                                    PurposeFrom(purpose, KEL::PurposeGuid_CROP));
             }),
             "center_x"_a = 0.0, "center_z"_a = 0.0, "radius"_a = 0.0, "min_y"_a = 0.0, "max_y"_a = 0.0,
             "purpose"_a = py::none())
        .def_readwrite("center_x", &KEL::DataTypeCylinderCrop::centerX)
        .def_readwrite("center_z", &KEL::DataTypeCylinderCrop::centerZ)
        .def_readwrite("radius", &KEL::DataTypeCylinderCrop::radius)
        .def_readwrite("min_y", &KEL::DataTypeCylinderCrop::minY)
        .def_readwrite("max_y", &KEL::DataTypeCylinderCrop::maxY);

    py::class_<KEL::DataTypeOpaque, KEL::DataLayer, std::shared_ptr<KEL::DataTypeOpaque>>(
        m, "Opaque", "A layer of a type this runtime does not know, kept exactly as stored.")
        .def(py::init([](const std::string& typeGuid, const py::object& fields, const py::list& blobs,
                         std::uint16_t version, const py::object& purpose) {
                 std::vector<KelCommon::SharedBuffer> buffers;
                 for (const auto& blob : blobs) {
                     buffers.push_back(
                         KelCommon::SharedBuffer::FromVector(Bytes(py::reinterpret_borrow<py::object>(blob))));
                 }
                 KelCommon::Guid guid;
                 try {
                     guid = KelCommon::Guid::FromHexString(typeGuid);
                 } catch (const std::exception&) {
                     throw py::value_error("'" + typeGuid + "' is not a GUID");
                 }
                 return std::make_shared<KEL::DataTypeOpaque>(guid, PurposeFrom(purpose, {}), version, Bytes(fields),
                                                              std::move(buffers));
             }),
             "type_guid"_a, "fields"_a = py::none(), "blobs"_a = py::list(), "version"_a = 1, "purpose"_a = py::none())
        .def_property_readonly("fields",
                               [](const KEL::DataTypeOpaque& o) {
                                   return py::bytes(reinterpret_cast<const char*>(o.GetFields().data()),
                                                    o.GetFields().size());
                               })
        .def_property_readonly("blobs", [](const KEL::DataTypeOpaque& o) {
            py::list blobs;
            for (const auto& blob : o.GetBlobs()) {
                blobs.append(ViewOf(blob, py::dtype::of<std::uint8_t>(), {static_cast<py::ssize_t>(blob.size())}));
            }
            return blobs;
        });
}

}  // namespace kel_python
