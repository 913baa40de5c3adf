#include "Psi/ConverterGenerator.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "Analysis/Core/SampleDispatch.h"
#include "Analysis/Core/Units.h"
#include "Psi/Convert13.h"
#include "Psi/Convert20.h"
#include "Psi/Convert7.h"
#include "Psi/ConvertSliding13.h"
#include "Psi/detail/PsiBlockKernel.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Psi {

using Analysis::Core::Array;
using Analysis::Core::DataMatrix2D;
using Analysis::Core::DispatchSampleType;
using Analysis::Core::DoubleMatrix2D;
using Analysis::Core::FrameBuffer;
using Analysis::Core::SampleTag;
using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

namespace {
constexpr const char* kSource = "Psi\\ConverterGenerator";
constexpr double kNoData = Analysis::Core::kNoDataDouble;

}  // namespace

// The one place where the class of the converter is asked, once per run after its `Initialize`:
// the block kernel that computes its quadrature (the sliding kernel runs on its weights; a
// converter the generator does not know always takes the per-pixel path) and how many samples it
// reads per pixel (0 when unknown).
ConverterGenerator::ConverterClass ConverterGenerator::Classify(const Converter& converter) {
  if (dynamic_cast<const Convert7*>(&converter)) return {Kernel::kSeven, false, Convert7::kFrames};
  if (dynamic_cast<const Convert13*>(&converter)) return {Kernel::kThirteen, false, Convert13::kFrames};
  if (dynamic_cast<const Convert20*>(&converter)) return {Kernel::kTwenty, false, Convert20::kFrames};
  if (const auto* sliding = dynamic_cast<const ConvertSliding13*>(&converter))
    return {Kernel::kWeights, true, sliding->GetNumberOfFrames()};
  return {Kernel::kConverter, false, 0};
}

ConverterGenerator::ConverterGenerator() : dispatcher_(this, nullptr, -1, 0), status_(__LINE__, kSource) {}

ConverterGenerator::ConverterGenerator(const ConverterGenerator& other)
    : converter_(other.converter_),
      minimumModulation_(other.minimumModulation_),
      estimateMagnitude_(other.estimateMagnitude_),
      allowMultiThreads_(other.allowMultiThreads_),
      phaseSign_(other.phaseSign_),
      dispatcher_(other.dispatcher_),
      status_(other.status_),
      useFastPath_(other.useFastPath_) {
  dispatcher_.SetObject(this);
}

ConverterGenerator& ConverterGenerator::operator=(const ConverterGenerator& other) {
  if (this == &other) return *this;
  converter_ = other.converter_;
  minimumModulation_ = other.minimumModulation_;
  estimateMagnitude_ = other.estimateMagnitude_;
  allowMultiThreads_ = other.allowMultiThreads_;
  phaseSign_ = other.phaseSign_;
  dispatcher_ = other.dispatcher_;
  dispatcher_.SetObject(this);
  status_ = other.status_;
  useFastPath_ = other.useFastPath_;
  return *this;
}

ConverterGenerator::~ConverterGenerator() = default;

void ConverterGenerator::Process(FrameBuffer& frames, DoubleMatrix2D& phase) {
  Process(frames, phase, nullptr, nullptr);
}

void ConverterGenerator::Process(FrameBuffer& frames, DoubleMatrix2D& phase, DoubleMatrix2D* modulation) {
  Process(frames, phase, modulation, nullptr);
}

bool ConverterGenerator::Fail(unsigned code, unsigned line, const std::string& message) {
  status_ = Status(0, code, line, kSource, message);
  return false;
}

bool ConverterGenerator::CheckFrameWeights(const Array<double>& frameWeights) {
  if (frameWeights.Size() < numberOfFrames_) {
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__,
                "Got " + std::to_string(frameWeights.Size()) + " frame weights for " +
                    std::to_string(numberOfFrames_) + " frames");
  }
  for (int i = 0; i < numberOfFrames_; ++i) {
    if (!(std::isfinite(frameWeights[i]) && frameWeights[i] > 0.0)) {
      return Fail(StatusCode::kArgumentOutOfRange, __LINE__,
                  "Frame weight " + std::to_string(i) + " is not a positive number");
    }
  }
  if (!converter_->GetNumerator() || !converter_->GetDenominator()) {
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "The converter has no weights to re-weight");
  }
  return true;
}

