#include "AlignSpotDetector/AsdProperties.h"

#include <cstdlib>
#include <new>
#include <sstream>

#include "Core/Board/Undefined.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

namespace {

const std::string kUndefinedText = "undefined";

template <typename T>
std::string Format(T value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

}  // namespace

AsdProperties::AsdProperties(const AsdProperties& other) {
  *this = other;
}

AsdProperties& AsdProperties::operator=(const AsdProperties& other) {
  if (this == &other) return *this;
  if (!other.values_) {
    values_.reset();
  } else {
    values_.reset(new (std::nothrow) std::map<std::string, std::string>(*other.values_));
  }
  return *this;
}

AsdProperties::~AsdProperties() = default;

bool AsdProperties::Initialize() {
  if (!values_) values_.reset(new (std::nothrow) std::map<std::string, std::string>());
  return values_ != nullptr;
}

bool AsdProperties::Finalize() {
  values_.reset();
  return true;
}

bool AsdProperties::Set(const std::string& key, const std::string& value) {
  if (!values_) return false;
  (*values_)[key] = value;
  return true;
}

bool AsdProperties::Set(const std::string& key, int value) {
  return Set(key, Format(value));
}

bool AsdProperties::Set(const std::string& key, double value) {
  return Set(key, Format(value));
}

const std::string& AsdProperties::Get(const std::string& key) const {
  if (!values_) return kUndefinedText;
  const auto found = values_->find(key);
  return found == values_->end() ? kUndefinedText : found->second;
}

double AsdProperties::GetAsDouble(const std::string& key) const {
  if (!values_) return kUndefinedDouble;
  const auto found = values_->find(key);
  return found == values_->end() ? kUndefinedDouble : std::atof(found->second.c_str());
}

int AsdProperties::GetAsInt(const std::string& key) const {
  if (!values_) return kUndefinedInt;
  const auto found = values_->find(key);
  return found == values_->end() ? kUndefinedInt : std::atoi(found->second.c_str());
}

std::vector<std::string> AsdProperties::GetKeys() const {
  std::vector<std::string> keys;
  if (!values_) return keys;
  keys.reserve(values_->size());
  for (const auto& entry : *values_)
    keys.push_back(entry.first);
  return keys;
}

void AsdProperties::RemoveAll() {
  if (values_) values_->clear();
}

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment
