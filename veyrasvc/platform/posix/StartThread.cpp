#include "veyrasvc/platform/posix/StartThread.h"

#include <pthread.h>

namespace Vantor::Sentrix::Platform {

namespace {

unsigned forks = 0; // changed only in a child that has one thread

[[maybe_unused]] const int counted = pthread_atfork(nullptr, nullptr, [] { ++forks; });

} // namespace

bool StartThread(void* (*run)(void*), void* parameter) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread{};
    const int error = pthread_create(&thread, &attributes, run, parameter);
    pthread_attr_destroy(&attributes);
    return error == 0;
}

unsigned ForkGeneration() {
    return forks;
}

} // namespace Vantor::Sentrix::Platform