bool ConverterGenerator::CheckInputs(const FrameBuffer& frames, const DoubleMatrix2D& phase,
                                     const DoubleMatrix2D* modulation, const Array<double>* frameWeights,
                                     const ConverterClass& converterClass) {
  if (!converter_) return Fail(StatusCode::kNotSet, __LINE__, "No converter has been set (SetAlgorithm)");
  const int pixels = frames.GetPixelCount();
  if (phase.GetCount() < pixels) {
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__,
                "The phase map holds " + std::to_string(phase.GetCount()) + " elements, the frame window " +
                    std::to_string(pixels) + " pixels");
  }
  if (modulation && modulation->GetCount() < pixels) {
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__,
                "The modulation map holds " + std::to_string(modulation->GetCount()) +
                    " elements, the frame window " + std::to_string(pixels) + " pixels");
  }
  if (frames.IsRing()) {
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__,
                "Phase-shifted frames must all be stored (not a ring)");
  }
  // What the converter reads per pixel must be in the scratch: its kernel may not be longer than the
  // stack, and re-weighting needs a weight of the converter for every frame.
  const int framesRead = converterClass.framesRead;
  const bool sliding = converterClass.sliding;
  // A sliding kernel that knows no frame count after Initialize with enough frames could not get
  // the memory for its weights.
  if (sliding && framesRead == 0 && numberOfFrames_ >= Convert13::kFrames) {
    return Fail(StatusCode::kCallFailed, __LINE__, "Call to converter.Initialize failed");
  }
  if ((sliding && framesRead == 0) || framesRead > numberOfFrames_ ||
      (frameWeights && framesRead > 0 && framesRead != numberOfFrames_)) {
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__,
                "The converter needs " + std::string(sliding ? "at least " : "") +
                    std::to_string(framesRead > 0 && !sliding ? framesRead : Convert13::kFrames) +
                    " frames, the frame buffer holds " + std::to_string(numberOfFrames_));
  }
  if (frameWeights && !CheckFrameWeights(*frameWeights)) return false;
  const double unitFactor = phase.GetUnitManager().GetSlopeToBaseUnit(Analysis::Core::Units::kRadians);
  if (!(std::isfinite(unitFactor) && unitFactor != 0.0)) {
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__, "The phase map's unit cannot express a phase");
  }
  // A sign of 0 would turn every phase into 0 while the pixels still look valid.
  if (phaseSign_ == 0) {
    return Fail(StatusCode::kArgumentOutOfRange, __LINE__,
                "The phase sign is 0 (SetPhaseSign takes 1 or -1)");
  }
  return true;
}

void ConverterGenerator::Process(FrameBuffer& frames, DoubleMatrix2D& phase, DoubleMatrix2D* modulation,
                                 Array<double>* frameWeights) {
  frameBuffer_ = &frames;
  phaseData_ = &phase.GetInternalMat();
  modulationData_ = modulation ? &modulation->GetInternalMat() : nullptr;
  numberOfPixels_ = frames.GetPixelCount();
  numberOfFrames_ = frames.GetNumberOfFrames();
  saturationLevel_ = frames.GetMaxValue();
  phaseScale_ = phase.GetUnitManager().GetSlopeToBaseUnit(Analysis::Core::Units::kRadians) * phaseSign_;

  weighted_ = frameWeights != nullptr;
  if (converter_) converter_->Initialize(numberOfFrames_);
  const ConverterClass converterClass = converter_ ? Classify(*converter_) : ConverterClass{};
  if (!CheckInputs(frames, phase, modulation, frameWeights, converterClass)) return;

  modulationScale_ = converter_->GetModulationScale();
  const double m = saturationLevel_ * minimumModulation_ * modulationScale_;
  modulationThreshold_ = estimateMagnitude_ ? m * estimateFactor_ : m * m;

  numeratorWeights_ = converter_->GetNumerator();
  denominatorWeights_ = converter_->GetDenominator();
  if (weighted_ && !ReweightFrames(*frameWeights)) return;
  // The kernel is chosen once per run; re-weighted frames run on their weights.
  kernel_ = weighted_ ? Kernel::kWeights : converterClass.kernel;

  if (!allowMultiThreads_) {
    ConvertPixels(0, 0, numberOfPixels_);
  } else {
    // The per-pixel path gathers each pixel's samples into its worker's scratch; without scratch
    // for every worker it would write past it, so a failed allocation ends the run.
    const Status threadData = frames.MakeThreadData(dispatcher_.GetNumberOfWorkers());
    if (RecordCallFailure(status_, threadData, "frames.MakeThreadData", kSource, __LINE__)) return;
    dispatcher_.Invoke(&ConverterGenerator::ConvertPixels, 0, numberOfPixels_);
  }

  // Only the pixels of this run count: a map larger than the frame window may hold valid values of an
  // earlier run beyond it.
  const double* written = phaseData_->Data();
  if (std::none_of(written, written + numberOfPixels_, [](double v) { return v < kNoData; })) {
    status_ = Status(0, StatusCode::kNoValidResult, __LINE__, kSource, "");
  }
}

