#include "Swli/MeasurementAnalysis.h"

namespace Quarn::Metrology::PhaseProcessing::Core::Swli {

MeasurementAnalysis::MeasurementAnalysis(unsigned line, const char* source) : status_(line, source) {}

MeasurementAnalysis::~MeasurementAnalysis() = default;

}  // namespace Quarn::Metrology::PhaseProcessing::Core::Swli
