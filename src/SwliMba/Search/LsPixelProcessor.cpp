#include "SwliMba/Search/LsPixelProcessor.h"

#include <Eigen/Core>

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <numbers>

#include "Analysis/Core/NoData.h"

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;
using cd = std::complex<double>;

namespace {

using ComplexMap = Eigen::Map<Eigen::Matrix<cd, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>;
using ConstComplexMap = Eigen::Map<const Eigen::Matrix<cd, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>;
using RealMap = Eigen::Map<Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>;
using ConstRealMap = Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>;
using FloatMap = Eigen::Map<Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>;
using ConstFloatMap = Eigen::Map<const Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>;

constexpr double kNoData = Analysis::Core::kNoDataDouble;
constexpr int kFastHalfWidth = LsLibrary::kCoarseStride;  // dense search ± one coarse step

template <typename T>
bool Size(std::vector<T>& v, std::size_t n, Status& status, const char* message) {
  try {
    v.assign(n, T{});
    return true;
  } catch (const std::bad_alloc&) {
    status = Status(0, StatusCode::kCallFailed, __LINE__, LsPixelProcessor::kSource, message);
    return false;
  }
}

// Parabola vertex through (-1, left), (0, centre), (1, right), within half a step.
double Vertex(double left, double centre, double right) {
  const double curvature = left - 2.0 * centre + right;
  if (!(curvature < 0.0)) return 0.0;
  return std::clamp(0.5 * (left - right) / curvature, -0.5, 0.5);
}

// a·b and a·conj(b) written out: the same arithmetic as std::complex's product for finite values,
// without the branch to the library's NaN-handling multiply in every step of the hot loops.
inline cd Mul(cd a, cd b) {
  return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}
inline cd MulConj(cd a, cd b) {
  return {a.real() * b.real() + a.imag() * b.imag(), a.imag() * b.real() - a.real() * b.imag()};
}
inline double Magnitude(cd a) {
  return std::sqrt(std::norm(a));
}

struct Interval {
  double score;
  int signal;
};

}  // namespace

bool LsPixelProcessor::Init(const LsBoard& board, int firstBin, int lastBin, int coreFirstBin,
                            int coreLastBin) {
  board_ = &board;
  const int bins = board.perfectMirrorSignal.GetNumberOfBins();
  n_ = 2 * (bins - 1);
  first_ = firstBin;
  band_ = lastBin - firstBin + 1;
  coreOffset_ = coreFirstBin - firstBin;
  coreWidth_ = coreLastBin - coreFirstBin;
  if (!signal_.Init(bins)) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Call to signal.Init failed");
    return false;
  }
  std::size_t signals = 0, coarse = 0;
  for (int l = 0; l < board.libraries.Size(); ++l) {
    signals =
        std::max<std::size_t>(signals, static_cast<std::size_t>(board.libraries.At(l).GetNumberOfSignals()));
    coarse = std::max<std::size_t>(
        coarse, static_cast<std::size_t>(board.libraries.At(l).GetNumberOfCoarseSignals()));
  }
  const std::size_t block = kBlock, w = static_cast<std::size_t>(band_);
  const bool magOnly = board.searchMode == static_cast<int>(LsSearchMode::MagOnly);
  const bool fast = board.searchMode == static_cast<int>(LsSearchMode::Fast);
  if (!Size(omega_, w, status_, "Call to fineZ.Resize failed") ||
      !Size(spectra_, block * w, status_, "Call to spectra.Resize failed") ||
      !Size(features_, block * (w - 1), status_, "Call to features.Resize failed") ||
      !Size(norms_, block, status_, "Call to estimations.Resize failed") ||
      !Size(magnitudes_, block * w, status_, "Call to magnitudes.Resize failed") ||
      !Size(modulation_, block, status_, "Call to estimated.Resize failed") ||
      !Size(libraryOf_, block, status_, "Call to intervalsOfInterest1.Resize failed") ||
      !Size(correlations_, !magOnly && !fast ? block * signals : 0, status_,
            "Call to correlations.Resize failed") ||
      !Size(merit_, magOnly ? block * signals : 0, status_, "Call to merit.Resize failed") ||
      !Size(coarseCorrelations_, fast ? block * coarse : 0, status_, "Call to coarseZ.Resize failed") ||
      !Size(coreFeatures_, fast ? block * 2 * static_cast<std::size_t>(coreWidth_) : 0, status_,
            "Call to coreFeatures.Resize failed") ||
      !Size(denseScores_, 2 * kFastHalfWidth + 1, status_, "Call to interpolatedPeaks.Resize failed") ||
      !Size(scores_, signals, status_, "Call to correlated.Resize failed"))
    return false;
  try {
    candidates_.reserve(64);
  } catch (const std::bad_alloc&) {
    status_ = Status(0, StatusCode::kCallFailed, __LINE__, kSource, "Call to candidates.Reserve failed");
    return false;
  }
  for (int k = 0; k < band_; ++k)
    omega_[static_cast<std::size_t>(k)] = 2.0 * std::numbers::pi * (first_ + k) / n_;
  scoredLibrary_ = -1;
  return true;
}

