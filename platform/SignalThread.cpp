#include "platform/SignalThread.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>

namespace jx {
namespace {

constexpr int kMaxSignal = 65;
std::atomic<SignalHandler> gHandlers[kMaxSignal];
int gPipe[2] = {-1, -1};
std::once_flag gStartOnce;

void rawHandler(int signo) {
    int saved = errno;
    unsigned char byte = static_cast<unsigned char>(signo);
    // A full pipe drops the signal: a flood is coalesced, never blocks.
    ssize_t ignored = ::write(gPipe[1], &byte, 1);
    (void)ignored;
    errno = saved;
}

void signalThread() {
    pthread_setname_np(pthread_self(), "joulix-signals");
    for (;;) {
        unsigned char byte;
        ssize_t n = ::read(gPipe[0], &byte, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        if (byte < kMaxSignal)
            if (SignalHandler h = gHandlers[byte].load()) h(byte);
    }
}

void start() {
    std::call_once(gStartOnce, [] {
        if (::pipe2(gPipe, O_CLOEXEC) != 0) return;
        ::fcntl(gPipe[1], F_SETFL, O_NONBLOCK);
        std::thread(signalThread).detach();
    });
}

}  // namespace

void setSignalHandler(int signo, SignalHandler handler) {
    if (signo <= 0 || signo >= kMaxSignal) return;
    start();
    gHandlers[signo].store(handler);
    struct sigaction sa {};
    sa.sa_handler = rawHandler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    ::sigaction(signo, &sa, nullptr);
}

void ignoreSignal(int signo) {
    if (signo <= 0 || signo >= kMaxSignal) return;
    struct sigaction sa {};
    sa.sa_handler = SIG_IGN;
    sigemptyset(&sa.sa_mask);
    ::sigaction(signo, &sa, nullptr);
    gHandlers[signo].store(nullptr);
}

}  // namespace jx
