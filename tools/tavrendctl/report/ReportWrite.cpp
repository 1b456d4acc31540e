// The crash reports' histories as a trace-event JSON file and as SVG charts.
// Names come cleaned from the reader: valid UTF-8, no control characters.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <filesystem>
#include <memory>

#include "report/Report.h"
#include "toolbox/Text.h"

namespace tavrendctl::report {
namespace {

constexpr int64_t kSecondUs = 1000000;
constexpr size_t kChartedProcesses = 5;

std::string escape(const std::string& s, bool xml) {
    std::string out;
    for (char c : s) {
        if (!xml && (c == '"' || c == '\\')) {
            out += '\\';
            out += c;
        } else if (xml && c == '&') {
            out += "&amp;";
        } else if (xml && c == '<') {
            out += "&lt;";
        } else if (xml && c == '>') {
            out += "&gt;";
        } else if (xml && c == '"') {
            out += "&quot;";
        } else {
            out += c;
        }
    }
    return out;
}

std::string reportTitle(const CrashReport& r, size_t index) {
    return "crash report " + std::to_string(index + 1) + " at " +
           (r.date.empty() ? r.stamp : r.date) + (r.condition.empty() ? "" : ": " + r.condition);
}

// One counter event per sample of the histories, which share one track named
// `name`, one series each, and the first one's period; the newest samples are
// at the report's time.
void addCounters(std::string& out, size_t pid, const CrashReport& r, const std::string& name,
                 const std::vector<const History*>& series) {
    size_t n = 0;
    for (const History* h : series) n = std::max(n, h->values.size());
    const int64_t periodUs = series.front()->periodSec * kSecondUs;
    char number[64];
    for (size_t i = 0; i < n; ++i) {
        const int64_t ts = r.endUs - static_cast<int64_t>(n - 1 - i) * periodUs;
        snprintf(number, sizeof(number), "%zu,\"ts\":%" PRId64, pid, ts);
        out += ",\n{\"ph\":\"C\",\"name\":\"" + escape(name, false) + "\",\"pid\":" + number +
               ",\"args\":{";
        bool first = true;
        for (const History* h : series) {
            const size_t missing = n - h->values.size();  // shorter ones end with the others
            if (i < missing) continue;
            snprintf(number, sizeof(number), "%" PRIu64, h->values[i - missing]);
            // A track of one series calls it by its unit: "Other Free kB" in the viewers.
            const std::string key = series.size() == 1 ? h->unit : h->name + " " + h->unit;
            out += std::string(first ? "" : ",") + "\"" + escape(key, false) + "\":" + number;
            first = false;
        }
        out += "}}";
    }
}

// One instant event per sample of an event history, at its logged time, else
// at the report's time with "logged": false.
void addEvents(std::string& out, size_t pid, const CrashReport& r, const History& h) {
    char text[160];
    for (size_t i = 0; i < h.values.size(); ++i) {
        const bool logged = i < h.eventUs.size() && h.eventUs[i].has_value();
        snprintf(text, sizeof(text),
                 ",\n{\"ph\":\"i\",\"s\":\"p\",\"name\":\"%s\",\"pid\":%zu,\"ts\":%" PRId64
                 ",\"args\":{\"%s\":%" PRIu64 "%s}}",
                 h.name.c_str(), pid, logged ? *h.eventUs[i] : r.endUs, h.unit.c_str(), h.values[i],
                 logged ? "" : ",\"logged\":false");
        out += text;
    }
}

// The x axis of a chart: for a series, seconds before the report at its
// period; for events, their order.
std::string xAxis(const History& h) {
    char buf[400];
    const size_t n = h.values.size();
    if (h.events) {
        snprintf(buf, sizeof(buf),
                 "<text x=\"350\" y=\"188\" text-anchor=\"end\">%zu events, in the order "
                 "received</text>\n",
                 n);
        return buf;
    }
    snprintf(buf, sizeof(buf),
             "<text x=\"10\" y=\"174\">-%zu s</text>\n"
             "<text x=\"180\" y=\"174\" text-anchor=\"middle\">seconds before the "
             "report</text>\n"
             "<text x=\"350\" y=\"174\" text-anchor=\"end\">0 s</text>\n"
             "<text x=\"350\" y=\"188\" text-anchor=\"end\">%zu samples, %d s apart%s</text>\n",
             (n - 1) * static_cast<size_t>(h.periodSec), n, h.periodSec,
             h.periodLogged ? "" : " (no period in the log)");
    return buf;
}

// The value lines of a chart: the top and bottom of its range, each labelled
// with its value beside it, and the lowest and highest sample on lines of
// their own when a baseline or threshold widens the range.
struct Range {
    uint64_t low, high;  // of the samples
    uint64_t lo, hi;     // of the chart
};

std::string valueLabels(const Range& r, const char* unit, double yLow, double yHigh) {
    char buf[512];
    snprintf(buf, sizeof(buf),
             "<path d=\"M10 40H350M10 148H350\" stroke=\"#ddd\"/>\n"
             "<text x=\"10\" y=\"34\">%s%" PRIu64
             " %s</text>\n"
             "<text x=\"10\" y=\"160\">%s%" PRIu64 " %s</text>\n",
             r.hi == r.high ? "max " : "", r.hi, unit, r.lo == r.low ? "min " : "", r.lo, unit);
    std::string out = buf;
    if (r.hi != r.high) {
        snprintf(buf, sizeof(buf),
                 "<path d=\"M10 %.1fH350\" stroke=\"#eee\"/>\n"
                 "<text x=\"350\" y=\"%.1f\" text-anchor=\"end\">max %" PRIu64 " %s</text>\n",
                 yHigh, yHigh - 3, r.high, unit);
        out += buf;
    }
    if (r.lo != r.low) {
        snprintf(buf, sizeof(buf),
                 "<path d=\"M10 %.1fH350\" stroke=\"#eee\"/>\n"
                 "<text x=\"350\" y=\"%.1f\" text-anchor=\"end\">min %" PRIu64 " %s</text>\n",
                 yLow, yLow + 11, r.low, unit);
        out += buf;
    }
    return out;
}

// A dashed line across the chart at `y`, named in its colour at the top right.
std::string markLine(double y, const char* colour, const char* what, uint64_t v, const char* unit) {
    char buf[400];
    snprintf(buf, sizeof(buf),
             "<path d=\"M10 %.1fH350\" stroke=\"%s\" stroke-dasharray=\"4 3\"/>\n"
             "<text x=\"350\" y=\"34\" text-anchor=\"end\" fill=\"%s\">- - %s %" PRIu64
             " %s</text>\n",
             y, colour, colour, what, v, unit);
    return buf;
}

// A chart of `h` with its title, its value lines and its x axis: a line for a
// series, dots for events. A dashed line marks `baseline` when given, and the
// history's threshold when it has one.
std::string chart(const std::string& title, const History& h, const uint64_t* baseline) {
    constexpr double kLeft = 10, kRight = 350, kTop = 40, kBottom = 148;
    Range r{*std::min_element(h.values.begin(), h.values.end()),
            *std::max_element(h.values.begin(), h.values.end()), 0, 0};
    r.lo = r.low;
    r.hi = r.high;
    for (const uint64_t* mark : {baseline, h.threshold ? &*h.threshold : nullptr}) {
        if (mark == nullptr) continue;
        r.lo = std::min(r.lo, *mark);
        r.hi = std::max(r.hi, *mark);
    }
    const size_t n = h.values.size();
    auto x = [&](size_t i) {
        if (n == 1) return (kLeft + kRight) / 2;
        return kLeft + static_cast<double>(i) * (kRight - kLeft) / static_cast<double>(n - 1);
    };
    auto y = [&](uint64_t v) {
        if (r.hi == r.lo) return (kTop + kBottom) / 2;
        return kBottom -
               static_cast<double>(v - r.lo) / static_cast<double>(r.hi - r.lo) * (kBottom - kTop);
    };
    const char* unit = h.unit.c_str();
    char buf[512];
    std::string out =
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"360\" height=\"192\" "
        "viewBox=\"0 0 360 192\" font-family=\"sans-serif\" font-size=\"11\">\n"
        "<rect width=\"360\" height=\"192\" fill=\"white\"/>\n"
        "<text x=\"10\" y=\"18\" font-size=\"13\" font-weight=\"bold\">" +
        escape(title, true) + "</text>\n";
    out += valueLabels(r, unit, y(r.low), y(r.high)) + xAxis(h);
    if (baseline != nullptr) out += markLine(y(*baseline), "#999", "baseline", *baseline, unit);
    if (h.threshold) out += markLine(y(*h.threshold), "#d93025", "threshold", *h.threshold, unit);
    if (n == 1 || h.events) {
        for (size_t i = 0; i < n; ++i) {
            snprintf(buf, sizeof(buf),
                     "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"3\" fill=\"#1a73e8\"/>\n", x(i),
                     y(h.values[i]));
            out += buf;
        }
        return out + "</svg>\n";
    }
    out += "<polyline fill=\"none\" stroke=\"#1a73e8\" stroke-width=\"1.5\" points=\"";
    for (size_t i = 0; i < n; ++i) {
        snprintf(buf, sizeof(buf), "%s%.1f,%.1f", i == 0 ? "" : " ", x(i), y(h.values[i]));
        out += buf;
    }
    return out + "\"/>\n</svg>\n";
}

// Letters, digits, '.', '-' and '_' of `name`, others as '_', at most 40.
std::string fileSafe(const std::string& name) {
    std::string out;
    for (char c : name.substr(0, 40)) {
        const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
        out += keep ? c : '_';
    }
    return out;
}

}  // namespace

bool writeTrace(const std::vector<CrashReport>& reports, const std::string& path,
                std::string& error) {
    std::string out = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n";
    for (size_t i = 0; i < reports.size(); ++i) {
        const CrashReport& r = reports[i];
        const size_t pid = i + 1;
        out += std::string(i == 0 ? "" : ",\n") +
               "{\"ph\":\"M\",\"name\":\"process_name\",\"pid\":" + std::to_string(pid) +
               ",\"args\":{\"name\":\"" + escape(reportTitle(r, i), false) + "\"}}";
        for (const History& h : r.system) {
            if (h.events) {
                addEvents(out, pid, r, h);
            } else {
                addCounters(out, pid, r, h.name, {&h});
            }
        }
        for (const Process& p : r.processes) {
            addCounters(out, pid, r, p.name + " [" + std::to_string(p.pid) + "]",
                        {&p.rss, &p.rswap});
        }
    }
    out += "\n]}\n";
    return writeFile(path, out, error);
}

bool writeCharts(const std::vector<CrashReport>& reports, const std::string& dir, int& written,
                 std::string& error) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec || !std::filesystem::is_directory(dir, ec)) {
        error = "cannot make the directory " + dir + (ec ? ": " + ec.message() : "");
        return false;
    }
    written = 0;
    for (size_t i = 0; i < reports.size(); ++i) {
        const CrashReport& r = reports[i];
        const std::string prefix = dir + "/report" + std::to_string(i + 1) + "-";
        for (const History& h : r.system) {
            if (h.values.empty()) continue;
            if (!writeFile(prefix + h.slug + ".svg", chart(h.name, h, nullptr), error))
                return false;
            ++written;
        }
        for (const Process* p : topGrowth(r, kChartedProcesses)) {
            const std::string title = "RSS of " + p->name + " [" + std::to_string(p->pid) + "]";
            const std::string file =
                prefix + "rss-" + std::to_string(p->pid) + "-" + fileSafe(p->name) + ".svg";
            if (!writeFile(file, chart(title, p->rss, &p->rssBaseline), error)) return false;
            ++written;
        }
    }
    return true;
}

}  // namespace tavrendctl::report
