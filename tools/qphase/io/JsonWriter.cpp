#include "JsonWriter.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace Quarn::Qphase {

namespace {

// Length of the valid UTF-8 sequence starting at text[i], or 0 when the bytes there are not one
// (stray continuation bytes, truncated sequences, overlong forms, surrogates, beyond U+10FFFF).
std::size_t Utf8Length(const std::string& text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  std::size_t length = 0;
  unsigned int code = 0, minimum = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, code = lead & 0x1Fu, minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, code = lead & 0x0Fu, minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, code = lead & 0x07u, minimum = 0x10000;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0u) != 0x80u) return 0;
    code = (code << 6) | (byte(i + k) & 0x3Fu);
  }
  if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

}  // namespace

std::string JsonWriter::Quote(const std::string& text) {
  std::string out = "\"";
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      switch (c) {
        case '"':
          out += "\\\"";
          break;
        case '\\':
          out += "\\\\";
          break;
        case '\b':
          out += "\\b";
          break;
        case '\f':
          out += "\\f";
          break;
        case '\n':
          out += "\\n";
          break;
        case '\r':
          out += "\\r";
          break;
        case '\t':
          out += "\\t";
          break;
        default:
          if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
          } else {
            out += static_cast<char>(c);
          }
      }
      ++i;
      continue;
    }
    const std::size_t length = Utf8Length(text, i);
    if (length == 0) {
      out += "\\ufffd";
      ++i;
    } else {
      out.append(text, i, length);
      i += length;
    }
  }
  return out + "\"";
}

void JsonWriter::Indent() {
  text_ += '\n';
  text_.append(2 * levels_.size(), ' ');
}

void JsonWriter::BeforeValue() {
  if (done_) throw std::logic_error("JSON document already complete");
  if (levels_.empty()) return;
  Level& level = levels_.back();
  if (level.object) {
    if (!keyPending_) throw std::logic_error("JSON object member without a key");
    keyPending_ = false;
    return;
  }
  if (level.members++ > 0) text_ += ',';
  Indent();
}

JsonWriter& JsonWriter::Key(const std::string& key) {
  if (levels_.empty() || !levels_.back().object || keyPending_)
    throw std::logic_error("JSON key outside an object");
  if (levels_.back().members++ > 0) text_ += ',';
  Indent();
  text_ += Quote(key) + ": ";
  keyPending_ = true;
  return *this;
}

JsonWriter& JsonWriter::BeginObject() {
  BeforeValue();
  text_ += '{';
  levels_.push_back({true, 0});
  return *this;
}

JsonWriter& JsonWriter::BeginArray() {
  BeforeValue();
  text_ += '[';
  levels_.push_back({false, 0});
  return *this;
}

void JsonWriter::Close(bool object) {
  if (levels_.empty() || levels_.back().object != object || keyPending_) {
    throw std::logic_error(object ? "unmatched JSON object end" : "unmatched JSON array end");
  }
  const bool empty = levels_.back().members == 0;
  levels_.pop_back();
  if (!empty) Indent();
  text_ += object ? '}' : ']';
  if (levels_.empty()) done_ = true;
}

JsonWriter& JsonWriter::EndObject() {
  Close(true);
  return *this;
}

JsonWriter& JsonWriter::EndArray() {
  Close(false);
  return *this;
}

JsonWriter& JsonWriter::String(const std::string& value) {
  BeforeValue();
  text_ += Quote(value);
  if (levels_.empty()) done_ = true;
  return *this;
}

JsonWriter& JsonWriter::Number(double value) {
  if (!std::isfinite(value)) return Null();
  BeforeValue();
  // The shortest of 15, 16 or 17 significant digits that reads back to the same double.
  char number[32];
  for (int digits = 15; digits <= 17; ++digits) {
    std::snprintf(number, sizeof number, "%.*g", digits, value);
    if (std::strtod(number, nullptr) == value) break;
  }
  text_ += number;
  if (levels_.empty()) done_ = true;
  return *this;
}

JsonWriter& JsonWriter::Integer(long long value) {
  BeforeValue();
  text_ += std::to_string(value);
  if (levels_.empty()) done_ = true;
  return *this;
}

JsonWriter& JsonWriter::Bool(bool value) {
  BeforeValue();
  text_ += value ? "true" : "false";
  if (levels_.empty()) done_ = true;
  return *this;
}

JsonWriter& JsonWriter::Null() {
  BeforeValue();
  text_ += "null";
  if (levels_.empty()) done_ = true;
  return *this;
}

std::string JsonWriter::Text() const {
  if (!levels_.empty() || !done_) throw std::logic_error("JSON document incomplete");
  return text_ + '\n';
}

}  // namespace Quarn::Qphase
