// What the post-processor reads from a written line: the row it matches and the
// event it stores, through its own compiled table.
#pragma once

#include <string>
#include <vector>

#include "baseband/JXBasebandPostProcessing.h"

class PostProcessorPatterns {
public:
    PostProcessorPatterns() { processor_.addSearchStringsToDictionary(table_); }
    // The row the whole line (time stamp included) matches, "" for none.
    std::string rowFor(const std::string& line) {
        auto result = processor_.getMatchedResultsFor(line, table_);
        auto it = result.find("matchedFor");
        return it == result.end() ? std::string() : it->second;
    }
    // The event the line stands for, "" for none.
    std::string eventFor(const std::string& line) {
        const auto events = eventsFor({line});
        return events.size() == 1 ? events[0] : std::string();
    }

    // The events a run of lines stands for, in order, read as one log: the
    // pending values of earlier lines go into later lines' events.
    std::vector<std::string> eventsFor(const std::vector<std::string>& lines) {
        std::vector<std::string> out;
        for (const std::string& line : lines) {
            JXBasebandPostProcessing::Dictionary events;
            processor_.dispatchMatchedResult(processor_.getMatchedResultsFor(line, table_), events);
            for (const auto& [time, event] : events) out.push_back(event);
        }
        return out;
    }

private:
    JXBasebandPostProcessing processor_;
    JXBasebandPostProcessing::Dictionary table_;
};
