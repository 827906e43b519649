// The kr7 Python module: the KR7 scanner through kr7host, images as NumPy
// arrays. Every call of the plug-in runs with the GIL released; a capture's
// generator waits in short slices and checks for signals between them, so
// that Ctrl-C stops the capture and raises in the caller. The plug-in's
// callbacks never touch Python: they run on its worker thread and fill
// kr7host's queue or the placements of session.cpp.
#include <pybind11/eval.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#define NPY_NO_DEPRECATED_API NPY_1_7_API_VERSION
#include <numpy/arrayobject.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kr7host/capture.h"
#include "kr7host/error.h"
#include "kr7host/image.h"
#include "kr7host/plugin.h"
#include "session.h"

namespace py = pybind11;
using namespace py::literals;

namespace {

using kr7py::Item;
using kr7py::Session;
using kr7py::Stream;

// How long a generator waits before it looks for signals again.
constexpr std::chrono::milliseconds kSlice(20);

// Set once at import; the Python objects are kept for the life of the
// process (never released, so nothing is freed after the interpreter).
kr7py::Defaults g_Defaults;
PyObject* g_pImageType = nullptr;
PyObject* g_pError = nullptr;
PyObject* g_pLoadError = nullptr;
PyObject* g_pCaptureWarning = nullptr;

// The classes and exceptions written in Python, run in the module's
// namespace at import.
constexpr const char* kPrelude = R"PY(
import numpy as _np

PPI = 500

class Image(_np.ndarray):
    """A grey image of the scanner: a 2-D numpy.ndarray of uint8, rows top-down.

    Its memory is its own: one copy out of the plug-in's bitmap, valid for
    as long as the array lives, whatever happens to the scanner (its base is
    a capsule holding that copy, so flags.owndata reads False). It is
    writable. `ppi` is its resolution in pixels per inch: 500 for every
    image of the scanner (the class attribute); an instance may set its own,
    which views and slices of it keep and kr7.save writes. Computed arrays
    (image + 1, image > 128) are plain numpy.ndarray objects, reductions
    (image.mean()) plain numbers.
    """

    ppi = PPI

    def __array_finalize__(self, obj):
        own = getattr(obj, "__dict__", None)
        if own and "ppi" in own:
            self.ppi = own["ppi"]

    def __array_wrap__(self, out, context=None, return_scalar=False):
        if out.ndim == 0:
            return out[()]
        return out.view(_np.ndarray)

Image.__module__ = "kr7"


class Error(RuntimeError):
    """A call of the plug-in failed, or a capture ended with the plug-in's error.

    number: the error number without FGERR_FLAG (31: the scanner is
        disconnected), or None when a capture's error text is none of the
        plug-in's numbered texts;
    text: the plug-in's error text ("The scanner is disconnected.");
    operation: what failed: the plug-in's operation ("GetImage",
        "StartCapture", ...) or "capture" for an error during a capture;
    result: what the call returned, FGERR_FLAG included, or None.
    """

    def __init__(self, operation, number, text, result=None, message=None):
        self.operation = operation
        self.number = number
        self.text = text
        self.result = result
        if message is None:
            message = operation + " failed"
            if number is not None:
                message += ": error %d" % number
            if text:
                message += ": " + text
        super().__init__(message)

    def __reduce__(self):
        return (type(self), (self.operation, self.number, self.text, self.result, str(self)))

Error.__module__ = "kr7"


class LoadError(RuntimeError):
    """A file could not be loaded.

    file: the file (the plug-in, or one of the virtual scanner's libraries);
    reason: the dynamic loader's reason;
    kind: "plugin" (the plug-in could not be loaded), "not a plugin" (the
        file lacks the plug-in's entry points) or "virtual scanner" (one of
        its stand-ins could not be loaded).
    """

    def __init__(self, file, reason, kind="plugin", message=None):
        self.file = file
        self.reason = reason
        self.kind = kind
        super().__init__(message or "cannot load %s: %s" % (file, reason))

