// A library to preload into a program on Linux. While the file named by REFUSE_THREADS_WHILE exists, the program cannot
// create threads. Each refusal appends a dot to the file.

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's own parameter names are reserved
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                              void* argument) {
    static const char* const path = std::getenv("REFUSE_THREADS_WHILE");  // NOLINT(concurrency-mt-unsafe)
    static auto* const granted = reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    if (path != nullptr) {
        if (const int file = ::open(path, O_WRONLY | O_APPEND | O_CLOEXEC); file >= 0) {
            static_cast<void>(!::write(file, ".", 1));
            ::close(file);
            return EAGAIN;
        }
    }
    return granted(thread, attributes, function, argument);
}
