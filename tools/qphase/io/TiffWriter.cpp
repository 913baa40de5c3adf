#include "TiffWriter.h"

#include <tiffio.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "Analysis/Core/NoData.h"
#include "OutputFiles.h"
#include "ToolError.h"
#include "detail/TiffFile.h"

namespace Quarn::Qphase {

namespace {

using detail::OpenTiffForWriting;
using detail::TiffHandle;
using detail::TiffMessageSuffix;

// Doubles to floats with no-data as NaN. The conversion is done for every element and the choice
// made afterwards, which lets the compiler vectorise the loop (converting the no-data value itself
// only overflows to infinity, which is then replaced).
void ToFloatRow(const double* __restrict in, float* __restrict out, int count) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (int c = 0; c < count; ++c) {
    const double v = in[c];
    const float f = static_cast<float>(v);
    out[c] = v >= Core::kNoDataDouble ? nan : f;
  }
}

// An int map's row as floats: the int no-data value becomes NaN.
void ToFloatRow(const int* __restrict in, float* __restrict out, int count) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (int c = 0; c < count; ++c)
    out[c] = in[c] >= Core::kNoDataInt ? nan : static_cast<float>(in[c]);
}

}  // namespace

// The rows are converted into a strip buffer of about a megabyte (few system calls, and a buffer
// that stays in the cache), which is written whenever it is full: no float (or double) copy of the
// whole map is made.
class FloatTiffWriter::Impl {
 public:
  Impl(WriteTarget target, int rows, int cols)
      : shown_(target.Shown()), tiff_(OpenTiffForWriting(target)), rows_(rows), cols_(cols) {
    TIFFSetField(tiff_.get(), TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(cols));
    TIFFSetField(tiff_.get(), TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(rows));
    TIFFSetField(tiff_.get(), TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tiff_.get(), TIFFTAG_BITSPERSAMPLE, 32);
    TIFFSetField(tiff_.get(), TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP);
    TIFFSetField(tiff_.get(), TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tiff_.get(), TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff_.get(), TIFFTAG_COMPRESSION, COMPRESSION_NONE);
    rowsPerStrip_ = std::max(1, std::min(rows, (1 << 20) / std::max(1, cols * 4)));
    TIFFSetField(tiff_.get(), TIFFTAG_ROWSPERSTRIP, static_cast<std::uint32_t>(rowsPerStrip_));
    strip_.resize(static_cast<std::size_t>(rowsPerStrip_) * static_cast<std::size_t>(cols));
  }

  template <typename T>
  void Append(const Core::DataMatrix2D<T>& band) {
    if (band.GetColumns() != cols_ || written_ + held_ + band.GetRows() > rows_) {
      throw UsageError(shown_ + ": a band of " + std::to_string(band.GetRows()) + " x " +
                       std::to_string(band.GetColumns()) + " does not continue the " + std::to_string(rows_) +
                       " x " + std::to_string(cols_) + " map");
    }
    for (int r = 0; r < band.GetRows(); ++r) {
      ToFloatRow(band.Row(r),
                 strip_.data() + static_cast<std::size_t>(held_) * static_cast<std::size_t>(cols_), cols_);
      if (++held_ == rowsPerStrip_) WriteStrip();
    }
  }

  void Finish() {
    if (held_ > 0) WriteStrip();
    if (written_ != rows_) {
      throw UsageError(shown_ + ": " + std::to_string(written_) + " of " + std::to_string(rows_) +
                       " rows were written");
    }
    if (!TIFFFlush(tiff_.get())) throw UsageError(shown_ + ": writing failed (disk full?)");
  }

  int rowsPerStrip_ = 1;

 private:
  void WriteStrip() {
    const tmsize_t bytes = static_cast<tmsize_t>(held_) * cols_ * 4;
    if (TIFFWriteEncodedStrip(tiff_.get(), static_cast<std::uint32_t>(written_ / rowsPerStrip_),
                              strip_.data(), bytes) != bytes) {
      throw UsageError(shown_ + ": writing failed" + TiffMessageSuffix());
    }
    written_ += held_;
    held_ = 0;
  }

  std::string shown_;
  TiffHandle tiff_;
  int rows_, cols_;
  int written_ = 0;  // rows in the file
  int held_ = 0;     // rows in the strip buffer
  std::vector<float> strip_;
};

FloatTiffWriter::FloatTiffWriter(WriteTarget target, int rows, int cols)
    : impl_(std::make_unique<Impl>(std::move(target), rows, cols)) {}
FloatTiffWriter::~FloatTiffWriter() = default;
int FloatTiffWriter::RowsPerStrip() const {
  return impl_->rowsPerStrip_;
}
void FloatTiffWriter::Append(const Core::DataMatrix2D<double>& band) {
  impl_->Append(band);
}
void FloatTiffWriter::Append(const Core::DataMatrix2D<int>& band) {
  impl_->Append(band);
}
void FloatTiffWriter::Finish() {
  impl_->Finish();
}

namespace {

// Writes the rows of `map` as a 32-bit float TIFF.
template <typename T>
void WriteFloatRows(WriteTarget target, const Core::DataMatrix2D<T>& map) {
  FloatTiffWriter writer(std::move(target), map.GetRows(), map.GetColumns());
  writer.Append(map);
  writer.Finish();
}

}  // namespace

void WriteFloatTiff(WriteTarget target, const Core::DataMatrix2D<double>& map) {
  WriteFloatRows(std::move(target), map);
}

void WriteFloatTiff(WriteTarget target, const Core::DataMatrix2D<int>& map) {
  WriteFloatRows(std::move(target), map);
}

void WriteFloatTiff(const std::string& path, const Core::DataMatrix2D<double>& map) {
  WriteFloatRows(WriteTarget::Create(path), map);
}

void WriteTiffStack(const std::string& path, const Core::FrameBuffer& frames) {
  WriteTarget target = WriteTarget::Create(path);
  const std::string shown = target.Shown();
  TiffHandle tiff = OpenTiffForWriting(target);
  const int bits = frames.GetElementRes() == Core::FrameBuffer::kRes8Bit ? 8 : 16;
  if (frames.GetElementRes() == Core::FrameBuffer::kRes32Bit)
    throw UsageError(shown + ": 32-bit stacks cannot be written");
  const std::size_t rowBytes =
      static_cast<std::size_t>(frames.GetColumns()) * static_cast<std::size_t>(bits / 8);
  for (int slot = 0; slot < frames.GetFramesStored(); ++slot) {
    TIFFSetField(tiff.get(), TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(frames.GetColumns()));
    TIFFSetField(tiff.get(), TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(frames.GetRows()));
    TIFFSetField(tiff.get(), TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tiff.get(), TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(tiff.get(), TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tiff.get(), TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff.get(), TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tiff.get(), 0));
    TIFFSetField(tiff.get(), TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
    TIFFSetField(tiff.get(), TIFFTAG_PAGENUMBER, static_cast<std::uint16_t>(slot),
                 static_cast<std::uint16_t>(frames.GetFramesStored()));
    const auto* data = static_cast<const std::byte*>(frames.GetFrameData(slot));
    for (int r = 0; r < frames.GetRows(); ++r) {
      // libtiff takes a non-const buffer but only reads it.
      if (TIFFWriteScanline(tiff.get(), const_cast<std::byte*>(data + static_cast<std::size_t>(r) * rowBytes),
                            static_cast<std::uint32_t>(r), 0) < 0) {
        throw UsageError(shown + ": writing failed");
      }
    }
    if (!TIFFWriteDirectory(tiff.get())) throw UsageError(shown + ": writing failed");
  }
}

}  // namespace Quarn::Qphase