    def __reduce__(self):
        return (type(self), (self.file, self.reason, self.kind, str(self)))

LoadError.__module__ = "kr7"


class CaptureWarning(UserWarning):
    """The plug-in's warning during a capture; the capture goes on."""

CaptureWarning.__module__ = "kr7"
)PY";

// ---- images -----------------------------------------------------------------------

// The array's end: its buffer goes back to the pool for a later frame.
void FreePixels(PyObject* capsule) {
    auto* pixels =
        static_cast<std::vector<std::uint8_t>*>(PyCapsule_GetPointer(capsule, "kr7.pixels"));
    kr7py::pool::Give(std::move(*pixels));
    delete pixels;
}

// A kr7.Image over the image's pixels, moved (not copied) into the array's
// base.
py::object ToArray(kr7host::Image&& image) {
    if (image.Empty() || image.width <= 0 || image.height <= 0) {
        throw std::runtime_error("the plug-in gave an empty image");
    }
    auto* pixels = new std::vector<std::uint8_t>(std::move(image.pixels));
    PyObject* capsule = PyCapsule_New(pixels, "kr7.pixels", &FreePixels);
    if (capsule == nullptr) {
        delete pixels;
        throw py::error_already_set();
    }
    npy_intp dims[2] = {image.height, image.width};
    PyObject* array = PyArray_NewFromDescr(reinterpret_cast<PyTypeObject*>(g_pImageType),
                                           PyArray_DescrFromType(NPY_UINT8), 2, dims, nullptr,
                                           pixels->data(), NPY_ARRAY_CARRAY, nullptr);
    if (array == nullptr) {
        Py_DECREF(capsule);
        throw py::error_already_set();
    }
    // Steals the capsule, also when it fails.
    if (PyArray_SetBaseObject(reinterpret_cast<PyArrayObject*>(array), capsule) != 0) {
        Py_DECREF(array);
        throw py::error_already_set();
    }
    py::object result = py::reinterpret_steal<py::object>(array);
    if (image.ppi > 0 && image.ppi != kr7host::kScannerPpi) {
        result.attr("ppi") = image.ppi;
    }
    return result;
}

std::string PathText(const std::filesystem::path& path) {
    return path.string();
}

// ---- errors -------------------------------------------------------------------------

[[noreturn]] void Raise(PyObject* type, py::tuple args) {
    PyObject* instance = PyObject_Call(type, args.ptr(), nullptr);
    if (instance == nullptr) {
        throw py::error_already_set();
    }
    PyErr_SetObject(type, instance);
    Py_DECREF(instance);
    throw py::error_already_set();
}

void Translate(std::exception_ptr failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const kr7host::LoadError& e) {
        const char* kind = e.What() == kr7host::LoadError::Kind::Plugin       ? "plugin"
                           : e.What() == kr7host::LoadError::Kind::NotAPlugin ? "not a plugin"
                                                                              : "virtual scanner";
        Raise(g_pLoadError, py::make_tuple(e.File(), e.Reason(), kind, e.what()));
    } catch (const kr7host::Error& e) {
        Raise(g_pError, py::make_tuple(e.Operation(), e.Number(), e.Text(), e.Result(), e.what()));
    } catch (const kr7py::CaptureFailed& e) {
        const unsigned int number = e.Number();
        py::object code = py::none(), result = py::none();
        if (number != 0) {
            code = py::int_(number);
            result = py::int_(vc::FGERR_FLAG | number);
        }
        Raise(g_pError, py::make_tuple("capture", code, e.what(), result));
    } catch (const kr7py::Refused& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    }
}

// ---- checks of arguments, before anything reaches the plug-in --------------------

vc::eCaptureModeIDs FingerMode(const std::string& mode) {
    if (mode == "plain") {
        return vc::eCapturePlainFinger;
    }
    if (mode == "fastplain") {
        return vc::eCaptureFastPlainFinger;
    }
    if (mode == "rolled") {
        return vc::eCaptureRolledFinger;
    }
    throw py::value_error("unknown capture mode '" + mode +
                          "': one of 'plain', 'fastplain', 'rolled' (live frames come from "
                          "frames(), stills from snap())");
}

