// quarn._quarn: the measurement jobs for Python, on numpy arrays.
//
// Each function takes its input array where it lies (a C-contiguous uint8/uint16 stack reaches the
// frame buffer without a copy), releases the GIL while the library works, and returns a dict with
// the result maps (float64, NaN = no data) and the job's record. Bad input raises ValueError (bad
// values, shapes, frame counts) or TypeError (sample types) with the tool's words; a run without a
// valid pixel is not an error: its maps are all NaN and "status" says "no result" with the reason.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Jobs/CarrierJob.h"
#include "Jobs/FilmJob.h"
#include "Jobs/PsiCheckJob.h"
#include "Jobs/PsiJob.h"
#include "Jobs/QuadrantsJob.h"
#include "Jobs/SpotJob.h"
#include "Jobs/SwliJob.h"

namespace py = pybind11;
using namespace py::literals;

namespace Quarn::Jobs {
namespace {

// The tool's option names ("--min-modulation") as this package's keywords ("min_modulation").
std::string Keywords(const std::string& message) {
  std::string out;
  for (std::size_t i = 0; i < message.size();) {
    const bool option = message.compare(i, 2, "--") == 0 && i + 2 < message.size() &&
                        std::islower(static_cast<unsigned char>(message[i + 2])) &&
                        (i == 0 || message[i - 1] == ' ' || message[i - 1] == '(');
    if (!option) {
      out += message[i++];
      continue;
    }
    std::size_t end = i + 2;
    while (end < message.size() &&
           (std::isalnum(static_cast<unsigned char>(message[end])) || message[end] == '-'))
      ++end;
    std::string name = message.substr(i + 2, end - i - 2);
    for (char& ch : name)
      if (ch == '-') ch = '_';
    if (name == "scan_step") name = "scan_step_nm";
    out += name;
    i = end;
  }
  return out;
}

const char* StatusText(JobOutcome outcome) {
  return outcome == JobOutcome::kSuccess    ? "ok"
         : outcome == JobOutcome::kNoResult ? "no result"
                                            : "bad input";
}

// Raises for bad input; otherwise the record's common fields as the start of the result dict.
py::dict Common(const JobRecord& record) {
  if (record.outcome == JobOutcome::kBadInput) throw py::value_error(Keywords(record.message));
  py::dict result;
  result["status"] = StatusText(record.outcome);
  result["message"] = record.message;
  result["warnings"] = record.warnings;
  result["valid_fraction"] = record.validFraction;
  result["seconds"] = record.seconds;
  return result;
}

// The host array as a view, checked for its number of dimensions and sample type. `frames2d`: a 2-D
// array is one frame. Doubles are admitted only where maps are read (`maps`).
ArrayView View(const py::array& array, const std::string& name, bool stack, bool maps = false) {
  const py::buffer_info info = array.request();
  const int dims = static_cast<int>(info.ndim);
  if (stack ? dims != 3 : (dims != 2 && !(dims == 3 && info.shape[0] == 1))) {
    std::string shape = "(";
    for (int d = 0; d < dims; ++d)
      shape += std::to_string(info.shape[static_cast<std::size_t>(d)]) + (d + 1 < dims ? ", " : "");
    throw py::value_error(
        name + " has shape " + shape + (dims == 1 ? ",)" : ")") +
        (stack ? "; a stack is 3-D: (frames, rows, columns)" : "; an image is 2-D: (rows, columns)"));
  }
  const py::dtype dtype = array.dtype();
  // A byte-swapped array (a big-endian file mapped as it lies) would be read as other numbers.
  if (!dtype.attr("isnative").cast<bool>()) {
    throw py::type_error(
        name + " holds samples in " + py::str(static_cast<const py::handle&>(dtype)).cast<std::string>() +
        ", not this machine's byte order; convert it first (a.astype(a.dtype.newbyteorder('=')))");
  }
  ArrayView view;
  if (dtype.kind() == 'u' && dtype.itemsize() == 1) {
    view.type = SampleType::kUInt8;
  } else if (dtype.kind() == 'u' && dtype.itemsize() == 2) {
    view.type = SampleType::kUInt16;
  } else if (maps && dtype.kind() == 'f' && dtype.itemsize() == 8) {
    view.type = SampleType::kDouble;
  } else if (dtype.kind() == 'u' || dtype.kind() == 'b') {
    throw py::type_error(name + " has " + std::to_string(8 * dtype.itemsize()) +
                         "-bit samples; 8 or 16 are needed");
  } else if (maps) {
    throw py::type_error(name + " holds " +
                         py::str(static_cast<const py::handle&>(dtype)).cast<std::string>() +
                         " samples; float64, uint8 or uint16 are needed");
  } else {
    throw py::type_error(name + " holds signed or floating-point samples (" +
                         py::str(static_cast<const py::handle&>(dtype)).cast<std::string>() +
                         "); unsigned integers are needed (uint8 or uint16)");
  }
  const int offset = dims - 2;
  view.data = info.ptr;
  view.frames = dims == 3 ? static_cast<int>(info.shape[0]) : 1;
  view.rows = static_cast<int>(info.shape[static_cast<std::size_t>(offset)]);
  view.cols = static_cast<int>(info.shape[static_cast<std::size_t>(offset + 1)]);
  view.frameStride = dims == 3 ? info.strides[0] : 0;
  view.rowStride = info.strides[static_cast<std::size_t>(offset)];
  view.colStride = info.strides[static_cast<std::size_t>(offset + 1)];
  view.name = name;
  return view;
}

// A result map handed to numpy without a copy: the matrix (no data already NaN) moves into a
// capsule that the array keeps alive. A map the run did not make (no result) is all NaN.
py::array Adopt(Core::DoubleMatrix2D&& map, const ArrayView& like) {
  const std::vector<py::ssize_t> shape{like.rows, like.cols};
  if (map.GetRows() != like.rows || map.GetColumns() != like.cols) {
    py::array_t<double> empty(shape);
    std::fill(empty.mutable_data(), empty.mutable_data() + empty.size(),
              std::numeric_limits<double>::quiet_NaN());
    return empty;
  }
  auto* owner = new Core::DoubleMatrix2D(std::move(map));
  const py::capsule base(owner, [](void* p) { delete static_cast<Core::DoubleMatrix2D*>(p); });
  return py::array_t<double>(shape, owner->Data(), base);
}

// The map moved out of a job when the run produced it, no data as NaN (called without the GIL).
Core::DoubleMatrix2D Taken(bool ok, Core::DoubleMatrix2D&& map) {
  if (!ok) return {};
  NoDataToNan(map);
  return std::move(map);
}

// An option the host gave explicitly where the job reads 0 as "not given" (max_value): 0 is refused
// here in the tool's words, as the tool refuses it.
int GivenMaxValue(std::optional<int> maxValue) {
  JobRecord record;
  if (maxValue && !CheckWholeNumberFrom(record, "--max-value", *maxValue, 1, 65535)) {
    throw py::value_error(Keywords(record.message));
  }
  return maxValue.value_or(0);
}

int Threads(std::optional<int> threads) {
  return threads ? *threads : -1;
}

// The work of one psi call after the arguments are read: frames lent, job run, maps taken.
void PsiRunner(const ArrayView& view, const PsiOptions& options, bool wantModulation, PsiRecord& record,
               Core::DoubleMatrix2D& phase, Core::DoubleMatrix2D& modulation) {
  Core::FrameBuffer frames;
  if (!MakeFrameBuffer(view, frames, record)) return;
  PsiJob job;
  record = job.Run(frames, options, view.name, wantModulation);
  phase = Taken(record.Ok(), job.TakePhase());
  if (wantModulation) modulation = Taken(record.Ok(), job.TakeModulation());
}

py::dict Psi(const py::array& stack, std::optional<std::string> algorithm, double minModulation,
             bool estimateMagnitude, int phaseSign, std::optional<std::vector<double>> frameWeights,
             std::optional<int> maxValue, std::optional<int> threads, bool modulation,
             std::optional<std::string> name) {
  const ArrayView view = View(stack, name.value_or("the stack"), true);
  PsiOptions options;
  options.algorithm = algorithm.value_or("");
  options.minModulation = minModulation;
  options.estimateMagnitude = estimateMagnitude;
  options.phaseSign = phaseSign;
  options.frameWeights = frameWeights.value_or(std::vector<double>{});
  options.maxValue = GivenMaxValue(maxValue);
  options.threads = Threads(threads);
  PsiRecord record;
  Core::DoubleMatrix2D phase, modulationMap;
  {
    py::gil_scoped_release release;
    PsiRunner(view, options, modulation, record, phase, modulationMap);
  }
  py::dict result = Common(record);
  result["phase"] = Adopt(std::move(phase), view);
  result["modulation"] =
      modulation ? py::object(Adopt(std::move(modulationMap), view)) : py::object(py::none());
  result["algorithm"] = record.algorithm;
  result["max_value"] = record.maxValue;
  return result;
}

py::object Optional(bool have, double value) {
  return have ? py::object(py::float_(value)) : py::object(py::none());
}

py::dict PsiCheck(const py::array& stack, std::optional<std::string> method, std::optional<py::array> mask,
                  int scanPeriod, double minModulation, int firstFrame, std::optional<int> frameCount,
                  std::optional<int> maxValue, std::optional<int> threads, std::optional<std::string> name) {
  const ArrayView view = View(stack, name.value_or("the stack"), true);
  ArrayView maskView;
  if (mask) maskView = View(*mask, "the mask", false);
  PsiCheckOptions options;
  options.method = method.value_or("");
  options.scanPeriod = scanPeriod;
  options.minModulation = minModulation;
  options.firstFrame = firstFrame;
  JobRecord refused;
  if (frameCount && !CheckWholeNumberFrom(refused, "--frame-count", *frameCount, 1, 2147483647.0)) {
    throw py::value_error(Keywords(refused.message));
  }
  options.frameCount = frameCount.value_or(0);
  options.maxValue = GivenMaxValue(maxValue);
  options.threads = Threads(threads);
  PsiCheckRecord record;
  Core::DoubleMatrix2D steps;
  {
    py::gil_scoped_release release;
    Core::FrameBuffer frames;
    std::unique_ptr<Core::RegionIdMatrix2D> region;
    if (maskView.data != nullptr) region = std::make_unique<Core::RegionIdMatrix2D>();
    if (MakeFrameBuffer(view, frames, record) && (!region || MakeMask(maskView, *region, record))) {
      PsiCheckJob job;
      record = job.Run(frames, options, view.name, region.get(), maskView.name);
      steps = Taken(record.corvaneResult && record.outcome != JobOutcome::kBadInput, job.TakeStepValues());
    }
  }
  py::dict result = Common(record);
  result["step_values"] =
      record.corvaneResult ? py::object(Adopt(std::move(steps), view)) : py::object(py::none());
  result["description"] = record.description;
  result["frame_count"] = record.frameCount;
  result["step_value_mean"] = Optional(record.corvaneResult, record.stepValueMean);
  result["step_value_median"] = Optional(record.corvaneResult, record.stepValueMedian);
  result["step_deg_mean"] = Optional(record.corvaneResult, record.stepDegreesMean);
  result["step_deg_median"] = Optional(record.corvaneResult, record.stepDegreesMedian);
  result["gain_correction"] = Optional(record.gainResult, record.gainCorrection);
  result["gain_fraction"] = Optional(record.gainResult, record.gainFraction);
  result["gain_estimate"] = !record.gainRan         ? py::object(py::none())
                            : record.gainSinusoidal ? py::object(py::str("sinusoidal 20-frame"))
                                                    : py::object(py::str("7-sample"));
  return result;
}

py::dict Swli(const py::array& scan, double scanStepNm, const std::string& algorithm,
              std::optional<double> minModulation, std::optional<double> wavelengthNm,
              const std::string& fringeRemoval, bool reverse, std::optional<int> maxValue,
              std::optional<int> threads, bool intensity, std::optional<std::string> name) {
  const ArrayView view = View(scan, name.value_or("the scan"), true);
  SwliOptions options;
  options.algorithm = algorithm;
  options.scanStepNm = scanStepNm;
  // No threshold given: the tool's default, scaled to the scan's sampling.
  if (minModulation) options.minModulation = *minModulation;
  options.minModulationGiven = minModulation.has_value();
  if (wavelengthNm) {
    // 0 would mean "measure" to the job; here it is a wavelength of zero, refused as the tool does.
    if (*wavelengthNm == 0.0) {
      throw py::value_error(Keywords("--wavelength-nm: must be a positive number of nanometres, not 0"));
    }
    options.wavelengthNm = *wavelengthNm;
  }
  options.fringeRemoval = fringeRemoval;
  options.reverse = reverse;
  options.maxValue = GivenMaxValue(maxValue);
  options.threads = Threads(threads);
  options.wantIntensity = intensity && fringeRemoval != "none";
  SwliRecord record;
  Core::DoubleMatrix2D height, intensityMap;
  {
    py::gil_scoped_release release;
    Core::FrameBuffer frames;
    if (MakeFrameBuffer(view, frames, record)) {
      frames.SetScanDirection(options.reverse ? -1 : 1);
      SwliJob job;
      record = job.Run(frames, options, view.name);
      height = Taken(record.Ok(), job.TakeHeight());
      // The intensity is counts in an integer map: converted (no data as NaN) into a double map.
      if (record.Ok() && options.wantIntensity && intensityMap.Resize(view.rows, view.cols)) {
        const Core::IntMatrix2D& counts = job.GetIntensity();
        for (std::int64_t i = 0; i < intensityMap.GetCount(); ++i)
          intensityMap.At(i) = Core::IsNoDataValue(counts.At(i)) ? std::numeric_limits<double>::quiet_NaN()
                                                                 : static_cast<double>(counts.At(i));
      }
    }
  }
  // The tool's --wavelength is this function's wavelength_nm.
  if (record.message.rfind("--wavelength:", 0) == 0) record.message.replace(0, 12, "--wavelength-nm");
  py::dict result = Common(record);
  result["height"] = Adopt(std::move(height), view);
  result["intensity"] =
      options.wantIntensity ? py::object(Adopt(std::move(intensityMap), view)) : py::object(py::none());
  result["max_value"] = record.maxValue;
  const bool fda = algorithm == "fda" && record.Ok();
  result["frames_per_fringe"] = Optional(record.framesPerFringe > 0.0, record.framesPerFringe);
  result["period_source"] = record.framesPerFringe <= 0.0 ? py::object(py::none())
                            : record.periodFromWavelength ? py::object(py::str("wavelength"))
                                                          : py::object(py::str("measured"));
  result["min_modulation"] = record.minModulation;
  result["min_modulation_scaled"] = record.minModulationScaled;
  result["band"] =
      fda ? py::object(py::make_tuple(record.firstBandBin, record.lastBandBin)) : py::object(py::none());
  result["subsamples"] = record.subsamples;
  result["equivalent_wavelength_nm"] = Optional(fda, record.equivalentWavelengthNm);
  result["average_gap_nm"] = Optional(fda, record.averageGapNm);
  return result;
}

py::dict Carrier(const py::array& frame, int quadrant, int pixelsPerFringe, double threshold, int minRegion,
                 bool keepCarrier, std::optional<int> maxValue, std::optional<int> threads, bool modulation,
                 std::optional<std::string> name) {
  const ArrayView view = View(frame, name.value_or("the frame"), false);
  CarrierOptions options;
  options.quadrant = quadrant;
  options.pixelsPerFringe = pixelsPerFringe;
  options.threshold = threshold;
  options.minRegion = minRegion;
  options.keepCarrier = keepCarrier;
  options.maxValue = GivenMaxValue(maxValue);
  options.threads = Threads(threads);
  CarrierRecord record;
  Core::DoubleMatrix2D phase, modulationMap;
  {
    py::gil_scoped_release release;
    Core::FrameBuffer frames;
    if (MakeFrameBuffer(view, frames, record)) {
      CarrierJob job;
      record = job.Run(frames, options, view.name, modulation);
      phase = Taken(record.Ok(), job.TakePhase());
      if (modulation) modulationMap = Taken(record.Ok(), job.TakeModulation());
    }
  }
  py::dict result = Common(record);
  result["phase"] = Adopt(std::move(phase), view);
  result["modulation"] =
      modulation ? py::object(Adopt(std::move(modulationMap), view)) : py::object(py::none());
  result["threshold_counts"] = record.thresholdCounts;
  return result;
}

py::dict Quadrants(const py::array& q1, const py::array& q3, std::optional<py::array> q2,
                   std::optional<py::array> q4, double tolerance, std::optional<double> wavelength) {
  // Maps of any float type are read as float64 (one conversion; the job copies maps anyway).
  const auto asMap = [](const py::array& a) -> py::array {
    return a.dtype().kind() == 'f' ? py::array(py::array_t<double, py::array::forcecast>::ensure(a)) : a;
  };
  const py::array m1 = asMap(q1), m3 = asMap(q3);
  const std::optional<py::array> m2 = q2 ? std::optional<py::array>(asMap(*q2)) : std::nullopt;
  const std::optional<py::array> m4 = q4 ? std::optional<py::array>(asMap(*q4)) : std::nullopt;
  const ArrayView v1 = View(m1, "q1", false, true), v3 = View(m3, "q3", false, true);
  const ArrayView v2 = m2 ? View(*m2, "q2", false, true) : ArrayView{};
  const ArrayView v4 = m4 ? View(*m4, "q4", false, true) : ArrayView{};
  QuadrantsOptions options;
  options.toleranceNm = tolerance;
  JobRecord refused;
  if (wavelength && !CheckNumberAbove(refused, "--wavelength", *wavelength, 0.0)) {
    throw py::value_error(Keywords(refused.message));
  }
  options.wavelengthNm = wavelength.value_or(0.0);
  const std::vector<py::ssize_t> shape{v1.rows, v1.cols};
  py::array_t<double> final(shape), calibration(shape);
  const MapView finalView{final.mutable_data(), v1.rows, v1.cols, 0};
  const MapView calibrationView{calibration.mutable_data(), v1.rows, v1.cols, 0};
  QuadrantsRecord record;
  {
    py::gil_scoped_release release;
    record = RunQuadrants(v1, v3, v2, v4, options, finalView, calibrationView);
  }
  py::dict result = Common(record);
  result["final"] = final;
  result["calibration"] = calibration;
  result["quadrants"] = record.quadrants;
  result["astigmatism_pv_nm"] = Optional(record.twoPvAvailable, record.twoPvNm);
  result["astigmatism_pv_reason"] = record.twoPvReason;
  result["four_quadrants_required"] = record.fourRequired;
  result["four_quadrant_pv_nm"] = Optional(record.quadrants == 4 && record.fourPvAvailable, record.fourPvNm);
  result["four_quadrant_pv_reason"] = record.fourPvReason;
  return result;
}

// The film-stack description: JSON text, a dict (as JSON) or the path of a STACK.json file; its
// text and how messages name it (the path, as the tool does, or "the film stack").
std::pair<std::string, std::string> StackText(const py::object& stack) {
  if (py::isinstance<py::dict>(stack)) {
    return {py::module_::import("json").attr("dumps")(stack).cast<std::string>(), "the film stack"};
  }
  if (!py::isinstance<py::str>(stack) && !py::hasattr(stack, "__fspath__")) {
    throw py::type_error("stack must be STACK.json text, its path or a dict");
  }
  const std::string text = py::str(py::module_::import("os").attr("fspath")(stack)).cast<std::string>();
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (py::isinstance<py::str>(stack) && first != std::string::npos && text[first] == '{') {
    return {text, "the film stack"};
  }
  std::ifstream in(text, std::ios::binary);
  if (!in) throw py::value_error(text + ": cannot be read");
  std::ostringstream content;
  content << in.rdbuf();
  return {content.str(), text};
}

py::dict Film(const py::array& scan, const py::object& stack, double scanStepNm, const std::string& search,
              double minModulation, double correlationThreshold, bool reverse, std::optional<int> maxValue,
              std::optional<int> threads, std::optional<std::string> name) {
  const ArrayView view = View(scan, name.value_or("the scan"), true);
  const auto [stackJson, stackName] = StackText(stack);
  FilmOptions options;
  options.scanStepNm = scanStepNm;
  options.search = search;
  options.minModulation = minModulation;
  options.correlationThreshold = correlationThreshold;
  options.reverse = reverse;
  options.maxValue = GivenMaxValue(maxValue);
  options.threads = Threads(threads);
  FilmRecord record;
  Core::DoubleMatrix2D height, thickness, variable2, merit;
  {
    py::gil_scoped_release release;
    Core::FrameBuffer frames;
    if (MakeFrameBuffer(view, frames, record)) {
      FilmJob job;
      record = job.Run(frames, stackJson, stackName, options, view.name);
      height = Taken(record.Ok(), job.TakeHeight());
      thickness = Taken(record.Ok(), job.TakeThickness());
      variable2 = Taken(record.Ok(), job.TakeVariable2());
      merit = Taken(record.Ok(), job.TakeMerit());
    }
  }
  py::dict result = Common(record);
  result["height"] = Adopt(std::move(height), view);
  result["thickness"] = Adopt(std::move(thickness), view);
  result["variable2"] = Adopt(std::move(variable2), view);
  result["merit"] = Adopt(std::move(merit), view);
  result["frames"] = record.frames;
  result["signals"] = record.signals;
  result["variable1"] = record.variable1Kind;
  result["variable1_unit"] = record.variable1InNm ? "nm" : "";
  result["mean_variable1"] = Optional(record.Ok(), record.meanVariable1);
  result["variable2_kind"] = record.variable2Kind;
  result["max_value"] = record.maxValue;
  return result;
}

py::dict Spot(const py::array& image, std::pair<double, double> center, double radius, double obscuration,
              const std::string& restrict, std::optional<double> saturation, int maxSaturated,
              std::optional<std::string> name) {
  const ArrayView view = View(image, name.value_or("the image"), false);
  SpotOptions options;
  options.centerX = center.first;
  options.centerY = center.second;
  options.radius = radius;
  options.obscuration = obscuration;
  options.restrict = restrict;
  JobRecord refused;
  if (saturation && !CheckNumberAtLeast(refused, "--saturation", *saturation, 0.0)) {
    throw py::value_error(Keywords(refused.message));
  }
  options.saturation = saturation.value_or(-1.0);  // negative: chosen from the sample depth
  options.maxSaturated = maxSaturated;
  SpotRecord record;
  {
    py::gil_scoped_release release;
    record = RunSpot(view, options);
  }
  py::dict result = Common(record);
  result["position"] = record.position;
  result["position_code"] = record.positionCode;
  result["explanation"] = record.explanation;
  result["saturation"] = record.saturation;
  py::list spots;
  for (const SpotFound& s : record.spots) {
    spots.append(py::dict("center_of_mass_x"_a = s.centerOfMassX, "center_of_mass_y"_a = s.centerOfMassY,
                          "sigma_x"_a = s.sigmaX, "sigma_y"_a = s.sigmaY, "x0"_a = s.x0, "x1"_a = s.x1,
                          "y0"_a = s.y0, "y1"_a = s.y1, "size"_a = s.size, "sum"_a = s.sum));
  }
  result["spots"] = spots;
  py::dict properties;
  for (const auto& [key, value] : record.properties)
    properties[py::str(key)] = value;
  result["properties"] = properties;
  return result;
}

// The C++ job alone on the same array, timed in C++ (for the benchmark's overhead figure), seconds
// per call: "maps" the work of a psi call without Python (frames lent, job run, maps taken with no
// data as NaN), "host" RunPsi into arrays the host allocated once (a copy of each map).
py::dict TimePsiInCpp(const py::array& stack, int repeats, std::optional<int> threads) {
  const ArrayView view = View(stack, "the stack", true);
  PsiOptions options;
  options.threads = Threads(threads);
  std::vector<double> phase(static_cast<std::size_t>(view.rows) * view.cols), modulation(phase.size());
  std::vector<double> maps, host;
  {
    py::gil_scoped_release release;
    for (int i = 0; i < repeats; ++i) {
      auto start = std::chrono::steady_clock::now();
      {
        PsiRecord record;
        Core::DoubleMatrix2D phaseMap, modulationMap;
        PsiRunner(view, options, true, record, phaseMap, modulationMap);
      }
      maps.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
      start = std::chrono::steady_clock::now();
      RunPsi(view, options, MapView{phase.data(), view.rows, view.cols, 0},
             MapView{modulation.data(), view.rows, view.cols, 0});
      host.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
  }
  return py::dict("maps"_a = maps, "host"_a = host);
}

}  // namespace
}  // namespace Quarn::Jobs

PYBIND11_MODULE(_quarn, m) {
  using namespace Quarn::Jobs;
  m.doc() = "Interferometry measurement jobs on numpy arrays (the compiled part of the quarn package).";
  m.attr("__version__") = QUARN_VERSION;

  m.def("_time_psi_in_cpp", &TimePsiInCpp, "stack"_a, "repeats"_a, "threads"_a = py::none(),
        "Seconds per call of the C++ PSI job on the same array (phase and modulation), for benchmarks.");

  m.def("psi", &Psi, "stack"_a, py::kw_only(), "algorithm"_a = py::none(), "min_modulation"_a = 15.0,
        "estimate_magnitude"_a = false, "phase_sign"_a = 1, "frame_weights"_a = py::none(),
        "max_value"_a = py::none(), "threads"_a = py::none(), "modulation"_a = true, "name"_a = py::none(),
        R"(Wrapped phase and modulation from a phase-shifted frame stack.

stack: uint8 or uint16 array of shape (frames, rows, columns), frame k taken at the k-th phase
    shift. A C-contiguous array is read in place (no copy).
algorithm: "7", "13", "20" or "sliding13"; None chooses from the frame count (7, 13, 20; more than
    13 and not 20: the sliding 13-frame kernel).
min_modulation: percent of the saturation level; pixels modulated less get no data (NaN).
estimate_magnitude: use |N| + |D| instead of sqrt(N^2 + D^2) for the modulation.
phase_sign: 1 or -1, applied to the phase.
frame_weights: relative brightness of each frame (one positive number per frame), or None.
max_value: saturation level in counts (1 .. 65535; e.g. 4095 for a 12-bit camera); None: the sample
    type's maximum. A pixel with a sample at this level has no data.
threads: worker threads (0: the calling thread only; None: all processors).
modulation: also return the modulation map.
name: how the input is named in messages (default "the stack").

Returns a dict: "phase" (float64 (rows, columns), radians in -pi .. pi, NaN = no data),
"modulation" (float64, counts, or None), "status" ("ok" or "no result"), "message" (why there
is no result), "valid_fraction", "algorithm", "max_value", "seconds", "warnings".
Raises ValueError for a frame count no algorithm fits, bad option values (NaN, out of range) or a
wrong number of dimensions, TypeError for samples other than uint8/uint16. A stack without any
valid pixel is not an error: the maps are all NaN and "status" is "no result".

    r = quarn.psi(stack, min_modulation=10.0)
    phase = r["phase"]   # radians, NaN where there is no data
)");

  m.def("psi_check", &PsiCheck, "stack"_a, py::kw_only(), "method"_a = py::none(), "mask"_a = py::none(),
        "scan_period"_a = 1, "min_modulation"_a = 15.0, "first_frame"_a = 0, "frame_count"_a = py::none(),
        "max_value"_a = py::none(), "threads"_a = py::none(), "name"_a = py::none(),
        R"(Checks the phase shifter on a phase-shifted frame stack.

stack: uint8 or uint16 array (frames, rows, columns).
method: "corvane", "gain" or None (every check the frame count allows). corvane needs 7 or 13
    frames; gain 7, 13 or at least 20 (then the sinusoidal estimate on frames 0-19).
mask: 2-D array of the stack's size; its non-zero pixels are checked (None: all).
scan_period: check every N-th pixel (row-major).
min_modulation: percent of the saturation level; pixels modulated less are left out.
first_frame, frame_count: check frames first_frame .. first_frame + frame_count - 1 (None: to the end).
max_value, threads, name: as for psi.

Returns a dict: "step_values" (float64 map of 256 cos(step), 0 at the nominal quarter-period
step, NaN = no data; None when the corvane check produced nothing), "step_value_mean",
"step_value_median", "step_deg_mean", "step_deg_median" (the phase step they imply, degrees,
nominal 90: between frames for 7 frames, between frame pairs for 13), "gain_correction" (0 for a
calibrated shifter, negative when it moves too far), "gain_fraction" (pixels that contributed),
"gain_estimate", "description", "frame_count", "valid_fraction" (of the step map), "status",
"message", "warnings" (a check without a usable pixel while the other produced its result).
)");

  m.def("swli", &Swli, "scan"_a, py::kw_only(), "scan_step_nm"_a, "algorithm"_a = "centroid",
        "min_modulation"_a = py::none(), "wavelength_nm"_a = py::none(), "fringe_removal"_a = "standard",
        "reverse"_a = false, "max_value"_a = py::none(), "threads"_a = py::none(), "intensity"_a = true,
        "name"_a = py::none(),
        R"(Surface heights from a white-light (coherence) scan.

scan: uint8 or uint16 array (frames, rows, columns), more than 64 frames, frame k taken at scan
    position k x scan_step_nm (reverse=True: at (frames - k) x scan_step_nm).
scan_step_nm: distance the scan moves between frames, nanometres (required, > 0).
algorithm: "centroid" (centre of mass of the fringe envelope; robust, any step; heights count
    positions from one) or "fda" (phase of the fringe spectrum; nanometre precision). Steps from
    about a fortieth to a fifth of the centre wavelength are evaluated: the fringe period (frames
    per fringe, half the centre wavelength over the step) sets the band of bins the fda fits, and a
    scan of more than 5.6 frames per fringe is evaluated by the fda as interleaved subsamples of
    about four frames per fringe whose heights are averaged.
min_modulation: percent of the saturation level the fringes must reach. None (the default): for
    the centroid 15 % at four frames per fringe, scaled to the scan's fringe period; for the fda
    15 %. A number given is used as it stands.
wavelength_nm: centre wavelength of the light, nanometres (> 0): sets the fringe period. None (the
    default): the period is measured from the scan.
fringe_removal: "standard", "64full" or "none" (no intensity map).
max_value, threads, name: as for psi (threads 0 or 1: the calling thread only).
intensity: also return the fringe-free intensity.

The defaults are those of `qphase swli`; with the same options the heights equal the tool's.

Returns a dict: "height" (float64, nanometres along the scan, NaN = no data), "intensity" (float64,
counts, or None), "frames_per_fringe" (None when it could not be measured), "period_source"
("measured", "wavelength" or None), "min_modulation" (percent, the threshold used),
"min_modulation_scaled" (True when it is the default scaled to the sampling), "band" ((first,
last) bin of 64 the fda fitted, else None), "subsamples" (interleaved subsamples the fda
averaged; 1 for the scan as it is), "equivalent_wavelength_nm" and "average_gap_nm" (fda, else
None), "valid_fraction", "status", "message", "max_value", "seconds", "warnings".
)");

  m.def("carrier", &Carrier, "frame"_a, py::kw_only(), "quadrant"_a = 2, "pixels_per_fringe"_a = 4,
        "threshold"_a = 10.0, "min_region"_a = 10, "keep_carrier"_a = false, "max_value"_a = py::none(),
        "threads"_a = py::none(), "modulation"_a = true, "name"_a = py::none(),
        R"(Phase and modulation from one frame of carrier fringes.

frame: uint8 or uint16 array (rows, columns) or (1, rows, columns).
quadrant: quadrant of the frequency plane holding the lobe to keep: 1 right-up, 2 left-up, 3
    left-down, 4 right-down.
pixels_per_fringe: carrier period in pixels (3 or more).
threshold: percent of half the saturation level; pixels modulated less get no data.
min_region: no-data areas of at least this many pixels lose a one-pixel rim of valid phase.
keep_carrier: do not remove the carrier.
max_value, threads, name: as for psi.

Returns a dict: "phase" (float64, radians, NaN = no data), "modulation" (float64, counts: a fringe
a + b cos reads about b, or None), "threshold_counts", "valid_fraction", "status", "message",
"seconds", "warnings".
)");

  m.def("quadrants", &Quadrants, "q1"_a, "q3"_a, "q2"_a = py::none(), "q4"_a = py::none(), py::kw_only(),
        "tolerance"_a = 10.0, "wavelength"_a = py::none(),
        R"(Combines phase maps measured with the carrier lobe in quadrants 1 and 3 (or all four).

q1, q3 (and q2, q4 together): 2-D maps of one size, float (NaN = no data) or uint8/uint16;
    heights in nanometres, or phase in radians of `wavelength` nanometres.
tolerance: astigmatism PV (nm) of the Q1 + Q3 result from which four quadrants are required.
wavelength: nanometres, when the maps hold phase in radians; None: the maps hold heights in nm.

Returns a dict: "final" (float64 map, (Q1 + Q3) / 2 or the mean of four, NaN = no data),
"calibration" ((Q1 - Q3) / 2, or Q2 - final for four), "quadrants", "astigmatism_pv_nm" (of the
Q1 + Q3 result; None with "astigmatism_pv_reason" when it cannot be fitted),
"four_quadrants_required", "four_quadrant_pv_nm" (four maps), "valid_fraction", "status",
"message".
)");

  m.def("film", &Film, "scan"_a, py::kw_only(), "stack"_a, "scan_step_nm"_a, "search"_a = "fast",
        "min_modulation"_a = 5.0, "correlation_threshold"_a = 0.0, "reverse"_a = false,
        "max_value"_a = py::none(), "threads"_a = py::none(), "name"_a = py::none(),
        R"(Film thickness and height from a white-light scan of a transparent film.

Each pixel's scan is matched against the model library of the film stack (generated for this
scan's sampling: a library of the next multiple of 4 frames of scan_step_nm).

scan: uint8 or uint16 array (frames, rows, columns), at least 8 frames, frame k taken at scan
    position k x scan_step_nm (reverse=True: at (frames - k) x scan_step_nm).
stack: the film-stack description (the STACK.json of `qphase film`): JSON text, a dict, or the
    path of the file (str or os.PathLike).
scan_step_nm: distance the scan moves between frames, nanometres (required, > 0).
search: "linear" (every library signal), "fast" (coarse to fine) or "magonly".
min_modulation: percent of each pixel's mean level its fringes must reach.
correlation_threshold: pixels whose merit is below this (-1 .. 1) get no result.
max_value, threads, name: as for psi (a pixel with a sample at max_value has no result).

The defaults are those of `qphase film`; with the same options the maps equal the tool's.

Returns a dict: "height" (float64, nanometres along the scan of the zero-height layer's top, NaN =
no result), "thickness" (variable 1 at the best match: nanometres for a thickness), "variable2"
(variable 2, all NaN for a one-dimensional library), "merit" (normalised correlation with the
matched signal, 0 .. 1), "variable1" (its kind, e.g. "Thickness"), "variable1_unit" ("nm" or ""),
"mean_variable1" (over the valid pixels), "variable2_kind" ("Undefined" when not varied),
"signals" (library signals), "frames", "valid_fraction", "status", "message", "max_value",
"seconds" (the search), "warnings".
Raises ValueError for a bad film stack (in the tool's words, naming the file), a scan of fewer
than 8 frames or bad option values; TypeError for samples other than uint8/uint16.

    r = quarn.film(scan, stack="stack.json", scan_step_nm=80.0)
    thickness_nm = r["thickness"]
)");

  m.def("spot", &Spot, "image"_a, py::kw_only(), "center"_a, "radius"_a, "obscuration"_a,
        "restrict"_a = "full", "saturation"_a = py::none(), "max_saturated"_a = 32, "name"_a = py::none(),
        R"(Finds the alignment spot relative to a reticle centre.

image: uint8 or uint16 array (rows, columns).
center: (x, y), column and row of the reticle centre in pixels (0, 0 = top-left pixel).
radius: half-width in pixels of the square searched around the centre.
obscuration: radius in pixels of the central obscuration (not searched).
restrict: "full", "13" (right-up and left-down) or "24" (left-up and right-down).
saturation: counts at which a pixel is saturated (None: 250 for uint8, 64250 for uint16).
max_saturated: saturated pixels tolerated before the spot is refused as clipped.

Returns a dict: "position" ("Quadrant1" .. "Quadrant4", "SpotBehindObscuration",
"NoSignificantSpot", "TooManySignificantSpots", "TooManySaturatedPixels"), "position_code",
"explanation", "saturation", "spots" (one dict per spot: centre of mass x, y, sigma x, y, bounding
box x0..x1, y0..y1, size in pixels, sum in counts), "properties" (every result property as text),
"status" ("no result" when the detection failed, with "message").
)");
}
