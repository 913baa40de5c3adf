#pragma once

#include <string>
#include <vector>

namespace Quarn::Qphase {

// JsonWriter
//
// Builds a JSON document (RFC 8259) as text, indented two spaces per level. Strings are escaped:
// quote, backslash and the control characters below U+0020 (as \n, \t, ... or \u00XX); valid UTF-8
// passes unchanged, and each byte of an invalid UTF-8 sequence (a file name in another encoding)
// becomes U+FFFD, so the document always parses. Numbers are written with the fewest of 15 to 17
// significant digits that read back to the same double; NaN and infinities, which JSON cannot
// hold, become null.
//
//   JsonWriter json;
//   json.BeginObject();
//   json.Key("position").String("Quadrant2");
//   json.Key("sigma").BeginArray().Number(2.5).Number(3.0).EndArray();
//   json.EndObject();
//   json.Text();   // "{\n  \"position\": \"Quadrant2\",\n  \"sigma\": [\n    2.5,\n    3\n  ]\n}\n"
//
// The calls must nest properly (a key before each member of an object, matching ends); a misuse
// throws std::logic_error.
class JsonWriter {
 public:
  JsonWriter& BeginObject();
  JsonWriter& EndObject();
  JsonWriter& BeginArray();
  JsonWriter& EndArray();
  JsonWriter& Key(const std::string& key);
  JsonWriter& String(const std::string& value);
  JsonWriter& Number(double value);
  JsonWriter& Integer(long long value);
  JsonWriter& Bool(bool value);
  JsonWriter& Null();

  // The document, ending with a newline; throws std::logic_error while a container is open.
  std::string Text() const;

  // The quoted JSON string literal of `text`.
  static std::string Quote(const std::string& text);

 private:
  struct Level {
    bool object;
    int members;
  };
  void BeforeValue();
  void Close(bool object);
  void Indent();

  std::string text_;
  std::vector<Level> levels_;
  bool keyPending_ = false;
  bool done_ = false;
};

}  // namespace Quarn::Qphase