long long Count(const std::optional<long long>& count) {
    if (count && *count < 0) {
        throw py::value_error("count must be 0 or more, or None for no limit, not " +
                              std::to_string(*count));
    }
    return count ? *count : -1;
}

double Timeout(const std::optional<double>& timeout) {
    if (timeout && (std::isnan(*timeout) || *timeout < 0)) {
        throw py::value_error("timeout must be 0 or more seconds, or None for no limit");
    }
    return timeout ? *timeout : -1.0;
}

// ---- Python's objects ---------------------------------------------------------------

struct Info {
    std::string version, product, serial, hardware, firmware, calibration, plugin;
    unsigned long device = 0;
};

struct Device {
    unsigned long index = 0;
    std::string serial;
    bool active = false;
};

struct Frame {
    py::object image;
    long long number = 0;
};

struct Result {
    py::object image;
    long long number = 0;
    double area = 0;
    double contrast = 0;
    long long frame = 0;
};

// A capture as a Python iterator; the capture starts at the first next().
class Capture {
public:
    Capture(std::shared_ptr<Session> session, const Stream::Options& options)
        : m_pStream(std::make_unique<Stream>(std::move(session), options)) {}
    ~Capture() {
        py::gil_scoped_release release;
        m_pStream.reset();
    }

    py::object Next() {
        Busy busy(*this);
        for (;;) {
            Item item;
            {
                py::gil_scoped_release release;
                item = m_pStream->Wait(kSlice);
            }
            if (PyErr_CheckSignals() != 0) {
                Interrupt();
            }
            switch (item.what) {
                case Item::What::Nothing:
                    continue;
                case Item::What::End:
                    throw py::stop_iteration();
                case Item::What::Warning:
                    if (PyErr_WarnEx(g_pCaptureWarning, item.text.c_str(), 1) != 0) {
                        Interrupt();  // warnings made errors
                    }
                    continue;
                case Item::What::Frame: {
                    py::object image = ToArray(std::move(item.image));
                    return py::cast(Frame{std::move(image), item.number});
                }
                case Item::What::Result: {
                    py::object image = ToArray(std::move(item.image));
                    return py::cast(Result{std::move(image), item.number, item.quality.area,
                                           item.quality.contrast, item.frame});
                }
            }
        }
    }

    void Close() {
        Busy busy(*this);
        py::gil_scoped_release release;
        m_pStream->Stop("closed");
    }

    const Stream& Get() const { return *m_pStream; }

private:
    // A generator runs on one thread at a time, as Python's own do.
    class Busy {
    public:
        explicit Busy(Capture& capture) : m_rCapture(capture) {
            if (m_rCapture.m_bBusy.exchange(true)) {
                throw py::value_error("generator already executing");
            }
        }
        ~Busy() { m_rCapture.m_bBusy.store(false); }

    private:
        Capture& m_rCapture;
    };

    // The Python error set now (KeyboardInterrupt, a warning turned error)
    // ends the capture and goes to the caller.
    [[noreturn]] void Interrupt() {
        py::error_already_set pending;
        {
            py::gil_scoped_release release;
            try {
                m_pStream->Stop("interrupted");
            } catch (const std::exception&) {
                // The interruption is what the caller hears of.
            }
        }
        throw pending;
    }

    std::unique_ptr<Stream> m_pStream;
    std::atomic<bool> m_bBusy{false};
};

class Scanner {
public:
    explicit Scanner(std::shared_ptr<Session> session) : m_pSession(std::move(session)) {}
    ~Scanner() {
        py::gil_scoped_release release;
        m_pSession.reset();  // the last reference closes it
    }

    template <class Call>
    auto Run(Call call) {
        py::gil_scoped_release release;
        return m_pSession->Run(call);
    }

    Info GetInfo() {
        return Run([this](kr7host::Grabber& grabber) {
            Info info;
            info.version = grabber.Version();
            std::vector<std::string> texts = grabber.Info();
            texts.resize(std::max<std::size_t>(texts.size(), 5));
            info.product = texts[0];
            info.serial = texts[1];
            info.hardware = texts[2];
            info.firmware = texts[3];
            info.calibration = texts[4];
            info.plugin = m_pSession->File();
            info.device = grabber.ActiveDevice();
            return info;
        });
    }

