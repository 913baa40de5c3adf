#include "commands/FilmLibrary.h"

#include <fstream>
#include <sstream>

#include "Jobs/FilmJob.h"
#include "ToolError.h"

namespace Quarn::Qphase {

void BuildFilmLibrary(const std::string& stackPath, int samples, double scanStepNm,
                      Core::DoubleMatrix2D& matrix, LibraryFileInfo& info) {
  std::ifstream in(stackPath, std::ios::binary);
  if (!in) throw UsageError(stackPath + ": cannot be read");
  std::ostringstream text;
  text << in.rdbuf();
  Jobs::JobRecord record;
  if (!Jobs::GenerateFilmLibrary(text.str(), stackPath, samples, scanStepNm, matrix, info, record))
    throw UsageError(record.message);
}

}  // namespace Quarn::Qphase