double LsPixelProcessor::LoadPixel(const double* trace, int slot) {
  const int frames = board_->frameBuffer->GetFramesStored();
  const double mean = signal_.Load(trace, frames, board_->scanDirection < 0);
  const cd* bins = signal_.FourierDomainCplx() + first_;
  cd* m = spectra_.data() + static_cast<std::size_t>(slot) * band_;
  double energy = 0.0;
  for (int k = 0; k < band_; ++k) {
    m[k] = bins[k];
    energy += std::norm(bins[k]);
  }
  norms_[static_cast<std::size_t>(slot)] = std::sqrt(energy);
  cd* d = features_.data() + static_cast<std::size_t>(slot) * (band_ - 1);
  double featureEnergy = 0.0;
  for (int k = 0; k + 1 < band_; ++k) {
    d[k] = MulConj(m[k + 1], m[k]);
    featureEnergy += std::norm(d[k]);
  }
  const double featureScale = featureEnergy > 0.0 ? 1.0 / std::sqrt(featureEnergy) : 0.0;
  for (int k = 0; k + 1 < band_; ++k)
    d[k] *= featureScale;
  if (board_->searchMode == static_cast<int>(LsSearchMode::Fast)) {
    const int core = coreWidth_;
    const cd* from = d + coreOffset_;
    double coreEnergy = 0.0;
    for (int k = 0; k < core; ++k)
      coreEnergy += std::norm(from[k]);
    const double coreScale = coreEnergy > 0.0 ? 1.0 / std::sqrt(coreEnergy) : 0.0;
    float* re = coreFeatures_.data() + static_cast<std::size_t>(slot) * 2 * core;
    for (int k = 0; k < core; ++k) {
      re[k] = static_cast<float>(from[k].real() * coreScale);
      re[core + k] = static_cast<float>(from[k].imag() * coreScale);
    }
  }
  // The normalised magnitudes are the features of the magnitude-only search alone.
  if (board_->searchMode == static_cast<int>(LsSearchMode::MagOnly)) {
    double* a = magnitudes_.data() + static_cast<std::size_t>(slot) * band_;
    const double magnitudeScale = energy > 0.0 ? 1.0 / std::sqrt(energy) : 0.0;
    for (int k = 0; k < band_; ++k)
      a[k] = Magnitude(m[k]) * magnitudeScale;
  }
  return mean;
}

void LsPixelProcessor::CandidateScores(int libraryId, int count) {
  const LsLibrary& library = board_->libraries.At(libraryId);
  const int k = band_ - 1;
  switch (static_cast<LsSearchMode>(board_->searchMode)) {
    case LsSearchMode::MagOnly: {
      const int s = library.GetNumberOfSignals();
      RealMap(merit_.data(), count, s).noalias() =
          ConstRealMap(magnitudes_.data(), count, band_) *
          ConstRealMap(library.GetMagnitudesData(), s, band_).transpose();
      break;
    }
    case LsSearchMode::Fast: {
      const int s = library.GetNumberOfCoarseSignals();
      const int core = library.GetCoreWidth();
      FloatMap(reinterpret_cast<float*>(coarseCorrelations_.data()), count, 2 * s).noalias() =
          ConstFloatMap(coreFeatures_.data(), count, 2 * core) *
          ConstFloatMap(library.GetCoarseGridData(), 2 * s, 2 * core).transpose();
      break;
    }
    default: {
      const int s = library.GetNumberOfSignals();
      ComplexMap(correlations_.data(), count, s).noalias() =
          ConstComplexMap(features_.data(), count, k) *
          ConstComplexMap(library.GetFeaturesConjData(), s, k).transpose();
      break;
    }
  }
  scoredLibrary_ = libraryId;
  blockCount_ = count;
}

