#include "SwliMba/LibGen/LgSignalSynthesizer.h"

#include <algorithm>
#include <cmath>

#include <Eigen/Core>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen {

using Analysis::Core::Status;
namespace StatusCode = Analysis::Core::StatusCode;

struct LgSignalSynthesizer::Matrices {
  Eigen::MatrixXd trig;          // N × 2P: cos(q ζ_j) then −sin(q ζ_j) (plain path)
  Eigen::MatrixXd transform;     // 2B × 2P: the valid bins' real parts, then their imaginary parts
  Eigen::MatrixXd coefficients;  // 2P × M block
  Eigen::MatrixXd bins;          // 2B × M block
};

LgSignalSynthesizer::LgSignalSynthesizer() : matrices_(std::make_unique<Matrices>()) {}

LgSignalSynthesizer::~LgSignalSynthesizer() = default;

bool LgSignalSynthesizer::Prepare(int samples, double stepUm, const std::vector<double>& q, int firstBin,
                                  int lastBin, Status& status) {
  samples_ = samples;
  nodes_ = static_cast<int>(q.size());
  firstBin_ = firstBin;
  lastBin_ = lastBin;
  if (!fft_.Resize(samples)) {
    status = fft_.GetStatus();
    return false;
  }
  try {
    matrices_->trig.resize(samples, 2 * nodes_);
    matrices_->transform.resize(2 * (lastBin - firstBin + 1), 2 * nodes_);
  } catch (const std::bad_alloc&) {
    status = Status(0, StatusCode::kAllocationFailed, __LINE__, "SwliMba\\LibGen\\LibraryGenerator", "");
    return false;
  }
  for (int p = 0; p < nodes_; ++p) {
    for (int j = 0; j < samples; ++j) {
      const double zeta = (j - samples / 2) * stepUm;
      const double phase = q[p] * zeta;
      matrices_->trig(j, p) = std::cos(phase);
      matrices_->trig(j, nodes_ + p) = -std::sin(phase);
    }
  }
  // The signal of one node with c = 1 is cos θ_j, with c = −i it is sin θ_j; the transform rows are
  // the bins of those two signals (X = Re c · DFT(cos θ) − Im c · DFT(sin θ)).
  const int valid = lastBin - firstBin + 1;
  for (int p = 0; p < nodes_; ++p) {
    for (int part = 0; part < 2; ++part) {
      for (int j = 0; j < samples; ++j)
        fft_.Input()[j] = part == 0 ? matrices_->trig(j, p) : -matrices_->trig(j, nodes_ + p);
      fft_.Forward();
      const double sign = part == 0 ? 1.0 : -1.0;
      for (int b = 0; b < valid; ++b) {
        matrices_->transform(b, part * nodes_ + p) = sign * fft_.Output()[firstBin + b].real();
        matrices_->transform(valid + b, part * nodes_ + p) = sign * fft_.Output()[firstBin + b].imag();
      }
    }
  }
  return true;
}

void LgSignalSynthesizer::Transform(const double* samples, std::complex<double>* spectrum) {
  std::copy(samples, samples + samples_, fft_.Input());
  fft_.Forward();
  std::copy(fft_.Output(), fft_.Output() + NumberOfBins(), spectrum);
}

void LgSignalSynthesizer::Synthesize(const std::complex<double>* coefficients, int count,
                                     std::complex<double>* spectra) {
  Matrices& m = *matrices_;
  m.coefficients.resize(2 * nodes_, count);
  for (int c = 0; c < count; ++c) {
    const std::complex<double>* in = coefficients + static_cast<std::size_t>(c) * nodes_;
    double* column = m.coefficients.col(c).data();
    for (int p = 0; p < nodes_; ++p) {
      column[p] = in[p].real();
      column[nodes_ + p] = in[p].imag();
    }
  }
  const int valid = lastBin_ - firstBin_ + 1;
  m.bins.resize(2 * valid, count);
  m.bins.noalias() = m.transform * m.coefficients;
  for (int c = 0; c < count; ++c) {
    const double* column = m.bins.col(c).data();
    std::complex<double>* out = spectra + static_cast<std::size_t>(c) * NumberOfBins();
    std::fill(out, out + NumberOfBins(), std::complex<double>());
    for (int b = 0; b < valid; ++b)
      out[firstBin_ + b] = {column[b], column[valid + b]};
  }
}

void LgSignalSynthesizer::SynthesizeReference(const std::complex<double>* coefficients, int count,
                                              std::complex<double>* spectra, double* samples) {
  const Matrices& m = *matrices_;
  std::vector<double> signal(samples_);
  for (int c = 0; c < count; ++c) {
    const std::complex<double>* in = coefficients + static_cast<std::size_t>(c) * nodes_;
    for (int j = 0; j < samples_; ++j) {
      double sum = 0.0;
      for (int p = 0; p < nodes_; ++p)
        sum += in[p].real() * m.trig(j, p) + in[p].imag() * m.trig(j, nodes_ + p);
      signal[j] = sum;
    }
    Transform(signal.data(), spectra + static_cast<std::size_t>(c) * NumberOfBins());
    if (samples != nullptr)
      std::copy(signal.begin(), signal.end(), samples + static_cast<std::size_t>(c) * samples_);
  }
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibGen
