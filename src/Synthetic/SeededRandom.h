#pragma once

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace Quarn::Testing {

// SeededRandom
//
// The random source of tests, benchmarks and the demo: a 64-bit Mersenne twister whose seed is
// always known. The seed is the one given, unless the environment variable QUARN_TEST_SEED is set,
// which overrides it so that a failure seen elsewhere can be replayed. Tests print `Describe()` in a
// SCOPED_TRACE so every failure message carries the seed.
class SeededRandom {
 public:
  explicit SeededRandom(std::uint64_t seed = 20261122) : seed_(Override(seed)), engine_(seed_) {}

  std::uint64_t Seed() const { return seed_; }
  std::string Describe() const {
    return "random seed " + std::to_string(seed_) + " (QUARN_TEST_SEED replays it)";
  }

  double Uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(engine_); }
  int UniformInt(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(engine_); }
  double Normal(double sigma) {
    return sigma > 0.0 ? std::normal_distribution<double>(0.0, sigma)(engine_) : 0.0;
  }

  std::mt19937_64& Engine() { return engine_; }

 private:
  static std::uint64_t Override(std::uint64_t seed) {
    if (const char* env = std::getenv("QUARN_TEST_SEED")) return std::strtoull(env, nullptr, 10);
    return seed;
  }

  std::uint64_t seed_;
  std::mt19937_64 engine_;
};

}  // namespace Quarn::Testing
