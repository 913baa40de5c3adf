#include "io/LibraryTiff.h"

#include <tiffio.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "InputFile.h"
#include "OutputFiles.h"
#include "ToolError.h"
#include "detail/TiffFile.h"

namespace Quarn::Qphase {

namespace {

constexpr const char* kFormat = "quarn film library";

nlohmann::json VariableJson(const LibraryVariable& v) {
  return {{"kind", v.kind}, {"layer", v.layer}, {"from", v.from}, {"step", v.step}, {"count", v.count}};
}

LibraryVariable ReadVariable(const nlohmann::json& j) {
  LibraryVariable v;
  v.kind = j.at("kind").get<std::string>();
  v.layer = j.at("layer").get<int>();
  v.from = j.at("from").get<double>();
  v.step = j.at("step").get<double>();
  v.count = j.at("count").get<int>();
  return v;
}

}  // namespace

void WriteLibraryTiff(WriteTarget target, const Core::DoubleMatrix2D& matrix, const LibraryFileInfo& info) {
  nlohmann::json meta;
  meta["format"] = kFormat;
  meta["samples"] = info.samples;
  meta["scan_step_nm"] = info.scanStepNm;
  meta["first_valid_bin"] = info.firstValidBin;
  meta["last_valid_bin"] = info.lastValidBin;
  nlohmann::json mirror = nlohmann::json::array();
  for (const auto& v : info.perfectMirror) {
    mirror.push_back(v.real());
    mirror.push_back(v.imag());
  }
  meta["perfect_mirror"] = mirror;
  meta["variable1"] = VariableJson(info.variable1);
  meta["variable2"] = VariableJson(info.variable2);
  const std::string description = meta.dump();

  const std::string shown = target.Shown();
  detail::TiffHandle tiff = detail::OpenTiffForWriting(target);
  TIFF* t = tiff.get();
  TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(matrix.GetColumns()));
  TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(matrix.GetRows()));
  TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
  TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 64);
  TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP);
  TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
  TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 1);
  TIFFSetField(t, TIFFTAG_IMAGEDESCRIPTION, description.c_str());
  std::vector<double> row(static_cast<std::size_t>(matrix.GetColumns()));
  for (int r = 0; r < matrix.GetRows(); ++r) {
    std::copy(matrix.Row(r), matrix.Row(r) + matrix.GetColumns(), row.begin());
    if (TIFFWriteScanline(t, row.data(), static_cast<std::uint32_t>(r), 0) < 0)
      throw UsageError(shown + ": writing row " + std::to_string(r) + " failed" +
                       detail::TiffMessageSuffix());
  }
  if (!TIFFFlush(t)) throw UsageError(shown + ": writing failed (disk full?)");
}

void ReadLibraryTiff(const std::string& path, Core::DoubleMatrix2D& matrix, LibraryFileInfo& info) {
  InputFile file(path);
  detail::TiffHandle tiff = detail::OpenTiffForReading(file);
  TIFF* t = tiff.get();
  std::uint32_t width = 0, height = 0;
  std::uint16_t bits = 0, format = SAMPLEFORMAT_UINT, samplesPerPixel = 1;
  TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height);
  TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &format);
  TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &samplesPerPixel);
  char* description = nullptr;
  if (!TIFFGetField(t, TIFFTAG_IMAGEDESCRIPTION, &description) || !description)
    throw UsageError(path + ": not a film library (no description; write one with qphase film-library)");
  const std::string where = path + ": not a film library written by qphase film-library";
  try {
    const nlohmann::json meta = nlohmann::json::parse(description);
    if (meta.at("format").get<std::string>() != kFormat) throw UsageError(where);
    info.samples = meta.at("samples").get<int>();
    info.scanStepNm = meta.at("scan_step_nm").get<double>();
    info.firstValidBin = meta.at("first_valid_bin").get<int>();
    info.lastValidBin = meta.at("last_valid_bin").get<int>();
    const auto& mirror = meta.at("perfect_mirror");
    info.perfectMirror.clear();
    for (std::size_t i = 0; i + 1 < mirror.size(); i += 2)
      info.perfectMirror.emplace_back(mirror[i].get<double>(), mirror[i + 1].get<double>());
    info.variable1 = ReadVariable(meta.at("variable1"));
    info.variable2 = ReadVariable(meta.at("variable2"));
  } catch (const nlohmann::json::exception& e) {
    throw UsageError(where + " (" + e.what() + ")");
  }
  const int bins = info.samples / 2 + 1;
  if (bits != 64 || format != SAMPLEFORMAT_IEEEFP || samplesPerPixel != 1)
    throw UsageError(path + ": library pages must be 64-bit float grayscale");
  if (info.samples < 4 || info.samples % 4 != 0 || static_cast<int>(width) != 2 * bins ||
      static_cast<int>(info.perfectMirror.size()) != bins || height < 1 || !(info.scanStepNm > 0.0))
    throw UsageError(path + ": library layout does not match its description (" + std::to_string(width) +
                     " columns, " + std::to_string(info.samples) + " samples)");
  if (!matrix.Resize(static_cast<int>(height), static_cast<int>(width)))
    throw UsageError(path + ": " + std::to_string(height) + " x " + std::to_string(width) +
                     " library too large");
  for (std::uint32_t r = 0; r < height; ++r) {
    if (TIFFReadScanline(t, matrix.Row(static_cast<int>(r)), r, 0) < 0)
      throw UsageError(path + ": row " + std::to_string(r) + " cannot be read" + detail::TiffMessageSuffix());
  }
}

}  // namespace Quarn::Qphase
