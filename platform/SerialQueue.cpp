#include "platform/SerialQueue.h"

#include <pthread.h>

#include <exception>

#include "platform/SystemLog.h"

namespace jx {

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)), state_(std::make_shared<State>()) {
    state_->label = label_;
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->cv.notify_all();
    if (thread_.joinable()) {
        if (thread_.get_id() == std::this_thread::get_id()) thread_.detach();
        else thread_.join();
    }
}

void SerialQueue::async(std::function<void()> task) {
    {
        std::lock_guard lock(state_->mutex);
        state_->tasks.push_back(std::move(task));
        if (!state_->started) {
            state_->started = true;
            thread_ = std::thread(worker, state_);
            state_->threadId = thread_.get_id();
        }
        // Notified under the lock: once it is released the task may run and release the
        // queue's owner, and with it this queue.
        state_->cv.notify_one();
    }
}

bool SerialQueue::isCurrent() const {
    std::lock_guard lock(state_->mutex);
    return state_->started && state_->threadId == std::this_thread::get_id();
}

void SerialQueue::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::mutex doneMutex;
    std::condition_variable doneCv;
    bool done = false;
    std::exception_ptr raised;
    async([&] {
        // A task that throws must still release the caller; the exception goes to it.
        try {
            task();
        } catch (...) {
            raised = std::current_exception();
        }
        std::lock_guard lock(doneMutex);
        done = true;
        doneCv.notify_one();
    });
    std::unique_lock lock(doneMutex);
    doneCv.wait(lock, [&] { return done; });
    if (raised) std::rethrow_exception(raised);
}

void SerialQueue::worker(std::shared_ptr<State> s) {
    std::string name = s->label.size() > 15 ? s->label.substr(s->label.size() - 15) : s->label;
    pthread_setname_np(pthread_self(), name.c_str());
    std::unique_lock lock(s->mutex);
    for (;;) {
        s->cv.wait(lock, [&] { return s->stopping || !s->tasks.empty(); });
        if (s->tasks.empty()) return;  // stopping, and everything queued has run
        std::function<void()> task = std::move(s->tasks.front());
        s->tasks.pop_front();
        lock.unlock();
        try {
            task();
        } catch (const std::exception& e) {
            systemLogf(kLogError, "%s: task raised %s", s->label.c_str(), e.what());
        } catch (...) {
            systemLogf(kLogError, "%s: task raised an exception", s->label.c_str());
        }
        task = nullptr;  // release what the task held before taking the lock again
        lock.lock();
    }
}

}  // namespace jx
