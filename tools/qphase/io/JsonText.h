#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace Quarn::Qphase {

// The text of a JSON document (RFC 8259) as every qphase output writes it: indented two spaces per
// level, members in the order the document holds them (nlohmann::ordered_json keeps insertion
// order; nlohmann::json sorts them), ending with a newline.
//
// Strings come from file names and library texts, which need not be UTF-8 (a file name in Latin-1):
// each invalid byte becomes U+FFFD rather than failing the whole output, so the document always
// parses. Numbers are written with the fewest digits that read back to the same double; NaN and the
// infinities, which JSON cannot hold, become null.
template <class Json>
std::string JsonText(const Json& document) {
  return document.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace Quarn::Qphase
