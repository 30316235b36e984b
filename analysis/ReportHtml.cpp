// The report as one self-contained HTML page: SVG timelines on one time axis, the
// rankings as tables, and a small script for the values under the pointer. Nothing is
// fetched: no external script, font or style sheet.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "analysis/Report.h"

namespace jx::analysis {

namespace {

using Json = nlohmann::ordered_json;

constexpr int kLeft = 64, kPlotWidth = 1080, kRight = 16, kHeight = 120, kTop = 8, kBottom = 22;
constexpr int kWidth = kLeft + kPlotWidth + kRight;

std::string escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string num(double v, int decimals = 1) {
    char out[48];
    std::snprintf(out, sizeof out, "%.*f", decimals, v);
    return out;
}

// A local time of the report's zone: "10-24 13:00".
std::string localLabel(TimeMs t, std::int32_t offset, const char* format) {
    const std::time_t s = static_cast<std::time_t>(t / 1000 + offset);
    std::tm tm{};
    gmtime_r(&s, &tm);
    char out[40];
    std::strftime(out, sizeof out, format, &tm);
    return out;
}

struct Axis {
    TimeMs origin, width;
    std::size_t count;
    double x(double slot) const { return kLeft + slot * kPlotWidth / static_cast<double>(count ? count : 1); }
};

// Vertical lines at local midnights (or every few hours over a short span) and their labels.
std::string grid(const Axis& axis, std::int32_t offset, bool labels) {
    std::string out;
    const TimeMs begin = axis.origin, end = axis.origin + axis.width * static_cast<TimeMs>(axis.count);
    const TimeMs span = end - begin;
    TimeMs step = 86400000;
    for (TimeMs s : {3600000LL, 3 * 3600000LL, 6 * 3600000LL, 12 * 3600000LL, 86400000LL})
        if (span / s <= 10) {
            step = s;
            break;
        }
    while (span / step > 10) step *= 2;
    const TimeMs off = offset * 1000LL;
    for (TimeMs t = ((begin + off) / step + 1) * step - off; t < end; t += step) {
        const double x = axis.x(static_cast<double>(t - begin) / static_cast<double>(axis.width));
        out += "<line class=\"grid\" x1=\"" + num(x) + "\" x2=\"" + num(x) + "\" y1=\"" + std::to_string(kTop) +
               "\" y2=\"" + std::to_string(kHeight - kBottom) + "\"/>";
        if (labels)
            out += "<text class=\"tick\" x=\"" + num(x) + "\" y=\"" + std::to_string(kHeight - 6) + "\">" +
                   localLabel(t, offset, step >= 86400000 ? "%m-%d" : "%m-%d %H:%M") + "</text>";
    }
    return out;
}

struct Range {
    double lo, hi;
    double y(double v) const {
        const double h = kHeight - kTop - kBottom;
        return kTop + h - (hi > lo ? (v - lo) / (hi - lo) : 0.5) * h;
    }
};

Range rangeOf(const ValueSeries& s, std::optional<Range> fixed) {
    if (fixed) return *fixed;
    double lo = 0, hi = 0;
    bool any = false;
    for (const Bucket& b : s.buckets) {
        if (!b.count) continue;
        lo = any ? std::min(lo, b.min) : b.min;
        hi = any ? std::max(hi, b.max) : b.max;
        any = true;
    }
    if (lo > 0 && lo < hi * 0.5) lo = 0;  // rates from zero, where that keeps the shape visible
    if (hi == lo) {
        hi += 1;
        lo -= 1;
    }
    const double pad = (hi - lo) * 0.05;
    return {lo == 0 ? 0 : lo - pad, hi + pad};
}

std::string svgOpen(const std::string& id, const std::string& title) {
    return "<figure class=\"panel\"><figcaption>" + escape(title) + "</figcaption><svg class=\"chart\" id=\"chart-" +
           id + "\" data-series=\"" + id + "\" viewBox=\"0 0 " + std::to_string(kWidth) + " " +
           std::to_string(kHeight) + "\" width=\"" + std::to_string(kWidth) + "\" height=\"" + std::to_string(kHeight) +
           "\" role=\"img\">";
}

std::string svgClose(const Axis& axis) {
    return "<line class=\"cursor\" x1=\"-10\" x2=\"-10\" y1=\"" + std::to_string(kTop) + "\" y2=\"" +
           std::to_string(kHeight - kBottom) + "\"/><rect class=\"hover\" x=\"" + std::to_string(kLeft) +
           "\" y=\"0\" width=\"" + std::to_string(kPlotWidth) + "\" height=\"" + std::to_string(kHeight) +
           "\" data-buckets=\"" + std::to_string(axis.count) + "\"/></svg></figure>\n";
}

// A value series: its min-max band and its mean line, broken where there is no data.
std::string valueChart(const std::string& id, const std::string& title, const std::string& unit, const ValueSeries& s,
                       const Axis& axis, std::int32_t offset, std::optional<Range> fixed, int* points) {
    const Range r = rangeOf(s, fixed);
    std::string band, line;
    bool open = false;
    *points = 0;
    // Readings stop while the device sleeps: the line goes on over an hour's gap, not longer.
    const std::size_t bridge = static_cast<std::size_t>(std::max<TimeMs>(1, 3600000 / axis.width));
    std::size_t empty = 0;
    for (std::size_t i = 0; i < axis.count && i < s.buckets.size(); ++i) {
        const Bucket& b = s.buckets[i];
        if (!b.count) {
            if (++empty > bridge) open = false;
            continue;
        }
        empty = 0;
        const double x0 = axis.x(static_cast<double>(i)), x1 = axis.x(static_cast<double>(i) + 1);
        const double mean = b.sum / b.count;
        band += "M" + num(x0) + " " + num(r.y(b.max)) + "H" + num(x1) + "V" + num(r.y(b.min)) + "H" + num(x0) + "Z";
        line += (open ? "L" : "M") + num((x0 + x1) / 2) + " " + num(r.y(mean));
        open = true;
        ++*points;
    }
    std::string out = svgOpen(id, title + " (" + unit + ")");
    out += grid(axis, offset, true);
    for (double v : {r.lo, (r.lo + r.hi) / 2, r.hi})
        out += "<text class=\"scale\" x=\"" + std::to_string(kLeft - 6) + "\" y=\"" + num(r.y(v) + 4) + "\">" +
               num(v, std::fabs(r.hi - r.lo) < 10 ? 1 : 0) + "</text>";
    if (r.lo < 0 && r.hi > 0)
        out += "<line class=\"zero\" x1=\"" + std::to_string(kLeft) + "\" x2=\"" + std::to_string(kLeft + kPlotWidth) +
               "\" y1=\"" + num(r.y(0)) + "\" y2=\"" + num(r.y(0)) + "\"/>";
    out += "<path class=\"band\" d=\"" + band + "\"/><path class=\"line\" d=\"" + line + "\" data-points=\"" +
           std::to_string(*points) + "\"/>";
    out += svgClose(axis);
    return out;
}

// The share of each bucket spent in a state, as bars; wakes as marks above them.
std::string stateChart(const std::string& id, const std::string& title, const StateSeries& s, const Axis& axis,
                       std::int32_t offset, const WakeSeries* wakes, int* points) {
    const Range r{0, 1};
    std::string bars;
    *points = 0;
    for (std::size_t i = 0; i < axis.count && i < s.ms.size(); ++i) {
        const double share = std::min(1.0, s.ms[i] / static_cast<double>(axis.width));
        if (share <= 0) continue;
        const double x0 = axis.x(static_cast<double>(i)), x1 = axis.x(static_cast<double>(i) + 1);
        bars += "M" + num(x0) + " " + num(r.y(share)) + "H" + num(x1) + "V" + num(r.y(0)) + "H" + num(x0) + "Z";
        ++*points;
    }
    std::string out = svgOpen(id, title);
    out += grid(axis, offset, true);
    out += "<text class=\"scale\" x=\"" + std::to_string(kLeft - 6) + "\" y=\"" + num(r.y(1) + 4) +
           "\">100%</text><text class=\"scale\" x=\"" + std::to_string(kLeft - 6) + "\" y=\"" + num(r.y(0) + 4) +
           "\">0</text>";
    out +=
        "<path class=\"state state-" + id + "\" d=\"" + bars + "\" data-points=\"" + std::to_string(*points) + "\"/>";
    if (wakes) {
        for (std::size_t i = 0; i < axis.count && i < wakes->reasons.size(); ++i) {
            const auto& reasons = wakes->reasons[i];
            if (reasons.empty()) continue;
            std::uint32_t n = 0;
            std::string text;
            for (const auto& [reason, count] : reasons) {
                n += count;
                text += (text.empty() ? "" : ", ") + escape(reason) + " ×" + std::to_string(count);
            }
            const double x = axis.x(static_cast<double>(i) + 0.5);
            out += "<g class=\"wake\"><title>" +
                   localLabel(axis.origin + axis.width * static_cast<TimeMs>(i), offset, "%m-%d %H:%M") + ": " +
                   std::to_string(n) + " wake(s): " + text + "</title><circle cx=\"" + num(x) + "\" cy=\"" +
                   std::to_string(kTop + 4) + "\" r=\"" + num(std::min(6.0, 2.0 + n)) + "\"/></g>";
            ++*points;
        }
    }
    out += svgClose(axis);
    return out;
}

std::string table(const std::string& title, const std::vector<std::string>& head,
                  const std::vector<std::vector<std::string>>& rows) {
    if (rows.empty()) return "";
    std::string out = "<section><h3>" + escape(title) + "</h3><table><thead><tr>";
    for (const std::string& h : head) out += "<th>" + escape(h) + "</th>";
    out += "</tr></thead><tbody>";
    for (const auto& row : rows) {
        out += "<tr>";
        for (const std::string& cell : row) out += "<td>" + escape(cell) + "</td>";
        out += "</tr>";
    }
    return out + "</tbody></table></section>\n";
}

std::string cell(const Json& v, int decimals = 1, double scale = 1) {
    if (v.is_number()) return num(v.get<double>() * scale, decimals);
    if (v.is_string()) return v.get<std::string>();
    return "-";
}

const char* kStyle = R"(
body{font:14px/1.4 system-ui,sans-serif;margin:24px;color:#1d232a;background:#fbfbfc}
h1{font-size:22px;margin:0 0 4px}h2{font-size:18px;margin:28px 0 8px}h3{font-size:15px;margin:18px 0 6px}
.meta{color:#5b6570}.cards{display:flex;flex-wrap:wrap;gap:12px;margin:16px 0}
.card{background:#fff;border:1px solid #dde1e6;border-radius:6px;padding:8px 14px;min-width:130px}
.card b{display:block;font-size:20px}.card span{color:#5b6570;font-size:12px}
figure.panel{margin:0 0 6px}figcaption{font-weight:600;font-size:13px;margin-left:64px}
svg.chart{display:block;background:#fff;border:1px solid #e3e6ea}
.grid{stroke:#e3e6ea}.zero{stroke:#9aa3ad;stroke-dasharray:3 3}.tick,.scale{font-size:11px;fill:#5b6570}
.tick{text-anchor:middle}.scale{text-anchor:end}
.band{fill:#2f7fd1;opacity:.18}.line{fill:none;stroke:#2f7fd1;stroke-width:1.5}
.state{fill:#8a9aab}.state-charging{fill:#3aa35b}.state-screen{fill:#e6a23c}.state-suspend{fill:#6c5fc7}
.wake circle{fill:#d9480f}.cursor{stroke:#d9480f;stroke-width:1}.hover{fill:transparent}
#tip{position:fixed;pointer-events:none;background:#1d232a;color:#fff;font-size:12px;padding:6px 8px;border-radius:4px;display:none;white-space:pre}
table{border-collapse:collapse;background:#fff;margin-bottom:8px}th,td{border:1px solid #dde1e6;padding:3px 8px;text-align:right}
th{background:#f0f2f5}td:first-child,th:first-child{text-align:left}
.columns{display:flex;flex-wrap:wrap;gap:24px}
)";

// Moves one cursor over every chart and shows every series' value in the bucket under the pointer.
const char* kScript = R"(
(function () {
  var data = JSON.parse(document.getElementById('jx-data').textContent);
  var tip = document.getElementById('tip');
  var charts = Array.prototype.slice.call(document.querySelectorAll('svg.chart'));
  function fmt(v) { return Math.abs(v) >= 100 ? v.toFixed(0) : v.toFixed(1); }
  function show(i, ev) {
    var lines = [data.labels[i]];
    data.series.forEach(function (s) {
      var v = s.values[i];
      if (v === null || v === undefined) return;
      if (s.kind === 'state') lines.push(s.title + ': ' + Math.round(v * 100) + ' %');
      else lines.push(s.title + ': ' + fmt(v[0]) + ' ' + s.unit + ' (' + fmt(v[1]) + '…' + fmt(v[2]) + ')');
    });
    var w = data.wakes[i];
    if (w) lines.push('wakes: ' + w);
    tip.textContent = lines.join('\n');
    tip.style.display = 'block';
    tip.style.left = Math.min(ev.clientX + 14, window.innerWidth - 260) + 'px';
    tip.style.top = (ev.clientY + 14) + 'px';
    var x = data.left + (i + 0.5) * data.width / data.count;
    charts.forEach(function (c) {
      var l = c.querySelector('.cursor');
      l.setAttribute('x1', x); l.setAttribute('x2', x);
    });
  }
  charts.forEach(function (c) {
    var r = c.querySelector('.hover');
    r.addEventListener('mousemove', function (ev) {
      var box = c.getBoundingClientRect();
      var px = (ev.clientX - box.left) * data.total / box.width - data.left;
      var i = Math.max(0, Math.min(data.count - 1, Math.floor(px * data.count / data.width)));
      show(i, ev);
    });
    r.addEventListener('mouseleave', function () { tip.style.display = 'none'; });
  });
  document.body.setAttribute('data-ready', String(charts.length));
})();
)";

}  // namespace

std::string reportHtml(const Report& r, const ReportOptions& o) {
    const Json j = reportJson(r, o);
    const Axis axis{r.seriesOrigin, r.bucketMs ? r.bucketMs : 1, r.bucketCount};
    std::string charts;
    Json series = Json::array();
    auto valueData = [&](const std::string& title, const std::string& unit, const ValueSeries& s) {
        Json values = Json::array();
        for (std::size_t i = 0; i < axis.count; ++i) {
            const Bucket& b = i < s.buckets.size() ? s.buckets[i] : Bucket{};
            if (!b.count)
                values.push_back(nullptr);
            else
                values.push_back(
                    {std::round(b.sum / b.count * 10) / 10, std::round(b.min * 10) / 10, std::round(b.max * 10) / 10});
        }
        series.push_back({{"title", title}, {"unit", unit}, {"kind", "value"}, {"values", std::move(values)}});
    };
    auto stateData = [&](const std::string& title, const StateSeries& s) {
        Json values = Json::array();
        for (std::size_t i = 0; i < axis.count; ++i)
            values.push_back(i < s.ms.size() ? std::round(s.ms[i] / static_cast<double>(axis.width) * 100) / 100 : 0.0);
        series.push_back({{"title", title}, {"kind", "state"}, {"values", std::move(values)}});
    };
    std::vector<std::string> missing;
    int points = 0;
    auto value = [&](const std::string& id, const std::string& title, const std::string& unit, const ValueSeries& s,
                     std::optional<Range> fixed = std::nullopt) {
        if (s.empty()) {
            missing.push_back(title);
            return;
        }
        charts += valueChart(id, title, unit, s, axis, r.offset, fixed, &points);
        valueData(title, unit, s);
    };
    auto state = [&](const std::string& id, const std::string& title, const StateSeries& s, const WakeSeries* w) {
        const bool any =
            std::any_of(s.ms.begin(), s.ms.end(), [](double v) { return v > 0; }) ||
            (w && std::any_of(w->reasons.begin(), w->reasons.end(), [](const auto& v) { return !v.empty(); }));
        if (!any) {
            missing.push_back(title);
            return;
        }
        charts += stateChart(id, title, s, axis, r.offset, w, &points);
        stateData(title, s);
    };
    if (axis.count) {
        value("level", "Battery level", "%", r.series.levelPct, Range{0, 100});
        value("power", "Battery power", "mW", r.series.powerMw);
        state("charging", "Charging", r.series.charging, nullptr);
        state("screen", "Screen on", r.series.screenOn, nullptr);
        state("suspend", "Suspended, with wakes", r.series.suspended, &r.series.wakes);
        value("cpu", "CPU", "%", r.series.cpuPct);
        value("package", "Package power", "mW", r.series.packageMw);
        value("temperature", "Temperature", "°C", r.series.temperatureC);
        value("wifi", "Wi-Fi signal", "dBm", r.series.wifiSignalDbm);
    }
    Json labels = Json::array(), wakes = Json::array();
    for (std::size_t i = 0; i < axis.count; ++i) {
        const TimeMs t = axis.origin + axis.width * static_cast<TimeMs>(i);
        labels.push_back(localLabel(t, r.offset, "%Y-%m-%d %H:%M") + " – " +
                         localLabel(t + axis.width, r.offset, "%H:%M"));
        std::string w;
        if (i < r.series.wakes.reasons.size())
            for (const auto& [reason, n] : r.series.wakes.reasons[i])
                w += (w.empty() ? "" : ", ") + reason + " ×" + std::to_string(n);
        wakes.push_back(w.empty() ? Json(nullptr) : Json(w));
    }
    const Json data = {{"left", kLeft},    {"width", kPlotWidth}, {"total", kWidth}, {"count", axis.count},
                       {"labels", labels}, {"series", series},    {"wakes", wakes}};
    // A "</" inside the data would end the script element early.
    std::string dataText = data.dump(-1, ' ', false, Json::error_handler_t::replace);
    for (std::size_t at = 0; (at = dataText.find("</", at)) != std::string::npos; at += 3)
        dataText.replace(at, 2, "<\\/");

    const Json& b = j["battery"];
    const Json& s = j["suspend"];
    const Json& a = j["awake"];
    std::string out =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>joulix report</title><style>";
    out += kStyle;
    out += "</style></head><body>\n<h1>Where the power went</h1>\n<p class=\"meta\">";
    if (r.first)
        out += escape(localLabel(r.first, r.offset, "%Y-%m-%d %H:%M") + " to " +
                      localLabel(r.last, r.offset, "%Y-%m-%d %H:%M") + " (UTC" + (r.offset >= 0 ? "+" : "-") +
                      num(std::abs(r.offset) / 3600.0, 1) + "), " + std::to_string(r.logs) + " log(s)" +
                      (r.guessedTimes ? ", times partly guessed" : ""));
    else
        out += "no log entries in the period";
    out += "</p>\n<div class=\"cards\">";
    auto card = [&](const std::string& value, const std::string& label) {
        out += "<div class=\"card\"><b>" + escape(value) + "</b><span>" + escape(label) + "</span></div>";
    };
    card(cell(b["drain_mw"], 0) + " mW", "mean drain off the charger");
    card(cell(b["drain_pct_per_hour"], 2) + " %/h", "battery per hour");
    card(b["hours_to_empty"].is_number()  ? cell(b["hours_to_empty"], 1) + " h"
         : b["hours_to_full"].is_number() ? cell(b["hours_to_full"], 1) + " h to full"
                                          : "-",
         b["hours_to_full"].is_number() ? "to full, charging" : "to empty from the last reading");
    card(cell(s["suspended_share"], 1, 100) + " %", "of the time suspended");
    card(std::to_string(r.wakes) + " (" + cell(s["wakes_per_hour"], 2) + "/h)", "wakes");
    card(std::to_string(r.wakeLoopCount), "wake loops (< " + num(o.wakeLoopSeconds, 0) + " s apart)");
    out += "</div>\n<h2>Timeline</h2>\n<div id=\"charts\">" + charts + "</div>\n";
    if (!missing.empty()) {
        out += "<p class=\"meta\">No data in these logs for: ";
        for (std::size_t i = 0; i < missing.size(); ++i) out += (i ? ", " : "") + escape(missing[i]);
        out += ".</p>\n";
    }

    out += "<h2>Battery</h2><div class=\"columns\">";
    std::vector<std::vector<std::string>> rows;
    for (int i = 0; i < kPowerStates; ++i) {
        const auto st = static_cast<PowerState>(i);
        const Json& f = b["states"][powerStateName(st)];
        const bool c = st == PowerState::Charging;
        rows.push_back({powerStateName(st), cell(f["hours"], 2), cell(f[c ? "charged_mwh" : "drained_mwh"], 0),
                        cell(f[c ? "charge_mw" : "drain_mw"], 0),
                        cell(f[c ? "charge_pct_per_hour" : "drain_pct_per_hour"], 2),
                        cell(f[c ? "hours_to_full" : "hours_to_empty"], 1) + (c ? " to full" : "")});
    }
    out += table("By state", {"state", "hours", "mWh", "mW", "%/h", "full↔empty h"}, rows);
    rows.clear();
    for (const Json& d : b["days"])
        rows.push_back({d["date"].get<std::string>(), cell(d["drained_mwh"], 0), cell(d["charged_mwh"], 0),
                        cell(d["screen_on_hours"], 2), cell(d["screen_off_awake_hours"], 2),
                        cell(d["suspended_hours"], 2), cell(d["charging_hours"], 2),
                        std::to_string(d["wakes"].get<std::uint64_t>())});
    out += table(
        "Per day",
        {"day", "drained mWh", "charged mWh", "screen on h", "screen off h", "suspended h", "charging h", "wakes"},
        rows);
    out += "</div><h2>Suspend</h2><div class=\"columns\">";
    rows.clear();
    for (const Json& w : s["wake_reasons"])
        rows.push_back(
            {w["reason"].get<std::string>(), std::to_string(w["wakes"].get<std::uint64_t>()), cell(w["per_hour"], 2)});
    out += table("Wake-ups by reason", {"reason", "wakes", "per hour"}, rows);
    rows.clear();
    for (const Json& t : s["top_drains"])
        rows.push_back({t["began"].get<std::string>(), cell(t["seconds"], 0), cell(t["drain_mw"], 1),
                        t["woken_by"].get<std::string>()});
    if (rows.size() > 15) rows.resize(15);
    out += table("Suspends that drained most", {"began (UTC)", "seconds", "drain mW", "woken by"}, rows);
    rows.clear();
    for (const Json& l : s["longest_wake_loops"]) {
        std::string reasons;
        for (const auto& [reason, n] : l["reasons"].items())
            reasons += (reasons.empty() ? "" : ", ") + reason + " ×" + std::to_string(n.get<std::uint64_t>());
        rows.push_back({l["first"].get<std::string>(), l["last"].get<std::string>(),
                        std::to_string(l["wakes"].get<std::uint64_t>()), reasons});
    }
    out += table("Wake loops", {"first (UTC)", "last (UTC)", "wakes", "reasons"}, rows);
    out += "</div><h2>Who kept it awake</h2><div class=\"columns\">";
    auto usage = [&](const char* title, const Json& list, const char* primary, const char* secondary,
                     const std::vector<std::string>& head) {
        rows.clear();
        for (const Json& row : list) {
            std::vector<std::string> cells{row["name"].get<std::string>(), cell(row[primary], 1, 0.001),
                                           cell(row["awake_share"], 1, 100)};
            if (secondary) cells.push_back(cell(row[secondary], 0));
            rows.push_back(std::move(cells));
        }
        out += table(title, head, rows);
    };
    usage("Wake-up sources", a["wakeup_sources"], "active_ms", "wakeups",
          {"source", "active s", "% of awake", "wake-ups"});
    usage("Processes", a["processes"], "cpu_ms", "ctx_switches",
          {"process", "CPU s", "% of awake", "context switches"});
    usage("Devices (runtime PM)", a["devices"], "active_ms", nullptr, {"device", "active s", "% of awake"});
    rows.clear();
    for (const Json& z : a["rapl"])
        rows.push_back({z["zone"].get<std::string>(), cell(z["energy_j"], 1), cell(z["mean_mw"], 0)});
    out += table("RAPL energy", {"zone", "J", "mean mW"}, rows);
    out += "</div><h2>Thermal, Wi-Fi and baseband</h2><div class=\"columns\">";
    rows.clear();
    for (const Json& t : j["thermal"])
        rows.push_back(
            {t["zone"].get<std::string>(), cell(t["max"], 1), t["max_at"].get<std::string>(), cell(t["mean"], 1)});
    out += table("Thermal peaks", {"zone", "max °C", "at (UTC)", "mean °C"}, rows);
    rows.clear();
    for (const Json& w : j["wifi_signal_dbm"])
        rows.push_back({w["interface"].get<std::string>(), cell(w["min"], 0), cell(w["mean"], 1), cell(w["max"], 0)});
    out += table("Wi-Fi signal", {"interface", "min dBm", "mean dBm", "max dBm"}, rows);
    rows.clear();
    for (const Json& v : j["baseband"])
        rows.push_back({v["time"].get<std::string>(), v["verdict"].get<std::string>(), cell(v["threshold_point"], 0)});
    out += table("Baseband verdicts", {"time (UTC)", "verdict", "threshold point"}, rows);
    out += "</div>\n<div id=\"tip\"></div>\n<script type=\"application/json\" id=\"jx-data\">" + dataText +
           "</script>\n<script>" + kScript + "</script>\n</body></html>\n";
    return out;
}

}  // namespace jx::analysis
