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
    std::vector<std::string> problems;  // empty when every rule holds
    std::size_t events = 0;
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
    if (doc.contains("displayTimeUnit") && doc["displayTimeUnit"] != "ms" && doc["displayTimeUnit"] != "ns")
        s.problems.push_back("displayTimeUnit is neither ms nor ns");
    using Thread = std::pair<std::int64_t, std::int64_t>;
    std::map<Thread, std::vector<std::string>> open;  // B without E
    std::map<Thread, std::int64_t> threadLast;        // ts of the last timed event
    std::map<Thread, std::int64_t> sliceEnd;          // end of the last complete slice
    std::map<std::pair<std::int64_t, std::string>, std::int64_t> counterLast;
    const nlohmann::json& events = doc["traceEvents"];
    s.events = events.size();
    for (std::size_t i = 0; i < events.size(); ++i) {
        const nlohmann::json& e = events[i];
        if (!e.is_object()) {
            problem(i, "not an object");
            continue;
        }
        bool complete = true;
        for (const char* key : {"ph", "name"})
            if (!e.contains(key) || !e[key].is_string())
                problem(i, std::string("no string '") + key + "'"), complete = false;
        for (const char* key : {"ts", "pid", "tid"})
            if (!e.contains(key) || !e[key].is_number())
                problem(i, std::string("no number '") + key + "'"), complete = false;
        if (!complete) continue;
        const std::string ph = e["ph"], name = e["name"];
        const std::int64_t ts = e["ts"].get<std::int64_t>();
        const Thread thread{e["pid"].get<std::int64_t>(), e["tid"].get<std::int64_t>()};
        if (ph == "M") {
            if (!e.contains("args") || !e["args"].is_object())
                problem(i, "metadata without args");
            else if ((name == "thread_name" || name == "process_name") &&
                     !e["args"].value("name", nlohmann::json()).is_string())
                problem(i, name + " without a name");
            else if (name == "thread_name")
                s.threads.insert(e["args"]["name"].get<std::string>());
            continue;
        }
        s.minTs = std::min(s.minTs, ts);
        if (ph == "C") {
            if (!e.contains("args") || !e["args"].is_object() || e["args"].empty()) {
                problem(i, "counter without args");
                continue;
            }
            for (const auto& [key, value] : e["args"].items())
                if (!value.is_number()) problem(i, "counter " + name + " has a value that is no number: " + key);
            const auto key = std::make_pair(thread.first, name);
            if (auto last = counterLast.find(key); last != counterLast.end() && ts < last->second)
                problem(i, "counter " + name + " goes back in time");
            counterLast[key] = ts;
            if (e["args"].size() == 1 && e["args"].begin()->is_number())
                s.counters[name].emplace_back(ts, e["args"].begin()->get<double>());
            s.maxTs = std::max(s.maxTs, ts);
            continue;
        }
        // Events on a thread: in time order, slices closed.
        if (auto last = threadLast.find(thread); last != threadLast.end() && ts < last->second)
            problem(i, ph + " '" + name + "' before the thread's previous event");
        threadLast[thread] = ts;
        s.maxTs = std::max(s.maxTs, ts);
        if (ph == "X") {
            if (!e.contains("dur") || !e["dur"].is_number() || e["dur"].get<double>() < 0) {
                problem(i, "complete event without a duration >= 0");
                continue;
            }
            const std::int64_t dur = e["dur"].get<std::int64_t>();
            if (auto end = sliceEnd.find(thread); end != sliceEnd.end() && ts < end->second)
                problem(i, "slice '" + name + "' overlaps the thread's previous one");
            sliceEnd[thread] = ts + dur;
            threadLast[thread] = ts + dur;
            s.maxTs = std::max(s.maxTs, ts + dur);
            s.slices[name].emplace_back(ts, dur);
        } else if (ph == "B") {
            open[thread].push_back(name);
        } else if (ph == "E") {
            if (open[thread].empty())
                problem(i, "E without its B");
            else
                open[thread].pop_back();
        } else if (ph == "i" || ph == "I") {
            if (e.contains("s") && e["s"] != "g" && e["s"] != "p" && e["s"] != "t") problem(i, "instant of no scope");
            s.instants[name].push_back(ts);
            if (name == "wake") ++s.wakeReasons[e["args"].value("reason", std::string("?"))];
        } else {
            problem(i, "unexpected phase " + ph);
        }
    }
    for (const auto& [thread, names] : open)
        if (!names.empty()) s.problems.push_back("slice '" + names.back() + "' never closed");
    return s;
}

}  // namespace jxtest
