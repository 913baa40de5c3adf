#pragma once

#include <cstdint>

namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail {

// Int32
//
// A 32-bit integer with two's-complement wrap-around, for the integer kernels of the phase
// algorithms. Their sums are defined as 32-bit integer arithmetic; the arithmetic is carried out in
// uint32_t, whose overflow is defined, so an extreme 32-bit sample yields the same wrapped value
// a 32-bit machine sum would, without undefined behaviour. Samples of 8 to 16 bits never wrap.
class Int32 {
 public:
  constexpr explicit Int32(std::int64_t v) : bits_(static_cast<std::uint32_t>(v)) {}
  constexpr std::int32_t value() const { return static_cast<std::int32_t>(bits_); }

  friend constexpr Int32 operator+(Int32 a, Int32 b) { return FromBits(a.bits_ + b.bits_); }
  friend constexpr Int32 operator-(Int32 a, Int32 b) { return FromBits(a.bits_ - b.bits_); }
  friend constexpr Int32 operator*(Int32 a, Int32 b) { return FromBits(a.bits_ * b.bits_); }

 private:
  static constexpr Int32 FromBits(std::uint32_t bits) {
    Int32 r(0);
    r.bits_ = bits;
    return r;
  }
  std::uint32_t bits_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Psi::detail
