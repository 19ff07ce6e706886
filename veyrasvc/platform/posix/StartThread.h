// Threads of the stand-in.
#pragma once

namespace Vantor::Sentrix::Platform {

// Starts a thread that nobody joins. Fails: false when none can be had.
bool StartThread(void* (*run)(void*), void* parameter);

// A number that differs in a process and in the processes that it forks, where its threads are gone.
unsigned ForkGeneration();

} // namespace Vantor::Sentrix::Platform
