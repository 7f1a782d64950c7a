// The report of one catalogue row, as the lookup utility prints it:
//
//   VELK Message 01-0001 [level = developer]
//
//       DESCRIPTION : <description>
//
//       ACTION      : <action>
//   <empty line>
//
// `displayError` writes it to the standard output and flushes.
#pragma once

#include <string>

#include <vlk/catalogue/error_manager.hpp>

namespace vlk {

// Appends the report of one row to `text`, without the final empty line.
void appendReport(std::string& text, const error_id& id, const error_description& texts);

}  // namespace vlk

void displayError(const vlk::error_id& id, const vlk::error_description& text);
