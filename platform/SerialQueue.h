// Serial work queues: tasks run one at a time, in submission order, on the
// queue's own thread (started with the first task).
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace jx {

class SerialQueue {
public:
    explicit SerialQueue(std::string label);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }
    void async(std::function<void()> task);
    // Runs the task and returns when it has run. Called from a task of this very
    // queue, it runs the task at once instead of waiting for itself forever.
    void sync(const std::function<void()>& task);
    // Whether the calling thread is running a task of this queue.
    bool isCurrent() const;

private:
    // Shared with the worker thread, which may outlive the queue object when the
    // last reference to the queue's owner goes inside one of its own tasks.
    struct State {
        std::string label;
        std::mutex mutex;
        std::condition_variable cv;
        std::deque<std::function<void()>> tasks;
        std::thread::id threadId;
        bool started = false;
        bool stopping = false;
    };
    static void worker(std::shared_ptr<State> state);

    std::string label_;
    std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace jx
