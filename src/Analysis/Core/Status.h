#pragma once

#include <string>

#include "Analysis/Core/QuarnCoreExport.h"

namespace Quarn::Metrology::Analysis::Core {

// StatusCode
//
// The failure codes every class of the library reports through its `Status`. Code 0 is success;
// the messages named here are the ones hosts match against, so they are used verbatim.
namespace StatusCode {
inline constexpr unsigned kSuccess = 0;
inline constexpr unsigned kNoValidResult = 1;     // e.g. a phase map without a valid pixel
inline constexpr unsigned kNoData = 2;            // "No data found for the passed-in kernel selector"
inline constexpr unsigned kAllocationFailed = 3;  // Array growth, "Allocation of spectra failed"
inline constexpr unsigned kControllerFailed = 4;  // spot-detector controller, no message
inline constexpr unsigned kInvalidArgument = 5;   // film code (facility 10)
inline constexpr unsigned kCallFailed = 6;        // "Call to envelope.Resize failed", "Unhandled exception"
inline constexpr unsigned kSectionTooSmall = 7;   // shared-memory section too small, no message
inline constexpr unsigned kNumericFailure = 12;   // film code (facility 10)
inline constexpr unsigned kArgumentOutOfRange = 20;  // "frameBuffer == 0", "isignal < 0"
inline constexpr unsigned kNotSet = 21;              // required input/output missing, empty range
inline constexpr unsigned kOutsideWindow = 22;       // "pixel position lies outside the framebuffer window"
inline constexpr unsigned kPeakFrameMismatch = 33;   // white-light peak-frame matrix does not fit the frames
inline constexpr unsigned kNegativeDimension = 30;   // negative matrix dimension, no message
}  // namespace StatusCode

// Facilities: 0 for everything here; 10 is reserved for the film-characterisation code.
namespace StatusFacility {
inline constexpr unsigned kGeneral = 0;
inline constexpr unsigned kFilm = 10;
}  // namespace StatusFacility

class Status;

// StatusPrinter
//
// Formats the statuses of one facility for people. A host installs its own printer with
// `Status::Register`; without one, `GetPrintString` uses the built-in description of the code.
class QUARN_CORE_EXPORT StatusPrinter {
 public:
  virtual ~StatusPrinter();
  virtual std::string Print(const Status& status) const = 0;
};

// Status
//
// The record every class uses instead of exceptions at its boundary: facility, code (0 = success),
// the source line and source path where the status was made ("Psi\ConverterGenerator": directory
// and file name, backslash separated, no extension) and an optional message.
//
// A class creates its member status as a success that remembers where the class was made, and
// assigns a failure record when an operation fails:
//
//   Status status_{__LINE__, "Psi\\ConverterGenerator"};
//   ...
//   status_ = Status(0, StatusCode::kNoValidResult, __LINE__, "Psi\\ConverterGenerator", "");
//
// Statuses are also thrown (by value) out of the thread dispatcher when a worker failed.
class QUARN_CORE_EXPORT Status {
 public:
  Status() = default;
  Status(unsigned line, std::string file, std::string message = {});
  Status(unsigned facility, unsigned code, unsigned line, std::string file, const char* message);
  Status(unsigned facility, unsigned code, unsigned line, std::string file, const std::string& message);

  unsigned GetFacility() const { return facility_; }
  unsigned GetCode() const { return code_; }
  unsigned GetLine() const { return line_; }
  const std::string& GetFile() const { return file_; }
  const std::string& GetMessage() const { return message_; }

  bool IsOk() const { return code_ == StatusCode::kSuccess; }
  bool IsError() const { return code_ != StatusCode::kSuccess; }

  // Back to success, keeping the source path (and line) of the owner.
  void ClearError();

  // The text a person reads: the registered printer of the facility, or the built-in form
  // "error 21 (required input not set or empty range) at Swli\PhaseGenerator:276: <message>".
  std::string GetPrintString() const;

  // Installs the printer for a facility (nullptr restores the built-in one). The printer is not
  // owned and must outlive its registration.
  static void Register(unsigned facility, StatusPrinter* printer);

  // The built-in one-line description of a code ("no valid result", ...).
  static const char* DescribeCode(unsigned code);

 private:
  unsigned facility_ = 0;
  unsigned code_ = 0;
  unsigned line_ = 0;
  std::string file_;
  std::string message_;
};

// RecordCallFailure
//
// The owner-side half of the status discipline: when `callee` (the status of a member or of a
// called object) holds a failure, `owner` becomes code 6 with the message "Call to <call> failed",
// the owner's own source path and the given line, and the function returns true. A call site is
// then one line:
//
//   if (RecordCallFailure(status_, surface_.GetStatus(), "surface.Resize", __LINE__)) return;
//
// The owner's source path is taken from `owner`; where the owner's status may already hold a
// record copied from elsewhere, name the source explicitly with the second form.
QUARN_CORE_EXPORT bool RecordCallFailure(Status& owner, const Status& callee, const char* call,
                                         unsigned line);
QUARN_CORE_EXPORT bool RecordCallFailure(Status& owner, const Status& callee, const char* call,
                                         const char* source, unsigned line);

// CopyIfFailed
//
// When `source` holds a failure, copies it into `target` unchanged and returns true.
inline bool CopyIfFailed(Status& target, const Status& source) {
  if (source.IsOk()) return false;
  target = source;
  return true;
}

}  // namespace Quarn::Metrology::Analysis::Core

// QUARN_RETURN_IF_CALL_FAILED(ok, owner, source, member, call [, result])
//
// Passing a member's failure up in one statement, in the manner of Arrow's `RETURN_NOT_OK`: `ok` is
// the member operation (false on failure, the reason left in `member.GetStatus()`); when it fails,
// `owner` becomes code 6 "Call to <call> failed" with the owner's `source` and the line of this use
// (see `RecordCallFailure`), and the enclosing function returns `result` (nothing when omitted).
//
//   QUARN_RETURN_IF_CALL_FAILED(envelope_.Resize(n), status_, kSource, envelope_, "envelope.Resize", false);
//
// `member` and `call` are evaluated only after a failure.
#define QUARN_RETURN_IF_CALL_FAILED(ok, owner, source, member, call, ...)                                    \
  do {                                                                                                       \
    if (!(ok)) {                                                                                             \
      ::Quarn::Metrology::Analysis::Core::RecordCallFailure((owner), (member).GetStatus(), (call), (source), \
                                                            __LINE__);                                       \
      return __VA_ARGS__;                                                                                    \
    }                                                                                                        \
  } while (false)

// QUARN_RETURN_IF_FAILED(ok, owner, member [, result])
//
// The same for the pipelines whose owners report a member's failure as the member's own record
// (code, source and line of the member): when `ok` is false, `member.GetStatus()` is copied into
// `owner` unchanged (see `CopyIfFailed`) and the enclosing function returns `result`.
//
//   QUARN_RETURN_IF_FAILED(board.fft.Transform(false), board.status, board.fft, false);
#define QUARN_RETURN_IF_FAILED(ok, owner, member, ...)                                 \
  do {                                                                                 \
    if (!(ok)) {                                                                       \
      ::Quarn::Metrology::Analysis::Core::CopyIfFailed((owner), (member).GetStatus()); \
      return __VA_ARGS__;                                                              \
    }                                                                                  \
  } while (false)
