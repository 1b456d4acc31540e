// `tavrendctl report`: the crash reports of the daemon's log, written out.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "logread/CrashReport.h"

namespace tavrendctl::report {

using logread::CrashReport;
using logread::GuardrailState;
using logread::History;
using logread::Process;
using logread::readReports;
using logread::rssGrowth;
using logread::topGrowth;

// Writes the histories as counter tracks of a Chrome trace-event JSON file.
// Returns false with `error` set when the file cannot be written.
bool writeTrace(const std::vector<CrashReport>& reports, const std::string& path,
                std::string& error);

// Draws each system history and the top processes' RSS as SVG line charts in
// `dir`, made when missing. Counts the files in `written`.
bool writeCharts(const std::vector<CrashReport>& reports, const std::string& dir, int& written,
                 std::string& error);

}  // namespace tavrendctl::report
