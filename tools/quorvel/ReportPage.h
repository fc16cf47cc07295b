#pragma once

#include <string_view>

// The files of report/, as CMake puts them into the program.
namespace Quorvel::Tool {

// The report before and after its data.
extern const std::string_view kReportStart;
extern const std::string_view kReportEnd;

// The colours of the kinds of pages, in CSS.
extern const std::string_view kReportPalette;

}  // namespace Quorvel::Tool
