// A library to be preloaded into a program on Linux: while the file that REFUSE_THREADS_WHILE names exists, the program
// gets no thread. Each refusal appends a dot to that file.

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the library's own are reserved names
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
