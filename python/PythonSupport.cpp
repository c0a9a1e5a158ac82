#include "PythonSupport.h"

#include <KEL/KELPurposeGuids.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kel_python {

namespace {
// Owned by the module for the life of the process.
PyObject* gKelError = nullptr;

// The test gate: the point armed (-1 none), whether a call is held there, and
// whether the test has let it go on.
constexpr int kGateDisarmed = -1;
std::atomic<int> gGateArmedAt{kGateDisarmed};
std::mutex gGateMutex;
std::condition_variable gGateChanged;
bool gGateHolding = false;
bool gGateReleased = false;

const char* GatePointName(GatePoint point) { return point == GatePoint::kUnlocked ? "unlocked" : "locked"; }
}  // namespace

void PassTestGate(GatePoint point) {
    int armed = static_cast<int>(point);
    if (gGateArmedAt.load(std::memory_order_relaxed) != armed) {
        return;
    }
    std::unique_lock lock(gGateMutex);
    // Only the first call to get here is held; the gate is then disarmed.
    if (!gGateArmedAt.compare_exchange_strong(armed, kGateDisarmed)) {
        return;
    }
    gGateHolding = true;
    gGateReleased = false;
    gGateChanged.notify_all();
    gGateChanged.wait(lock, [] { return gGateReleased; });
    gGateHolding = false;
    gGateChanged.notify_all();
}

void BindTestGate(py::module_& m) {
    m.def(
        "_testing_hold_next_call",
        [](const std::string& where) {
            if (where != GatePointName(GatePoint::kUnlocked) && where != GatePointName(GatePoint::kLocked)) {
                throw py::value_error("the gate points are 'unlocked' and 'locked'");
            }
            const GatePoint point =
                where == GatePointName(GatePoint::kLocked) ? GatePoint::kLocked : GatePoint::kUnlocked;
            const std::lock_guard lock(gGateMutex);
            if (gGateHolding || gGateArmedAt.load() != kGateDisarmed) {
                throw py::value_error("the gate is already in use");
            }
            gGateArmedAt.store(static_cast<int>(point));
        },
        py::arg("point"),
        "For the module's tests only: the next reader or writer call (from any thread) stops, without the GIL, "
        "at `point`: 'unlocked' (before it waits for the object's lock) or 'locked' (holding it, the object "
        "open), until _testing_release().");
    m.def(
        "_testing_wait_held",
        [](double timeout) {
            py::gil_scoped_release released;
            std::unique_lock lock(gGateMutex);
            return gGateChanged.wait_for(lock, std::chrono::duration<double>(timeout), [] { return gGateHolding; });
        },
        py::arg("timeout"), "For the module's tests only: waits until a call is held at the gate; False on timeout.");
    m.def(
        "_testing_release",
        [] {
            const std::lock_guard lock(gGateMutex);
            gGateArmedAt.store(kGateDisarmed);
            if (gGateHolding) {
                gGateReleased = true;
                gGateChanged.notify_all();
            }
        },
        "For the module's tests only: lets the held call go on, or disarms the gate if none is held.");
}

py::array ViewOf(const KelCommon::SharedBuffer& buffer, const py::dtype& dtype, std::vector<py::ssize_t> shape) {
    auto* keep = new KelCommon::SharedBuffer(buffer);
    const py::capsule owner(keep, [](void* p) { delete static_cast<KelCommon::SharedBuffer*>(p); });
    // numpy allocates its own memory when given no pointer; an empty buffer
    // has none, and needs none.
    static const std::uint8_t kNothing = 0;
    const void* data = keep->data() != nullptr ? keep->data() : &kNothing;
    py::array array(dtype, std::move(shape), {}, data, owner);
    array.attr("setflags")(py::arg("write") = false);
    return array;
}

namespace {

std::string SnakeCase(const std::string& camel) {
    std::string snake;
    for (const char c : camel) {
        if (std::isupper(static_cast<unsigned char>(c)) != 0) {
            snake += '_';
            snake += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        } else {
            snake += c;
        }
    }
    return snake;
}

}  // namespace

py::object FromJson(const nlohmann::ordered_json& value) {
    switch (value.type()) {
        case nlohmann::ordered_json::value_t::object: {
            py::dict dict;
            for (const auto& [key, item] : value.items()) {
                dict[py::str(SnakeCase(key))] = FromJson(item);
            }
            return dict;
        }
        case nlohmann::ordered_json::value_t::array: {
            py::list list;
            for (const auto& item : value) {
                list.append(FromJson(item));
            }
            return list;
        }
        case nlohmann::ordered_json::value_t::string:
            return py::str(value.get_ref<const std::string&>());
        case nlohmann::ordered_json::value_t::boolean:
            return py::bool_(value.get<bool>());
        case nlohmann::ordered_json::value_t::number_integer:
            return py::int_(value.get<std::int64_t>());
        case nlohmann::ordered_json::value_t::number_unsigned:
            return py::int_(value.get<std::uint64_t>());
        case nlohmann::ordered_json::value_t::number_float:
            return py::float_(value.get<double>());
        default:
            return py::none();
    }
}

std::string PurposeText(const KelCommon::Guid& purpose) {
    if (const auto alias = KEL::KELPurposeGuids::GetAlias(purpose)) {
        return alias->str();
    }
    return purpose.ToString().str();
}

KelCommon::Guid PurposeFrom(const py::object& purpose, const KelCommon::Guid& fallback) {
    if (purpose.is_none()) {
        if (fallback == KelCommon::Guid{}) {
            throw py::value_error("this layer needs a purpose (a registered alias or a GUID)");
        }
        return fallback;
    }
    const std::string text = py::str(purpose);
    if (text.empty()) {
        throw py::value_error("a purpose cannot be empty");
    }
    if (const auto guid = KEL::KELPurposeGuids::ResolveAlias(KelCommon::String(text))) {
        return *guid;
    }
    try {
        return KelCommon::Guid::FromHexString(text);
    } catch (const std::exception&) {
        throw py::value_error("'" + text + "' is neither a registered purpose alias nor a GUID");
    }
}

void RaiseKelError(KEL::KelErrorCode code, const std::string& message) {
    py::object error = py::reinterpret_borrow<py::object>(gKelError)(message);
    error.attr("code") = code;
    error.attr("name") = KEL::KelErrorCodeName(code);
    PyErr_SetObject(gKelError, error.ptr());
    throw py::error_already_set();
}

void DefineKelError(py::module_& m) {
    gKelError = PyErr_NewExceptionWithDoc(
        "kel.KelError",
        "An error of the KEL runtime: `code` is the host's error code (compare with kel.KEL_ERR_NOT_FOUND and the "
        "like), `name` its short name (\"not found\"), and the message says what failed.",
        PyExc_RuntimeError, nullptr);
    m.add_object("KelError", py::handle(gKelError));
}

}  // namespace kel_python
