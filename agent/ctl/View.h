// What the views of the console share: colours for a terminal, JSON with its schema's name and version.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "Doctor.h"
#include "StatusText.h"

namespace agent {

/// Raised when a member of any view is renamed, removed or changes its type or meaning; new members leave it.
constexpr int kViewVersion = 1;

/// Whether stdout is a terminal that shows colours and nobody has said NO_COLOR.
bool HasColours();
/// The text as `kind` is shown where colours are, else as it is. The text must hold no line end.
std::string Painted(const std::string& text, LineKind kind);
/// The same for many, one below the other.
std::string PaintLines(const std::vector<TextLine>& lines);

/// An object with "schema" (the view's name behind "tervanectl.") and "version".
Json::Value NewView(const char* name);
/// As text that ends with a line end; `oneLine`: without any other.
std::string ViewText(const Json::Value& view, bool oneLine = false);
Json::Value JsonList(const std::vector<std::string>& texts);
/// "ok", "warning" or "problem".
const char* NameOf(Severity severity);
Json::Value FindingsJson(const std::vector<DoctorFinding>& findings);

}  // namespace agent