    py::object Snap() {
        kr7host::Image image = Run([](kr7host::Grabber& grabber) { return grabber.Snap(); });
        return ToArray(std::move(image));
    }

    Capture* Start(Stream::Options options) {
        if (m_pSession->Closed()) {
            throw kr7py::Refused("the scanner is closed");
        }
        return new Capture(m_pSession, options);
    }

    void Led(const std::string& colour, bool on) {
        vc::ePropertyIDs property;
        if (colour == "red") {
            property = vc::ePropRedLED;
        } else if (colour == "green") {
            property = vc::ePropGreenLED;
        } else {
            throw py::value_error("unknown LED '" + colour + "': 'red' or 'green'");
        }
        Run([&](kr7host::Grabber& grabber) { grabber.SetProperty(property, on ? 100 : 0); });
    }

    double Contamination() {
        return Run([](kr7host::Grabber& grabber) { return grabber.Contamination(); });
    }

    unsigned int Property(long long id, std::optional<long long> value) {
        if (id < 0 || id > 0xffffffffLL) {
            throw py::value_error("property id out of range: " + std::to_string(id));
        }
        if (value && (*value < 0 || *value > 0xffffffffLL)) {
            throw py::value_error("property value out of range: " + std::to_string(*value));
        }
        const auto property = static_cast<vc::ePropertyIDs>(id);
        return Run([&](kr7host::Grabber& grabber) {
            if (value) {
                grabber.SetProperty(property, static_cast<unsigned int>(*value));
            }
            return grabber.Property(property);
        });
    }

    // For the benchmark: the intervals between `count` live frames at a
    // handler that does nothing, on the image as the plug-in lent it (the
    // plug-in's own pace, nothing of the module's).
    std::vector<double> PluginIntervals(long count) {
        if (count < 2) {
            throw py::value_error("count must be 2 or more");
        }
        return Run([count](kr7host::Grabber& grabber) {
            using Clock = std::chrono::steady_clock;
            std::vector<Clock::time_point> times(static_cast<std::size_t>(count));
            std::atomic<long> seen{0};
            std::mutex mutex;
            std::condition_variable done;
            kr7host::Capture capture(grabber, {1, vc::eCaptureLive, 4},
                                     [&](const kr7host::Delivery& delivery) {
                                         if (delivery.kind == kr7host::Kind::Stop) {
                                             std::lock_guard<std::mutex> lock(mutex);
                                             done.notify_one();
                                         }
                                         const long at = seen.load();
                                         if (delivery.kind != kr7host::Kind::Image || at >= count) {
                                             return;
                                         }
                                         times[static_cast<std::size_t>(at)] = Clock::now();
                                         seen.store(at + 1);
                                         if (at + 1 == count) {
                                             std::lock_guard<std::mutex> lock(mutex);
                                             done.notify_one();
                                         }
                                     });
            capture.Start();
            {
                std::unique_lock<std::mutex> lock(mutex);
                done.wait_for(lock, std::chrono::minutes(2),
                              [&] { return seen.load() >= count || capture.Stopped(); });
            }
            capture.Stop();
            std::vector<double> intervals;
            for (long i = 1; i < seen.load(); ++i) {
                intervals.push_back(
                    std::chrono::duration<double>(times[static_cast<std::size_t>(i)] -
                                                  times[static_cast<std::size_t>(i - 1)])
                        .count());
            }
            return intervals;
        });
    }

    void Close() {
        py::gil_scoped_release release;
        m_pSession->Close();
    }

    const Session& Get() const { return *m_pSession; }

private:
    std::shared_ptr<Session> m_pSession;
};

