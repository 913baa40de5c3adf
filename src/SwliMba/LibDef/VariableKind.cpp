#include "SwliMba/LibDef/VariableKind.h"

#include <cctype>

namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef {

namespace {
constexpr const char* kTexts[] = {"Undefined", "Thickness", "CauchyN0", "CauchyK0"};
constexpr int kCount = 4;

bool EqualsCaseBlind(const std::string& a, const char* b) {
  const std::string other(b);
  if (a.size() != other.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(other[i])))
      return false;
  }
  return true;
}

int Find(const std::string& text) {
  for (int v = 0; v < kCount; ++v) {
    if (EqualsCaseBlind(text, kTexts[v])) return v;
  }
  return -1;
}
}  // namespace

std::string VariableKind::ToString() const {
  return value_ >= 0 && value_ < kCount ? kTexts[value_] : "";
}

bool VariableKind::Set(const std::string& text) {
  const int v = Find(text);
  if (v < 0) return false;
  value_ = v;
  return true;
}

bool VariableKind::IsValid(const std::string& text) {
  return Find(text) >= 0;
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::SwliMba::LibDef
