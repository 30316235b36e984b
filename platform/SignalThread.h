// Signals delivered on a dedicated thread. The raw handler only writes the signal
// number into a pipe; the thread reads it and calls the registered function, so
// handlers may lock and allocate, which inside a raw signal handler could deadlock.
#pragma once

namespace jx {

using SignalHandler = void (*)(int signalNumber);

// Routes the signal to the handler on the signal thread (started on first use).
void setSignalHandler(int signalNumber, SignalHandler handler);
// The signal is ignored from now on.
void ignoreSignal(int signalNumber);

}  // namespace jx