void LsPixelProcessor::Candidates(int slot, const LsLibrary& library, std::vector<int>& out,
                                  double& confidence) {
  const int signals = library.GetNumberOfSignals();
  const int stride = library.GetStride();
  const LsSearchMode mode = static_cast<LsSearchMode>(board_->searchMode);
  const bool fast = mode == LsSearchMode::Fast;
  // Scores along the grid searched first: every signal, or the coarse grid of the fast search
  // (where the neighbour along variable 1 is `stride` entries away as well).
  const int count = fast ? library.GetNumberOfCoarseSignals() : signals;
  // The scores once. For the complex modes the local maxima are found on the squared magnitudes
  // (the same order, without a square root per signal), and only the maxima's are rooted.
  double* scores = scores_.data();
  const std::size_t at = static_cast<std::size_t>(slot) * count;
  const bool squared = mode != LsSearchMode::MagOnly;
  if (!squared) {
    std::copy(merit_.data() + at, merit_.data() + at + count, scores);
  } else if (fast) {
    const std::complex<float>* values = coarseCorrelations_.data() + at;
    for (int i = 0; i < count; ++i)
      scores[i] = static_cast<double>(std::norm(values[i]));
  } else {
    const cd* values = correlations_.data() + at;
    for (int i = 0; i < count; ++i)
      scores[i] = std::norm(values[i]);
  }
  auto score = [scores](int i) { return scores[i]; };

  Interval intervals[64];
  int found = 0;
  int best = -1;
  double bestScore = -std::numeric_limits<double>::infinity();
  for (int i = 0; i < count; ++i) {
    double v = score(i);
    const double left = i - stride >= 0 ? score(i - stride) : -std::numeric_limits<double>::infinity();
    const double right = i + stride < count ? score(i + stride) : -std::numeric_limits<double>::infinity();
    if (!(v >= left && v > right)) continue;
    if (squared) v = std::sqrt(v);
    if (v > bestScore) {
      bestScore = v;
      best = found < 64 ? found : 63;
    }
    if (found < 64) {
      intervals[found++] = {v, i};
    } else if (v > intervals[63].score) {
      intervals[63] = {v, i};
    }
  }
  out.clear();
  confidence = 0.0;
  if (best < 0) return;
  std::swap(intervals[0], intervals[best]);
  std::stable_sort(intervals + 1, intervals + found,
                   [](const Interval& a, const Interval& b) { return a.score > b.score; });
  const double second = found > 1 ? intervals[1].score : 0.0;
  confidence = bestScore > 0.0 ? std::clamp((bestScore - second) / bestScore, 0.0, 1.0) : 0.0;

  const int cap = board_->useAggressiveExclusion ? 2 : 6;
  const double bound = board_->intervalConsiderationFactor * (1.0 - bestScore);
  for (int c = 0; c < found && static_cast<int>(out.size()) < cap; ++c) {
    if (c > 0 && !board_->useFullCorrelation && 1.0 - intervals[c].score > bound) break;
    int signal = fast ? library.GetCoarseSignal(intervals[c].signal) : intervals[c].signal;
    if (fast) {
      // Dense search of variable 1 within one coarse step either side, at the same variable 2.
      const cd* d = features_.data() + static_cast<std::size_t>(slot) * (band_ - 1);
      double top = -1.0;
      const int centre = signal;
      for (int o = -kFastHalfWidth; o <= kFastHalfWidth; ++o) {
        const int s = centre + o * stride;
        if (s < 0 || s >= signals) continue;
        const cd* l = library.GetFeaturesConj(s);
        cd sum = 0.0;
        for (int k = 0; k + 1 < band_; ++k)
          sum += Mul(d[k], l[k]);
        const double v = std::norm(sum);  // the same order as the magnitude
        if (v > top) {
          top = v;
          signal = s;
        }
      }
    }
    out.push_back(signal);
  }
}