// The converter's weights scaled frame by frame by mean weight / frame weight, so that a frame
// weighted down (a brighter one, say) counts less while the modulation keeps its scale.
bool ConverterGenerator::ReweightFrames(const Array<double>& frameWeights) {
  double sum = 0.0;
  for (int i = 0; i < numberOfFrames_; ++i)
    sum += frameWeights[i];
  const double mean = sum / numberOfFrames_;
  QUARN_RETURN_IF_CALL_FAILED(weightedNumerator_.Resize(numberOfFrames_), status_, kSource,
                              weightedNumerator_, "weightedNumerator.Resize", false);
  QUARN_RETURN_IF_CALL_FAILED(weightedDenominator_.Resize(numberOfFrames_), status_, kSource,
                              weightedDenominator_, "weightedDenominator.Resize", false);
  for (int i = 0; i < numberOfFrames_; ++i) {
    const double factor = mean / frameWeights[i];
    weightedNumerator_[i] = factor * numeratorWeights_[i];
    weightedDenominator_[i] = factor * denominatorWeights_[i];
  }
  numeratorWeights_ = weightedNumerator_.Data();
  denominatorWeights_ = weightedDenominator_.Data();
  return true;
}

void ConverterGenerator::ConvertPixels(int thread, int first, int end) {
  DispatchSampleType(*frameBuffer_, [&]<typename Stored>(SampleTag<Stored>) {
    if (useFastPath_ && kernel_ != Kernel::kConverter) {
      ConvertPixelsFast<Stored>(first, end);
    } else {
      // Converters take 8-bit samples as bytes and wider ones as int.
      using Sample = std::conditional_t<sizeof(Stored) == 1, unsigned char, int>;
      ConvertPixelsReference<Stored, Sample>(thread, first, end);
    }
  });
}

// The plain per-pixel path: gather, test, convert, one pixel at a time.
template <typename Stored, typename Sample>
void ConverterGenerator::ConvertPixelsReference(int thread, int first, int end) {
  double* phase = phaseData_->Data();
  double* modulation = modulationData_ ? modulationData_->Data() : nullptr;
  const double sign = converter_->GetPhaseSign();
  for (int p = first; p < end; ++p) {
    const Sample* samples = frameBuffer_->ExtractIndexAs<Stored, Sample>(thread, p);
    bool valid = true;
    for (int k = 0; k < numberOfFrames_; ++k) {
      if (static_cast<int>(samples[k]) >= saturationLevel_) {
        valid = false;
        break;
      }
    }
    double n = 0.0, d = 0.0, magnitude = 0.0;
    if (valid) {
      if (weighted_) {
        for (int k = 0; k < numberOfFrames_; ++k) {
          n += static_cast<double>(samples[k]) * numeratorWeights_[k];
          d += static_cast<double>(samples[k]) * denominatorWeights_[k];
        }
        n *= sign;
      } else {
        converter_->Convert(n, d, samples);
      }
      magnitude = estimateMagnitude_ ? std::abs(n) + std::abs(d) : n * n + d * d;
      valid = !(magnitude < modulationThreshold_);
    }
    if (valid) {
      phase[p] = std::atan2(n, d) * phaseScale_;
      if (modulation) {
        modulation[p] = estimateMagnitude_ ? magnitude / estimateFactor_ / modulationScale_
                                           : std::sqrt(magnitude) / modulationScale_;
      }
    } else {
      phase[p] = kNoData;
      if (modulation) modulation[p] = kNoData;
    }
  }
}

// The block path: the same arithmetic over blocks of pixels read straight from the frame planes.
template <typename Stored>
void ConverterGenerator::ConvertPixelsFast(int first, int end) {
  static const detail::PsiBlockFunction convert = detail::SelectPsiBlockFunction();
  const void* planes[64];
  std::vector<const void*> manyPlanes;
  const void** planeList = planes;
  if (numberOfFrames_ > 64) {
    manyPlanes.resize(static_cast<std::size_t>(numberOfFrames_));
    planeList = manyPlanes.data();
  }
  for (int k = 0; k < numberOfFrames_; ++k)
    planeList[k] = frameBuffer_->GetFrameData(k);

  detail::PsiBlockParams params;
  params.planes = planeList;
  params.frames = numberOfFrames_;
  params.sampleBytes = static_cast<int>(sizeof(Stored));
  switch (kernel_) {
    case Kernel::kSeven:
      params.kind = detail::PsiBlockKernelKind::kSeven;
      break;
    case Kernel::kThirteen:
      params.kind = detail::PsiBlockKernelKind::kThirteen;
      break;
    case Kernel::kTwenty:
      params.kind = detail::PsiBlockKernelKind::kTwenty;
      break;
    default:
      params.kind = detail::PsiBlockKernelKind::kWeights;
      break;
  }
  params.numeratorWeights = numeratorWeights_;
  params.denominatorWeights = denominatorWeights_;
  params.numeratorSign = converter_->GetPhaseSign();
  params.applySign = true;
  params.saturationLevel = saturationLevel_;
  params.modulationThreshold = modulationThreshold_;
  params.estimateMagnitude = estimateMagnitude_;
  params.estimateFactor = estimateFactor_;
  params.modulationScale = modulationScale_;
  params.phaseScale = phaseScale_;
  params.noData = kNoData;
  params.phase = phaseData_->Data();
  params.modulation = modulationData_ ? modulationData_->Data() : nullptr;
  convert(params, first, end);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi
