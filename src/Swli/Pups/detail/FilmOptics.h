#pragma once

#include <complex>

namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups::detail {

// Thin-film optics shared by FilmStack and the library generator. Time dependence exp(−iωt), so a
// wave travelling down a layer gains exp(+i k N cosθ z) and κ ≥ 0 absorbs. Media are numbered 0
// (ambient), 1 .. L (the layers, top to bottom) and L + 1 (substrate).

// The normal component w = N cosθ of the wave vector (in units of the vacuum wavenumber) in a
// medium of index N, for the conserved tangential component u = N0 sinβ (Snell's law). Of the two
// roots of w² = N² − u² the one that decays or propagates downwards: Im w > 0, or Im w = 0 and
// Re w ≥ 0 (also past the critical angle, where w is then purely imaginary).
inline std::complex<double> NormalComponent(std::complex<double> index, std::complex<double> tangential) {
  std::complex<double> w = std::sqrt(index * index - tangential * tangential);
  if (w.imag() < 0.0 || (w.imag() == 0.0 && w.real() < 0.0)) w = -w;
  return w;
}

// Tilted optical admittances of a medium: η_s = N cosθ = w and η_p = N / cosθ = N² / w. With them
// both polarisations share the Fresnel form r = (η_a − η_b) / (η_a + η_b), which at normal
// incidence gives r_p = r_s = (N_a − N_b) / (N_a + N_b).
inline std::complex<double> AdmittanceS(std::complex<double> /*index*/, std::complex<double> w) {
  return w;
}
inline std::complex<double> AdmittanceP(std::complex<double> index, std::complex<double> w) {
  return index * index / w;
}

inline std::complex<double> Fresnel(std::complex<double> etaA, std::complex<double> etaB) {
  return (etaA - etaB) / (etaA + etaB);
}

// Airy recursion from the substrate up: with r the reflection coefficient seen from inside layer j
// at its lower interface, the coefficient at its upper interface is
//   r' = (ρ + r e) / (1 + ρ r e),   ρ = Fresnel(η_{j−1}, η_j),   e = exp(2iδ_j),  δ_j = k w_j t_j.
// `eta` holds the admittances of media 0 .. L + 1, `roundTrip` the factors e of layers 1 .. L at
// roundTrip[1 .. L] (roundTrip[0] unused).
inline std::complex<double> AiryReflection(int layers, const std::complex<double>* eta,
                                           const std::complex<double>* roundTrip) {
  std::complex<double> r = Fresnel(eta[layers], eta[layers + 1]);
  for (int j = layers; j >= 1; --j) {
    const std::complex<double> rho = Fresnel(eta[j - 1], eta[j]);
    const std::complex<double> re = r * roundTrip[j];
    r = (rho + re) / (1.0 + rho * re);
  }
  return r;
}

// Characteristic-matrix (transfer-matrix) form of the same coefficient: each layer maps the
// tangential fields (E, H) at its lower interface to those at its upper one by
//   [ cos δ          −i sin δ / η ]
//   [ −i η sin δ     cos δ        ]
// (the sign of the sines follows from exp(−iωt)); [B, C] = M_1 … M_L [1, η_{L+1}], the stack's
// input admittance is Y = C / B and r = (η_0 − Y) / (η_0 + Y). `phase` holds δ_j at phase[1 .. L].
inline std::complex<double> MatrixReflection(int layers, const std::complex<double>* eta,
                                             const std::complex<double>* phase) {
  const std::complex<double> i(0.0, 1.0);
  std::complex<double> b = 1.0;
  std::complex<double> c = eta[layers + 1];
  for (int j = layers; j >= 1; --j) {
    const std::complex<double> cs = std::cos(phase[j]);
    const std::complex<double> sn = std::sin(phase[j]);
    const std::complex<double> nb = cs * b - i * sn / eta[j] * c;
    const std::complex<double> nc = -i * eta[j] * sn * b + cs * c;
    b = nb;
    c = nc;
  }
  const std::complex<double> y = c / b;
  return (eta[0] - y) / (eta[0] + y);
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli::Pups::detail