double LsPixelProcessor::StartHeight(int slot, const LsLibrary& library, int signal) const {
  const cd* m = spectra_.data() + static_cast<std::size_t>(slot) * band_;
  const cd* l = library.GetBand(signal);
  // Phase step from one bin to the next of M conj(L): exp(-i 2π h / N).
  cd sum = 0.0;
  cd previous = MulConj(m[0], l[0]);
  for (int k = 1; k < band_; ++k) {
    const cd p = MulConj(m[k], l[k]);
    sum += MulConj(p, previous);
    previous = p;
  }
  return -std::arg(sum) * n_ / (2.0 * std::numbers::pi);
}

LsPixelProcessor::Fit LsPixelProcessor::FullFit(int slot, const LsLibrary& library, int signal, double h0,
                                                bool onFringe) const {
  const cd* m = spectra_.data() + static_cast<std::size_t>(slot) * band_;
  const cd* l = library.GetBand(signal);
  const double norm = norms_[static_cast<std::size_t>(slot)] * library.GetBandNorm(signal);
  Fit fit;
  if (!(norm > 0.0)) return fit;
  // A trivially constructible pair, so that the 8 KB scratch is not zeroed on every call (a
  // std::complex array would be, and that cost a quarter of the fit).
  struct Pair {
    double re, im;
  };
  Pair p[512];
  const int w = std::min(band_, 512);
  double weight = 0.0, centroid = 0.0;
  for (int k = 0; k < w; ++k) {
    const cd product = MulConj(m[k], l[k]);
    p[k] = {product.real(), product.imag()};
    const double a = Magnitude(product);
    weight += a;
    centroid += a * omega_[static_cast<std::size_t>(k)];
  }
  if (!(weight > 0.0)) return fit;
  centroid /= weight;
  const double step = 2.0 * std::numbers::pi / n_;
  // C(h) and its first two derivatives in h, by a rotation recurrence over the band.
  auto evaluate = [&](double h, cd& c0, cd& c1, cd& c2) {
    cd e = std::polar(1.0, omega_[0] * h);
    const cd rotation = std::polar(1.0, step * h);
    c0 = c1 = c2 = 0.0;
    for (int k = 0; k < w; ++k) {
      const cd t = Mul(cd(p[k].re, p[k].im), e);
      const double om = omega_[static_cast<std::size_t>(k)];
      c0 += t;
      c1 += om * t;
      c2 += om * om * t;
      e = Mul(e, rotation);
    }
  };
  cd c0, c1, c2;
  // Newton steps on Re C(h). Re C is near a cosine about its peak, so each step cubes the error
  // (from 0.1 frame to 1e-4 to 1e-12); the value where the last step lands comes from the local
  // parabola, Re C + slope·Δ + curvature·Δ²/2 = Re C + slope·Δ/2, exact to the cube of a step
  // that is by then a small fraction of a frame, so no evaluation is spent on it.
  auto newton = [&](double h, int steps, double& value) {
    for (int it = 0; it < steps; ++it) {
      evaluate(h, c0, c1, c2);
      const double slope = -c1.imag(), curvature = -c2.real();
      value = c0.real();
      if (!(curvature < 0.0)) break;
      const double delta = -slope / curvature;
      h += delta;
      value += 0.5 * slope * delta;
    }
    return h;
  };
  if (!onFringe) {
    evaluate(h0, c0, c1, c2);
    h0 -= std::arg(c0) / centroid;
  }
  // On the fringe of a neighbouring signal the start is within a few hundredths of a frame, and
  // one step leaves well below 1e-4 frame.
  double bestValue = 0.0;
  fit.height = newton(h0, onFringe ? 1 : 2, bestValue);
  if (!onFringe) {
    // The neighbouring fringe orders: the one of largest Re C is the least-squares height.
    const double fringe = 2.0 * std::numbers::pi / centroid;
    for (int order : {-1, 1}) {
      evaluate(fit.height + order * fringe, c0, c1, c2);
      if (c0.real() <= bestValue) continue;
      double value = 0.0;
      const double h = newton(fit.height + order * fringe, 2, value);
      if (value > bestValue) {
        bestValue = value;
        fit.height = h;
      }
    }
  }
  fit.merit = bestValue / norm;
  return fit;
}

LsPixelProcessor::Result LsPixelProcessor::Refine(int slot, const LsLibrary& library, int signal) const {
  const int signals = library.GetNumberOfSignals();
  const int stride = library.GetStride();
  Result result;
  result.signal = signal;
  double fraction = 0.0;
  if (board_->searchMode == static_cast<int>(LsSearchMode::MagOnly)) {
    const double* row = merit_.data() + static_cast<std::size_t>(slot) * signals;
    result.merit = row[signal];
    if (signal - stride >= 0 && signal + stride < signals)
      fraction = Vertex(row[signal - stride], row[signal], row[signal + stride]);
    result.height = StartHeight(slot, library, signal);
  } else {
    Fit centre = FullFit(slot, library, signal, StartHeight(slot, library, signal), false);
    Fit left, right;
    bool hasLeft = false, hasRight = false;
    // Climb along variable 1 to the signal of highest merit (the candidate stage's best and the
    // fit's best can differ by a step or two).
    for (int move = 0; move < 8; ++move) {
      hasLeft = signal - stride >= 0;
      hasRight = signal + stride < signals;
      if (hasLeft) left = FullFit(slot, library, signal - stride, centre.height, true);
      if (hasRight) right = FullFit(slot, library, signal + stride, centre.height, true);
      if (hasLeft && left.merit > centre.merit && (!hasRight || left.merit >= right.merit)) {
        signal -= stride;
        centre = left;
      } else if (hasRight && right.merit > centre.merit) {
        signal += stride;
        centre = right;
      } else {
        break;
      }
    }
    result.signal = signal;
    result.merit = centre.merit;
    result.height = centre.height;
    if (hasLeft && hasRight) {
      fraction = Vertex(left.merit, centre.merit, right.merit);
      const Fit& toward = fraction > 0.0 ? right : left;
      result.height = centre.height + std::abs(fraction) * (toward.height - centre.height);
      // The merit at the vertex of the parabola.
      const double curvature = left.merit - 2.0 * centre.merit + right.merit;
      result.merit =
          centre.merit + 0.5 * (right.merit - left.merit) * fraction + 0.5 * curvature * fraction * fraction;
    }
  }
  result.merit = std::clamp(result.merit, 0.0, 1.0);
  result.thickness = library.GetA() + library.GetB() * (signal / stride + fraction);
  return result;
}

double LsPixelProcessor::LoadSinglePixel(int row, int column) {
  return LoadPixel(
      board_->frameBuffer->ExtractIndex<double>(0, row * board_->frameBuffer->GetColumns() + column), 0);
}

LsSignalProcessor* LsPixelProcessor::GetSignalProcessor() {
  if (signalProcessor_.GetNumberOfSamples() != n_ && !signalProcessor_.Init(n_)) {
    status_ = signalProcessor_.GetStatus();
    return nullptr;
  }
  return &signalProcessor_;
}

void LsPixelProcessor::ScoreAllSignals(int libraryId, double* out) const {
  const LsLibrary& library = board_->libraries.At(libraryId);
  const cd* d = features_.data();
  for (int s = 0; s < library.GetNumberOfSignals(); ++s) {
    const cd* l = library.GetFeaturesConj(s);
    cd sum = 0.0;
    for (int k = 0; k + 1 < band_; ++k)
      sum += Mul(d[k], l[k]);
    out[s] = Magnitude(sum);
  }
}

LsPixelProcessor::SignalFit LsPixelProcessor::FitSignal(int libraryId, int signal) const {
  const LsLibrary& library = board_->libraries.At(libraryId);
  const Fit fit = FullFit(0, library, signal, StartHeight(0, library, signal), false);
  SignalFit result;
  result.merit = fit.merit;
  result.height = fit.height;
  // Re C(h) = G |L|² at the least-squares gain, and merit = Re C(h) / (|M| |L|).
  const double norm = library.GetBandNorm(signal);
  result.gain = norm > 0.0 ? fit.merit * norms_[0] / norm : 0.0;
  return result;
}

LsPixelProcessor::Result LsPixelProcessor::MatchLibrary(int slot, int libraryId) {
  const LsLibrary& library = board_->libraries.At(libraryId);
  double confidence = 0.0;
  Candidates(slot, library, candidates_, confidence);
  Result best;
  best.merit = -1.0;
  for (int signal : candidates_) {
    Result r = Refine(slot, library, signal);
    if (r.merit > best.merit) best = r;
  }
  best.confidence = confidence;
  best.library = libraryId;
  return best;
}

