// Checks a trace-event JSON document against the rules trace viewers rely on, and sums
// up what it holds for the tests to compare with a log's truth.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace jxtest {

struct TraceSummary {
    std::vector<std::string> problems;                                                 // empty when every rule holds
    std::set<std::string> threads;                                                     // thread_name metadata
    std::map<std::string, std::vector<std::pair<std::int64_t, std::int64_t>>> slices;  // name: (ts, dur) µs
    std::map<std::string, std::vector<std::int64_t>> instants;                         // name: ts µs
    std::map<std::string, std::uint64_t> wakeReasons;
    std::map<std::string, std::vector<std::pair<std::int64_t, double>>> counters;  // name: (ts µs, value)
    std::int64_t minTs = INT64_MAX, maxTs = INT64_MIN;                             // of all but metadata
};

inline TraceSummary checkTrace(const nlohmann::json& doc) {
    TraceSummary s;
    auto problem = [&](std::size_t i, const std::string& what) {
        if (s.problems.size() < 20) s.problems.push_back("event " + std::to_string(i) + ": " + what);
    };
    if (!doc.is_object() || !doc.contains("traceEvents") || !doc["traceEvents"].is_array()) {
        s.problems.push_back("no traceEvents array in a top-level object");
        return s;
    }
    if (doc.value("displayTimeUnit", "ms") != "ms" && doc["displayTimeUnit"] != "ns")
        s.problems.push_back("displayTimeUnit is neither ms nor ns");
    std::map<std::pair<std::int64_t, std::int64_t>, std::int64_t> threadLast, sliceEnd;  // by (pid, tid)
    std::map<std::pair<std::int64_t, std::string>, std::int64_t> counterLast;
    const nlohmann::json& events = doc["traceEvents"];
    for (std::size_t i = 0; i < events.size(); ++i) {
        const nlohmann::json& e = events[i];
        auto is = [&](const char* key, bool text) {
            return e.contains(key) && (text ? e[key].is_string() : e[key].is_number());
        };
        if (!e.is_object() || !is("ph", true) || !is("name", true) || !is("ts", false) || !is("pid", false) ||
            !is("tid", false)) {
            problem(i, "not an object of text ph and name, numbers ts, pid and tid");
            continue;
        }
        const std::string ph = e["ph"], name = e["name"];
        const std::int64_t ts = e["ts"].get<std::int64_t>();
        const auto thread = std::make_pair(e["pid"].get<std::int64_t>(), e["tid"].get<std::int64_t>());
        const bool hasArgs = e.contains("args") && e["args"].is_object() && !e["args"].empty();
        if (ph == "M") {
            if (!hasArgs || ((name == "thread_name" || name == "process_name") && !e["args"]["name"].is_string()))
                problem(i, name + " without its args");
            else if (name == "thread_name")
                s.threads.insert(e["args"]["name"].get<std::string>());
            continue;
        }
        s.minTs = std::min(s.minTs, ts);
        s.maxTs = std::max(s.maxTs, ts);
        if (ph == "C") {
            if (!hasArgs) {
                problem(i, "counter without args");
                continue;
            }
            for (const auto& [key, value] : e["args"].items())
                if (!value.is_number()) problem(i, "counter " + name + " has a value that is no number: " + key);
            const auto key = std::make_pair(thread.first, name);
            if (counterLast.contains(key) && ts < counterLast[key])
                problem(i, "counter " + name + " goes back in time");
            counterLast[key] = ts;
            if (e["args"].size() == 1 && e["args"].begin()->is_number())
                s.counters[name].emplace_back(ts, e["args"].begin()->get<double>());
            continue;
        }
        // Events on a thread: in time order, slices not overlapping.
        if (threadLast.contains(thread) && ts < threadLast[thread])
            problem(i, ph + " '" + name + "' before the thread's previous event");
        threadLast[thread] = ts;
        if (ph == "X") {
            if (!e.contains("dur") || !e["dur"].is_number() || e["dur"].get<double>() < 0) {
                problem(i, "complete event without a duration >= 0");
                continue;
            }
            const std::int64_t dur = e["dur"].get<std::int64_t>();
            if (sliceEnd.contains(thread) && ts < sliceEnd[thread])
                problem(i, "slice '" + name + "' overlaps the thread's previous one");
            sliceEnd[thread] = threadLast[thread] = ts + dur;
            s.maxTs = std::max(s.maxTs, ts + dur);
            s.slices[name].emplace_back(ts, dur);
        } else if (ph == "i" || ph == "I") {
            if (e.contains("s") && e["s"] != "g" && e["s"] != "p" && e["s"] != "t") problem(i, "instant of no scope");
            s.instants[name].push_back(ts);
            if (name == "wake") ++s.wakeReasons[e["args"].value("reason", std::string("?"))];
        } else {
            problem(i, "unexpected phase " + ph);
        }
    }
    return s;
}

}  // namespace jxtest
