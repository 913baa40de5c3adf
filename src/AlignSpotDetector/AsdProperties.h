#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "QuarnPhaseProcessingExport.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Alignment {

// AsdProperties
//
// The named results of the align spot detector: a dictionary from key to text, ordered by key.
// Numbers are stored as a standard output string stream writes them by default (six significant
// digits for doubles: 652.0527 is kept as "652.053"). A run of the detector writes
//   "Regions.Size"               the number of spots found
//   "Region.<i>"                 spot i's one-line description (AsdSpotInfo::ToString)
//   "Region.<i>.CenterOfMassX", ".CenterOfMassY", ".SigmaX", ".SigmaY", ".Quadrant",
//   "Region.<i>.BoundingRect.X0", ".Y0", ".X1", ".Y1"
// with spot 0 the brightest. Keys of earlier runs stay until overwritten.
//
// The dictionary exists between `Initialize` (false when it cannot be created) and `Finalize`.
// Without it `Set` stores nothing (and returns false) and every key reads as absent.
//
//   AsdProperties properties;
//   properties.Initialize();
//   properties.Set("Regions.Size", 1);
//   properties.GetAsInt("Regions.Size");     // 1
//   properties.Get("Region.7");              // "undefined"
//   properties.GetAsDouble("Region.7.SigmaX");  // 1.7976931348623157e308 (undefined)
class QUARN_PP_EXPORT AsdProperties {
 public:
  AsdProperties() = default;
  AsdProperties(const AsdProperties& other);
  AsdProperties& operator=(const AsdProperties& other);
  virtual ~AsdProperties();

  bool Initialize();
  bool Finalize();
  bool IsInitialized() const { return values_ != nullptr; }

  bool Set(const std::string& key, const std::string& value);
  bool Set(const std::string& key, const char* value) { return Set(key, std::string(value)); }
  bool Set(const std::string& key, int value);
  bool Set(const std::string& key, double value);

  // The stored text, or "undefined" when the key is absent.
  const std::string& Get(const std::string& key) const;
  // atof of the stored text, or 1.7976931348623157e308 when the key is absent.
  double GetAsDouble(const std::string& key) const;
  // atoi of the stored text, or 2147483640 when the key is absent.
  int GetAsInt(const std::string& key) const;

  // Every key, in dictionary order.
  std::vector<std::string> GetKeys() const;
  // Removes every entry (the dictionary stays).
  void RemoveAll();

 private:
  std::unique_ptr<std::map<std::string, std::string>> values_;
};

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Alignment
