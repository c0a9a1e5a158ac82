// kel.Atom: one frame of one stream.

#include <KEL/Atom.h>
#include <KEL/DataLayer.h>
#include <pybind11/stl.h>

#include "PythonSupport.h"

namespace kel_python {

namespace {
using namespace pybind11::literals;

// The first layer whose type name is `type` and, when given, whose purpose
// is `purpose` (an alias or a GUID text).
std::shared_ptr<KEL::DataLayer> FindLayer(const KEL::Atom& atom, const std::string& type, const py::object& purpose) {
    const bool anyPurpose = purpose.is_none();
    const KelCommon::Guid wanted = anyPurpose ? KelCommon::Guid{} : PurposeFrom(purpose, {});
    for (const auto& layer : atom.GetAllDataLayers()) {
        if (layer->TypeName() == type && (anyPurpose || layer->GetPurposeGuid() == wanted)) {
            return layer;
        }
    }
    return nullptr;
}
}  // namespace

void BindAtom(py::module_& m) {
    py::class_<KEL::Atom, std::shared_ptr<KEL::Atom>>(m, "Atom", "One frame of one stream: its layers and keys.")
        .def(py::init([](std::uint16_t stream, std::uint32_t frame, std::int64_t timeStamp,
                         const std::vector<std::shared_ptr<KEL::DataLayer>>& layers) {
                 auto atom = std::make_shared<KEL::Atom>(stream, frame, timeStamp);
                 for (const auto& layer : layers) {
                     if (!layer) {
                         throw py::value_error("layers must not contain None");
                     }
                     atom->AddDataLayer(layer, true);
                 }
                 return atom;
             }),
             "stream"_a = 0, "frame"_a = 0, "time_stamp"_a = 0,
             "layers"_a = std::vector<std::shared_ptr<KEL::DataLayer>>{})
        .def_property("stream", &KEL::Atom::GetStreamId, &KEL::Atom::SetStreamId)
        .def_property("frame", &KEL::Atom::GetFrameNr, &KEL::Atom::SetFrameNr)
        .def_property("time_stamp", &KEL::Atom::GetTimeStamp, &KEL::Atom::SetTimeStamp,
                      "Microseconds on the capture's clock.")
        .def_property_readonly("layers", &KEL::Atom::GetAllDataLayers, "The layers in order (a new list).")
        .def("layer", &FindLayer, "type"_a, "purpose"_a = py::none(),
             "The first layer of the type named (\"TextureRGBA\"), of the purpose given if any; None when none.")
        .def(
            "add_layer", [](KEL::Atom& a, const std::shared_ptr<KEL::DataLayer>& l) { a.AddDataLayer(l, true); },
            "layer"_a)
        .def_property_readonly("payload_size", &KEL::Atom::PayloadSize)
        // Pickled as its keys and layers (each layer pickles itself).
        .def("__reduce__",
             [](const py::object& self) {
                 const auto& a = self.cast<const KEL::Atom&>();
                 return py::make_tuple(
                     self.attr("__class__"),
                     py::make_tuple(a.GetStreamId(), a.GetFrameNr(), a.GetTimeStamp(), py::cast(a.GetAllDataLayers())));
             })
        .def("__repr__", [](const KEL::Atom& a) {
            return "<kel.Atom stream=" + std::to_string(a.GetStreamId()) + " frame=" + std::to_string(a.GetFrameNr()) +
                   " time_stamp=" + std::to_string(a.GetTimeStamp()) +
                   " layers=" + std::to_string(a.GetNumDataLayers()) + ">";
        });
}

}  // namespace kel_python
