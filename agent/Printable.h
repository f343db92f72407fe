// Texts of others on their way to a terminal.
#pragma once

#include <string>

namespace agent {

/// Returns: the text with everything escaped as \xHH that moves a cursor, turns the writing direction or is no UTF-8.
/// Line ends count as such. Pure.
std::string Printable(const std::string& text);

}  // namespace agent
