#include "Analysis/Core/Status.h"

#include <map>
#include <mutex>
#include <utility>

namespace Quarn::Metrology::Analysis::Core {

namespace {

// Printers are registered rarely and read from any thread, so one mutex suffices.
struct PrinterRegistry {
  std::mutex mutex;
  std::map<unsigned, StatusPrinter*> printers;
};

PrinterRegistry& Registry() {
  static PrinterRegistry registry;
  return registry;
}

std::string BuiltInPrint(const Status& status) {
  if (status.IsOk()) return "success";
  std::string text =
      "error " + std::to_string(status.GetCode()) + " (" + Status::DescribeCode(status.GetCode()) + ")";
  if (status.GetFacility() != 0) text += " in facility " + std::to_string(status.GetFacility());
  if (!status.GetFile().empty()) text += " at " + status.GetFile() + ":" + std::to_string(status.GetLine());
  if (!status.GetMessage().empty()) text += ": " + status.GetMessage();
  return text;
}

}  // namespace

StatusPrinter::~StatusPrinter() = default;

Status::Status(unsigned line, std::string file, std::string message)
    : line_(line), file_(std::move(file)), message_(std::move(message)) {}

Status::Status(unsigned facility, unsigned code, unsigned line, std::string file, const char* message)
    : facility_(facility),
      code_(code),
      line_(line),
      file_(std::move(file)),
      message_(message ? message : "") {}

Status::Status(unsigned facility, unsigned code, unsigned line, std::string file, const std::string& message)
    : facility_(facility), code_(code), line_(line), file_(std::move(file)), message_(message) {}

void Status::ClearError() {
  facility_ = 0;
  code_ = StatusCode::kSuccess;
  message_.clear();
}

std::string Status::GetPrintString() const {
  StatusPrinter* printer = nullptr;
  {
    PrinterRegistry& registry = Registry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    const auto found = registry.printers.find(facility_);
    if (found != registry.printers.end()) printer = found->second;
  }
  return printer ? printer->Print(*this) : BuiltInPrint(*this);
}

void Status::Register(unsigned facility, StatusPrinter* printer) {
  PrinterRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  if (printer) {
    registry.printers[facility] = printer;
  } else {
    registry.printers.erase(facility);
  }
}

const char* Status::DescribeCode(unsigned code) {
  switch (code) {
    case StatusCode::kSuccess:
      return "success";
    case StatusCode::kNoValidResult:
      return "no valid result";
    case StatusCode::kNoData:
      return "no data";
    case StatusCode::kAllocationFailed:
      return "allocation failed";
    case StatusCode::kControllerFailed:
      return "controller failure";
    case StatusCode::kInvalidArgument:
      return "invalid argument or state";
    case StatusCode::kCallFailed:
      return "a called operation failed";
    case StatusCode::kSectionTooSmall:
      return "shared-memory section too small";
    case StatusCode::kNumericFailure:
      return "numeric failure";
    case StatusCode::kArgumentOutOfRange:
      return "argument out of range or null";
    case StatusCode::kNotSet:
      return "required input not set or empty range";
    case StatusCode::kOutsideWindow:
      return "position outside the window";
    case StatusCode::kNegativeDimension:
      return "negative matrix dimension";
    case StatusCode::kPeakFrameMismatch:
      return "peak-frame matrix does not match the frames";
    default:
      return "unknown failure";
  }
}

bool RecordCallFailure(Status& owner, const Status& callee, const char* call, unsigned line) {
  const std::string source = owner.GetFile();
  return RecordCallFailure(owner, callee, call, source.c_str(), line);
}

bool RecordCallFailure(Status& owner, const Status& callee, const char* call, const char* source,
                       unsigned line) {
  if (callee.IsOk()) return false;
  owner = Status(StatusFacility::kGeneral, StatusCode::kCallFailed, line, source,
                 std::string("Call to ") + call + " failed");
  return true;
}

}  // namespace Quarn::Metrology::Analysis::Core