kr7py::OpenOptions Options(bool virtualScanner, const std::optional<std::filesystem::path>& plugin,
                           std::optional<long long> device) {
    kr7py::OpenOptions options;
    options.virtualScanner = virtualScanner;
    if (plugin) {
        options.plugin = PathText(*plugin);
        if (options.plugin.empty()) {
            throw py::value_error("plugin must name a file");
        }
    }
    if (device) {
        if (*device < 0 || *device > 0xffffffffLL) {
            throw py::value_error("device must be an interface number (0 or more), not " +
                                  std::to_string(*device));
        }
        options.device = static_cast<unsigned long>(*device);
    }
    return options;
}

std::string Quoted(const std::string& text) {
    return py::repr(py::str(text)).cast<std::string>();
}

const char* kOpenDoc = R"DOC(Open a scanner: load the plug-in, initialise it, select the scanner.

virtual: run against the virtual scanner: its three stand-in libraries are
    loaded by full path first (from the folder KR7_SIM_DIR names, else the
    one installed or built with this module), and the system's libraries stay
    untouched. Its KR7SIM_* variables work as usual.
plugin: the plug-in file; default: the installed libnorvakkr7fg.so.1 (with
    virtual=True from the build tree: the plug-in built there).
device: the scanner's interface number, as kr7.devices() lists it; default:
    the plug-in's first.

Use it in a with block, or call close(): leaving the block, close() or
losing the last reference stops a capture still running, uninitialises the
plug-in and unloads it. One scanner per plug-in file may be open at a time
(the plug-in has one frame grabber in a process).

Raises LoadError when a file cannot be loaded, Error when the plug-in fails
(a device number out of range: 27), ValueError for a bad argument.)DOC";

}  // namespace