void LsPixelProcessor::ProcessRow(int thread, int row, int colFirst, int colEnd, bool modulationOnly) {
  const LsBoard& board = *board_;
  const Analysis::Core::FrameBuffer& frames = *board.frameBuffer;
  const int columns = frames.GetColumns();
  const int framesStored = frames.GetFramesStored();
  const double saturation = frames.GetMaxValue();
  auto put = [row](Analysis::Core::DoubleMatrix2D* map, int col, double value) {
    if (map) (*map)(row, col) = value;
  };
  int columnOf[kBlock];
  for (int c0 = colFirst; c0 < colEnd; c0 += kBlock) {
    const int c1 = std::min(colEnd, c0 + kBlock);
    int count = 0;
    for (int col = c0; col < c1; ++col) {
      const int pixel = row * columns + col;
      const double* trace = board_->frameBuffer->ExtractIndex<double>(thread, pixel);
      double mean = 0.0, low = trace[0], high = trace[0];
      for (int j = 0; j < framesStored; ++j) {
        mean += trace[j];
        low = std::min(low, trace[j]);
        high = std::max(high, trace[j]);
      }
      mean /= framesStored;
      // A sample at the camera's saturation level means the fringes were clipped: the trace no
      // longer has the shape of any modelled signal, and its contrast is not the fringes' either.
      if (high >= saturation) {
        for (auto* map : {board.heightMap, board.thicknessMap, board.metricMap, board.confidenceMap,
                          board.modulationMap, board.bestLibraryIdMap, board.bestSignalIdMap})
          put(map, col, kNoData);
        continue;
      }
      const double modulation = mean > 0.0 ? 100.0 * std::max(high - mean, mean - low) / mean : 0.0;
      put(board.modulationMap, col, modulation);
      if (modulationOnly) continue;
      Status failure;
      const int libraryId = board.LibraryOfPixel(row, col, failure);
      if (libraryId == LsBoard::kLookupFailed) throw failure;
      if (libraryId == LsBoard::kNoLibrary || modulation < board.modulationThreshold) {
        for (auto* map : {board.heightMap, board.thicknessMap, board.metricMap, board.confidenceMap,
                          board.bestLibraryIdMap, board.bestSignalIdMap})
          put(map, col, kNoData);
        continue;
      }
      LoadPixel(trace, count);
      libraryOf_[static_cast<std::size_t>(count)] = libraryId;
      columnOf[count++] = col;
    }
    if (modulationOnly || count == 0) continue;

    Result results[kBlock];
    for (int s = 0; s < count; ++s)
      results[s].merit = -1.0;
    for (int l = 0; l < board.libraries.Size(); ++l) {
      if (board.libraries.At(l).GetNumberOfSignals() == 0) continue;
      bool needed = false;
      for (int s = 0; s < count && !needed; ++s)
        needed = libraryOf_[static_cast<std::size_t>(s)] == LsBoard::kAllLibraries ||
                 libraryOf_[static_cast<std::size_t>(s)] == l;
      if (!needed) continue;
      CandidateScores(l, count);
      for (int s = 0; s < count; ++s) {
        const int wanted = libraryOf_[static_cast<std::size_t>(s)];
        if (wanted != LsBoard::kAllLibraries && wanted != l) continue;
        const Result r = MatchLibrary(s, l);
        if (r.merit > results[s].merit) results[s] = r;
      }
    }
    for (int s = 0; s < count; ++s) {
      const int col = columnOf[s];
      const Result& r = results[s];
      const bool valid = r.signal >= 0 && r.merit >= board.correlationThreshold;
      put(board.heightMap, col, valid ? r.height : kNoData);
      put(board.thicknessMap, col, valid ? r.thickness : kNoData);
      put(board.metricMap, col, valid ? r.merit : kNoData);
      put(board.confidenceMap, col, valid ? r.confidence : kNoData);
      put(board.bestLibraryIdMap, col, valid ? r.library : kNoData);
      put(board.bestSignalIdMap, col, valid ? r.signal : kNoData);
    }
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::Search