PYBIND11_MODULE(kr7, m) {
    m.doc() = R"DOC(The KR7 fingerprint scanner from Python, images as NumPy arrays.

    import kr7
    with kr7.open(virtual=True) as scanner:
        print(scanner.info)
        image = scanner.snap()               # kr7.Image: uint8, (height, width), top-down
        for result in scanner.capture(mode="plain", count=3, timeout=30):
            print(result.number, result.area, result.contrast)
            kr7.save("result-%d.png" % result.number, result.image)

The module drives the frame-grabber plug-in libnorvakkr7fg.so.1 the way any
host does (through kr7host): every call releases the GIL, and Ctrl-C during
a capture stops it cleanly and raises KeyboardInterrupt in the caller.)DOC";

    if (_import_array() < 0) {
        throw py::error_already_set();
    }
    g_Defaults = kr7py::FindDefaults();

    py::dict scope = m.attr("__dict__");
    py::exec(kPrelude, scope, scope);
    const auto keep = [&scope](const char* name) {
        return py::object(scope[name]).release().ptr();  // a reference for good
    };
    g_pImageType = keep("Image");
    g_pError = keep("Error");
    g_pLoadError = keep("LoadError");
    g_pCaptureWarning = keep("CaptureWarning");
    py::register_exception_translator(&Translate);
    m.attr("__version__") = KR7_VERSION;

    py::class_<Info>(m, "Info", "What the plug-in and the scanner say of themselves.")
        .def_readonly("version", &Info::version, "The plug-in's version (GetVersion).")
        .def_readonly("product", &Info::product, "The scanner's product name.")
        .def_readonly("serial", &Info::serial, "The scanner's serial number.")
        .def_readonly("hardware", &Info::hardware, "The scanner's hardware version.")
        .def_readonly("firmware", &Info::firmware, "The scanner's firmware version.")
        .def_readonly("calibration", &Info::calibration, "The calibration data's revision.")
        .def_readonly("plugin", &Info::plugin, "The plug-in file loaded.")
        .def_readonly("device", &Info::device, "The scanner's interface number.")
        .def("__repr__", [](const Info& i) {
            return "kr7.Info(version=" + Quoted(i.version) + ", product=" + Quoted(i.product) +
                   ", serial=" + Quoted(i.serial) + ", hardware=" + Quoted(i.hardware) +
                   ", firmware=" + Quoted(i.firmware) + ", calibration=" + Quoted(i.calibration) +
                   ", device=" + std::to_string(i.device) + ")";
        });

    py::class_<Device>(m, "Device", "A connected scanner, as kr7.devices() lists it.")
        .def_readonly("index", &Device::index, "Its interface number: kr7.open(device=index).")
        .def_readonly("serial", &Device::serial, "Its serial number.")
        .def_readonly("active", &Device::active, "Whether the plug-in has it selected.")
        .def("__repr__", [](const Device& d) {
            return "kr7.Device(index=" + std::to_string(d.index) + ", serial=" + Quoted(d.serial) +
                   ", active=" + (d.active ? "True" : "False") + ")";
        });

    py::class_<Frame>(m, "Frame", "A live frame of scanner.frames().")
        .def_readonly("image", &Frame::image, "The frame, a kr7.Image.")
        .def_readonly("number", &Frame::number,
                      "The plug-in's number of the frame in this capture, from 1: gaps are "
                      "frames dropped while the reader was busy.")
        .def("__repr__", [](const Frame& f) {
            const py::tuple shape = f.image.attr("shape");
            return "kr7.Frame(number=" + std::to_string(f.number) +
                   ", image=" + py::repr(shape).cast<std::string>() + ")";
        });

    py::class_<Result>(m, "Result", "A finger result of scanner.capture(): one per placement.")
        .def_readonly("image", &Result::image, "The finger image, a kr7.Image.")
        .def_readonly("number", &Result::number, "The result's number in this capture, from 1.")
        .def_readonly("area", &Result::area,
                      "The share of the platen the finger covers (0..1): the 16x16-pixel tiles "
                      "whose grey levels spread like ridges do, as kr7 capture prints it.")
        .def_readonly("contrast", &Result::contrast,
                      "The ridge contrast (0..1): valley minus ridge level on those tiles, of "
                      "the full range, as kr7 capture prints it.")
        .def_readonly("frame", &Result::frame, "The plug-in's frames before this result.")
        .def("__repr__", [](const Result& r) {
            const py::tuple shape = r.image.attr("shape");
            return py::str(
                       "kr7.Result(number={}, area={:.3f}, contrast={:.3f}, frame={}, image={})")
                .format(r.number, r.area, r.contrast, r.frame, shape)
                .cast<std::string>();
        });

    py::class_<Capture>(m, "Capture",
                        R"DOC(A capture as a generator: scanner.capture() and scanner.frames().

It is lazy: the capture starts at the first next() and stops when the
generator is exhausted (count reached, timeout), closed (close(), the end
of a with block, the last reference gone), when an error ends it, or on
KeyboardInterrupt. Frames a slow reader has not taken are let go, the oldest
first (counted in dropped); finger results never are.)DOC")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &Capture::Next)
        .def("close", &Capture::Close, "Stop the capture now; the generator is then exhausted.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](Capture& self, py::args) { self.Close(); })
        .def_property_readonly(
            "frames", [](const Capture& c) { return c.Get().Frames(); },
            "Live frames the plug-in delivered in this capture so far.")
        .def_property_readonly(
            "dropped", [](const Capture& c) { return c.Get().Dropped(); },
            "Live frames let go before the reader took them.")
        .def_property_readonly(
            "handed", [](const Capture& c) { return c.Get().Handed(); },
            "Frames or results handed to the reader so far.")
        .def_property_readonly(
            "started", [](const Capture& c) { return c.Get().Started(); },
            "Whether the capture has started (at the first next()).")
        .def_property_readonly(
            "stopped",
            [](const Capture& c) -> py::object {
                const std::string why = c.Get().Stopped();
                return why.empty() ? py::object(py::none()) : py::object(py::str(why));
            },
            "Why it ended: 'count', 'timeout', 'closed', 'interrupted', 'error' or 'ended' (the "
            "plug-in ended it); None while it runs or before it starts.");

    py::class_<Scanner>(m, "Scanner", "An open scanner; kr7.open() gives one.")
        .def_property_readonly("info", &Scanner::GetInfo,
                               "Plug-in version, product, serial number, hardware and firmware "
                               "versions, calibration revision (kr7.Info).")
        .def("snap", &Scanner::Snap,
             "One calibrated image (GetImage) as a kr7.Image: uint8, shape (height, width), "
             "top-down, 500 ppi.")
        .def(
            "capture",
            [](Scanner& self, const std::string& mode, std::optional<long long> count,
               std::optional<double> timeout) {
                Stream::Options options;
                options.kind = Stream::Kind::Results;
                options.mode = FingerMode(mode);
                options.count = Count(count);
                options.timeout = Timeout(timeout);
                return self.Start(options);
            },
            "mode"_a = "plain", "count"_a = 3, "timeout"_a = 30.0,
            py::return_value_policy::take_ownership,
            R"DOC(Finger results as a generator of kr7.Result, one per placement of the finger.

mode: 'plain', 'fastplain' or 'rolled'. In the plain modes the plug-in
    reports a result on every frame while the finger lies still; of each
    placement the darkest is kept and handed over when the finger has gone
    (or when the capture ends), as kr7 capture does. A rolled print is one
    result.
count: results to take (None: no limit); the capture stops when the last
    one is handed over.
timeout: seconds from the start (None: no limit); then the generator ends
    (stopped == 'timeout'), with the placement still on the platen.

The plug-in's warnings become kr7.CaptureWarning warnings; its error ends
the capture with kr7.Error (after the results before it), e.g. number 31
"The scanner is disconnected.".)DOC")
        .def(
            "frames",
            [](Scanner& self, std::optional<long long> count, std::optional<double> timeout,
               long long keep) {
                if (keep < 1) {
                    throw py::value_error("keep must be 1 or more");
                }
                Stream::Options options;
                options.kind = Stream::Kind::Frames;
                options.mode = vc::eCaptureLive;
                options.count = Count(count);
                options.timeout = Timeout(timeout);
                options.keep = static_cast<std::size_t>(keep);
                return self.Start(options);
            },
            "count"_a = 25, "timeout"_a = 30.0, "keep"_a = 4,
            py::return_value_policy::take_ownership,
            R"DOC(Live frames as a generator of kr7.Frame, in order.

count: frames to take (None: no limit); timeout: seconds from the start
(None: no limit). keep: frames the generator holds for a reader that falls
behind; a newer frame pushes the oldest out (counted in dropped, and a gap
in Frame.number).)DOC")
        .def("led", &Scanner::Led, "colour"_a, "on"_a, "Switch the 'red' or 'green' LED on or off.")
        .def("contamination", &Scanner::Contamination,
             "How much of the platen is dirty, 0 (clean) to 1; measure with no finger on it.")
        .def("property", &Scanner::Property, "id"_a, "value"_a = py::none(),
             "Read a property (3 fixed one, 6 fake-finger detection, 7 red LED, 8 green LED); "
             "with a value, set it first. Returns the value read.")
        .def("_plugin_intervals", &Scanner::PluginIntervals, "count"_a,
             "For benchmarks: seconds between count live frames at a C++ handler that does "
             "nothing (the plug-in's own pace).")
        .def("close", &Scanner::Close,
             "Stop a capture still running, uninitialise and unload the plug-in. A second "
             "call does nothing.")
        .def_property_readonly(
            "closed", [](const Scanner& s) { return s.Get().Closed(); }, "Whether close() has run.")
        .def_property_readonly(
            "plugin", [](const Scanner& s) { return s.Get().File(); }, "The plug-in file loaded.")
        .def_property_readonly(
            "virtual", [](const Scanner& s) { return s.Get().Virtual(); },
            "Whether this is the virtual scanner.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](Scanner& self, py::args) { self.Close(); })
        .def("__repr__", [](const Scanner& s) {
            return std::string("<kr7.Scanner ") + (s.Get().Virtual() ? "virtual " : "") +
                   Quoted(s.Get().File()) + (s.Get().Closed() ? " closed>" : ">");
        });

    m.def(
        "open",
        [](bool virtualScanner, std::optional<std::filesystem::path> plugin,
           std::optional<long long> device) {
            const kr7py::OpenOptions options = Options(virtualScanner, plugin, device);
            std::shared_ptr<Session> session;
            {
                py::gil_scoped_release release;
                session = Session::Open(g_Defaults, options);
            }
            return new Scanner(std::move(session));
        },
        py::kw_only(), "virtual"_a = false, "plugin"_a = py::none(), "device"_a = py::none(),
        py::return_value_policy::take_ownership, kOpenDoc);

    m.def(
        "devices",
        [](bool virtualScanner, std::optional<std::filesystem::path> plugin) {
            const kr7py::OpenOptions options = Options(virtualScanner, plugin, std::nullopt);
            std::vector<kr7py::DeviceEntry> entries;
            {
                py::gil_scoped_release release;
                std::shared_ptr<Session> session = Session::Find(g_Defaults, options);
                if (session) {
                    entries = session->Devices();
                } else {
                    session = Session::Open(g_Defaults, options);
                    entries = session->Devices();
                    session->Close();
                }
            }
            std::vector<Device> devices;
            for (const kr7py::DeviceEntry& entry : entries) {
                devices.push_back({entry.index, entry.serial, entry.active});
            }
            return devices;
        },
        py::kw_only(), "virtual"_a = false, "plugin"_a = py::none(),
        R"DOC(The connected scanners (kr7.Device: interface number, serial number).

virtual and plugin as for kr7.open; the plug-in is loaded for the call and
unloaded again, unless a scanner of that plug-in is open (then its list).)DOC");

    m.def(
        "save",
        [](const std::filesystem::path& path, py::object image) {
            const std::string file = PathText(path);
            if (kr7host::FormatOf(file) == kr7host::Format::Unknown) {
                throw py::value_error("cannot write " + file +
                                      ": the name must end in .png, .bmp or .pgm");
            }
            py::array array = py::array::ensure(image);
            if (!array || array.ndim() != 2 || !array.dtype().is(py::dtype::of<std::uint8_t>())) {
                throw py::value_error("kr7.save writes a 2-D numpy array of uint8");
            }
            if (array.shape(0) == 0 || array.shape(1) == 0) {
                throw py::value_error("kr7.save: the image is empty");
            }
            auto rows = py::array_t<std::uint8_t, py::array::c_style>::ensure(array);
            kr7host::Image out;
            out.height = static_cast<int>(rows.shape(0));
            out.width = static_cast<int>(rows.shape(1));
            out.ppi = py::getattr(image, "ppi", py::int_(kr7host::kScannerPpi)).cast<int>();
            out.pixels.assign(rows.data(), rows.data() + rows.size());
            std::string failure;
            {
                py::gil_scoped_release release;
                try {
                    kr7host::WriteImage(out, file);
                } catch (const std::runtime_error& e) {
                    failure = e.what();
                }
            }
            if (!failure.empty()) {
                PyErr_SetString(PyExc_OSError, failure.c_str());
                throw py::error_already_set();
            }
        },
        "path"_a, "image"_a,
        R"DOC(Write a 2-D uint8 array as PNG, BMP or PGM, as the name's extension says.

PNG and BMP files carry the resolution (image.ppi, else 500 ppi) in their
header (PNG: pHYs), so fingerprint tools read the scale. Raises ValueError
for another extension or array, OSError when the file cannot be written.)DOC");

    m.def(
        "load",
        [](const std::filesystem::path& path) {
            kr7host::Image image;
            std::string failure;
            {
                py::gil_scoped_release release;
                try {
                    image = kr7host::ReadImage(PathText(path));
                } catch (const std::runtime_error& e) {
                    failure = e.what();
                }
            }
            if (!failure.empty()) {
                PyErr_SetString(PyExc_OSError, failure.c_str());
                throw py::error_already_set();
            }
            return ToArray(std::move(image));
        },
        "path"_a,
        "Read a PNG, 8-bit BMP or binary PGM file as a grey kr7.Image (ppi from the file's "
        "header, 500 when it has none).");

    // A scanner still open when the interpreter exits is closed before it
    // tears down, so that no capture thread outlives it.
    py::module_::import("atexit").attr("register")(py::cpp_function([]() {
        py::gil_scoped_release release;
        kr7py::CloseAll();
    }));
}
